// A receiver that stops reading and goes on, again and again, with a small limit on what is held
// for it: the rest waits at the sender, and all of it arrives.
#include "stp/pair.h"

namespace {

struct Relay : ForwardingHandler {
  explicit Relay(STPTransport& receiver) : target(receiver) {}
  STPTransport* forwardTarget(std::int32_t) override { return &target; }
  void congestionChanged(STPTransport*, bool isCongested) override { stops += isCongested ? 1 : 0; }
  STPTransport& target;
  int stops = 0;
};

TEST(Congestion, StopsTheSenderEachTimeAndLosesNothing) {
  constexpr std::int64_t kLimit = 1 << 20;
  const std::int64_t usual = std::exchange(stpProcess().backlogLimit, kLimit);
  const Pair in = socketPair(), out = socketPair();
  Relay relay(*out.a);
  in.b->setForwardingHandler(&relay);
  out.a->setForwardingHandler(&relay);
  Recorder inbox;
  out.b->addListener(2, 1, &inbox, STP_BINARY);
  std::vector<std::string> sent;
  const auto post = [&] {
    sent.push_back(std::to_string(sent.size()) + std::string(40000 + sent.size(), 'c'));
    in.a->enqueueMessage(*textMessage(*in.a, STP_BINARY, sent.back()));
    in.a->handleWrite();
  };
  const STPTransportSet sending{in.a.get(), in.b.get(), out.a.get()};
  STPTransportSet all = sending;
  all.insert(out.b.get());
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
    for (int step = 0; step < 3000 && inbox.texts.size() < sent.size(); ++step)
      serviceFirst(10, all);
    ASSERT_EQ(inbox.texts.size(), sent.size());
    EXPECT_GE(relay.stops, round);
  }
  EXPECT_TRUE(inbox.texts == sent);
  stpProcess().backlogLimit = usual;
}

}  // namespace
