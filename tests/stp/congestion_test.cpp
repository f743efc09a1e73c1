// A receiver that stops reading and goes on, again and again, with a small limit on what is held
// for it: the rest waits at the sender, and all of it arrives.
#include <algorithm>

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
  constexpr std::size_t kPackets = 1200, kRounds = 4;
  const std::int64_t usual = std::exchange(stpProcess().backlogLimit, kLimit);
  const Pair in = socketPair(), out = socketPair();
  Relay relay(*out.a);
  in.b->setForwardingHandler(&relay);
  out.a->setForwardingHandler(&relay);
  Recorder inbox;
  out.b->addListener(2, 1, &inbox, STP_BINARY);
  std::vector<std::string> sent;
  for (std::size_t i = 0; i < kPackets; ++i) {
    sent.push_back(std::to_string(i) + std::string(40000 + i, 'c'));
    in.a->enqueueMessage(*textMessage(*in.a, STP_BINARY, sent.back()));
  }
  const STPTransportSet sending{in.a.get(), in.b.get(), out.a.get()};
  STPTransportSet all = sending;
  all.insert(out.b.get());
  for (std::size_t round = 1; round <= kRounds; ++round) {
    std::int64_t left = -1;
    for (int unchanged = 0; unchanged < 100; ++unchanged) {
      if (std::exchange(left, in.a->writeCount()) != in.a->writeCount()) unchanged = 0;
      serviceFirst(0, sending);
      ASSERT_LT(out.a->writeCount(), 3 * kLimit);
    }
    if (round < kRounds) {
      EXPECT_TRUE(out.a->isCongested());
      EXPECT_GT(left, kLimit) << "the rest waits here";
    }
    const std::size_t enough = kPackets * round / kRounds;
    for (int step = 0; step < 5000 && inbox.texts.size() < enough; ++step) serviceFirst(20, all);
    ASSERT_GE(inbox.texts.size(), enough);
  }
  EXPECT_TRUE(inbox.texts == sent);
  EXPECT_GE(relay.stops, static_cast<int>(kRounds) - 1);
  stpProcess().backlogLimit = usual;
}

}  // namespace
