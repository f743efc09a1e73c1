// A receiver that stops reading and goes on, again and again, with a small limit on what is held
// for it: the rest waits at the sender, and all of it arrives. And one who asks without end: his
// turn is short.
#include "platform/clock.h"
#include "stp/pair.h"

namespace {

struct Relay : ForwardingHandler {
  explicit Relay(STPTransport& receiver) : target(receiver) {}
  STPTransport* forwardTarget(std::int32_t) override { return isEnd ? nullptr : &target; }
  void congestionChanged(STPTransport* changed, bool isCongested) override {
    stops += isCongested ? 1 : 0;
    if (!isCongested) mostAtEnd = std::max(mostAtEnd, changed->writeCount());
  }
  STPTransport& target;
  bool isEnd = false;  // what comes is for this end
  int stops = 0;
  std::int64_t mostAtEnd = 0;
};

class Congestion : public testing::Test {
 protected:
  static constexpr std::int64_t kLimit = 1 << 20;

  Congestion() {
    in.b->setForwardingHandler(&relay);
    out.a->setForwardingHandler(&relay);
    out.b->addListener(2, 1, &inbox, STP_BINARY);
    all.insert(out.b.get());
  }
  ~Congestion() override {
    stpProcess().backlogLimit = usual;
    stpProcess().holdLimit = usualHold;
  }

  void post() {
    sent.push_back(std::to_string(sent.size()) + std::string(40000 + sent.size(), 'c'));
    in.a->enqueueMessage(*textMessage(*in.a, STP_BINARY, sent.back()));
    in.a->handleWrite();
  }
  void expectAll() {
    for (int step = 0; step < 3000 && inbox.texts.size() < sent.size(); ++step)
      serviceFirst(10, all);
    ASSERT_EQ(inbox.texts.size(), sent.size());
    EXPECT_TRUE(inbox.texts == sent);
  }

  const std::int64_t usual = std::exchange(stpProcess().backlogLimit, kLimit);
  // What a receiver that is only slow for a moment holds up is beside the point here.
  const std::int64_t usualHold = std::exchange(stpProcess().holdLimit, 2 * kLimit);
  const Pair in = socketPair(), out = socketPair();
  Relay relay{*out.a};
  Recorder inbox;
  std::vector<std::string> sent;
  const STPTransportSet sending{in.a.get(), in.b.get(), out.a.get()};
  STPTransportSet all = sending;
};

TEST_F(Congestion, StopsTheSenderEachTimeAndLosesNothing) {
  for (int round = 1; round <= 4; ++round) {
    // One at a time: what stops the sender leaves nothing in its buffer.
    while (!out.a->isCongested()) {
      ASSERT_LT(sent.size(), 2000u * static_cast<unsigned>(round));
      post();
      for (int i = 0; i < 3; ++i) serviceFirst(0, sending);
    }
    // What sockets hold depends on the system: until the rest waits here and nothing moves.
    while (in.a->writeCount() <= kLimit) {
      for (int i = 0; i < 200; ++i) post();
      std::int64_t waiting = -1;
      for (int unchanged = 0; unchanged < 10;) {
        serviceFirst(5, sending);
        const std::int64_t now = in.a->writeCount() + out.a->writeCount();
        unchanged = std::exchange(waiting, now) == now ? unchanged + 1 : 0;
      }
      ASSERT_LT(out.a->writeCount(), 2 * kLimit);
    }
    EXPECT_TRUE(out.a->isCongested());
    while (out.a->isCongested()) {  // in small steps
      out.b->serviceOnce(0);
      out.a->handleWrite();
    }
    expectAll();
    EXPECT_GE(relay.stops, round);
  }
  EXPECT_LE(relay.mostAtEnd, kLimit / 2);
}

TEST_F(Congestion, StopsOneWhoSendsToHimself) {
  Relay toHimself{*in.b};
  in.b->setForwardingHandler(&toHimself);
  for (int i = 0; i < 600; ++i) {
    post();
    serviceFirst(0, {in.b.get()});
  }
  EXPECT_TRUE(in.b->isCongested());
  EXPECT_LT(in.b->writeCount(), 2 * kLimit);
  in.b->setForwardingHandler(nullptr);
}

// What lies in his socket, and without waiting for the receiver. The parameter: a write to him
// fails before anything is known of his end.
class CongestionAtTheEnd : public Congestion, public testing::WithParamInterface<bool> {};

TEST_P(CongestionAtTheEnd, PassesOnTheLastBytesOfASender) {
  while (!out.a->isCongested()) {
    post();
    for (int i = 0; i < 3; ++i) serviceFirst(0, sending);
  }
  post();
  ASSERT_FALSE(in.a->isWritePending());
  if (GetParam()) {
    in.b->enqueueMessage(*textMessage(*in.b, STP_BINARY, "never read"));
    in.b->handleWrite();
  }
  in.a->disconnect();
  if (GetParam()) in.b->enqueueMessage(*textMessage(*in.b, STP_BINARY, "too late"));
  for (int i = 0; in.b->isConnected() && i < 100; ++i) in.b->serviceOnce(100);
  EXPECT_FALSE(in.b->isConnected());
  EXPECT_TRUE(out.a->isCongested());
  all.erase(in.a.get()), all.erase(in.b.get());
  expectAll();
}

INSTANTIATE_TEST_SUITE_P(CleanlyOrNot, CongestionAtTheEnd, testing::Bool());

// Messages that are delivered here, not passed on: by time, and by bytes where more has come at
// once.
TEST_F(Congestion, TurnsAreShort) {
  in.b->setForwardingHandler(&relay);
  relay.isEnd = true;
  Recorder slow;
  in.b->addListener(2, 1, &slow, STP_BINARY);
  const auto turns = [&](std::size_t most) {
    std::size_t before = 0;
    for (int step = 0; slow.texts.size() < sent.size() && step < 10000; ++step) {
      serviceFirst(100, {in.b.get()});
      EXPECT_LE(slow.texts.size() - before, most);
      before = slow.texts.size();
    }
    EXPECT_TRUE(slow.texts == sent);
  };
  slow.then = [](STPReceivedMessage&) { platform::sleepMilliseconds(3); };
  for (int i = 0; i < 50; ++i) {
    sent.push_back(std::to_string(i));
    in.a->enqueueMessage(*textMessage(*in.a, STP_BINARY, sent.back()));
  }
  in.a->handleWrite();
  turns(12);

  slow.then = nullptr;
  sent.emplace_back(3 << 20, 'x');
  in.a->enqueueMessage(*textMessage(*in.a, STP_BINARY, sent.back()));
  for (int i = 0; i < 20000; ++i) {
    sent.push_back(std::to_string(i));
    in.a->enqueueMessage(*textMessage(*in.a, STP_BINARY, sent.back()));
  }
  while (in.a->isWritePending()) {
    in.a->handleWrite();
    if (in.a->isWritePending()) in.b->serviceOnce(0);
  }
  in.a->disconnect();
  turns(2 * 65536 / 60 + 2);
}

}  // namespace
