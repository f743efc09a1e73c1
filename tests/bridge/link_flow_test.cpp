#include "services/hublink_bridge/link_flow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bridge/session_pair.h"
#include "stp_transport/wire/stp_wire.h"

namespace bridge_test {
namespace {

/// The first `bytes` of a packet with these sizes.
Bytes packetOf(std::uint32_t header, std::uint32_t payload, std::size_t bytes,
               std::uint32_t source = 55, std::uint32_t destination = 66) {
  Bytes packet(std::max<std::size_t>(bytes, 16));
  const std::uint32_t words[] = {header, payload, source, destination};
  for (std::size_t i = 0; i < 4; ++i) stpWriteWord(packet.data() + i * 4, words[i]);
  packet.resize(bytes);
  return packet;
}
Bytes packetOf(std::uint32_t payload, std::uint32_t source = 55) {
  return packetOf(44, payload, (44 + payload + 3) / 4 * 4, source);
}

struct Outlet : PacketOutlet {
  std::uint64_t passOn(const unsigned char* packets, std::size_t size) override {
    ++calls;
    bytes.insert(bytes.end(), packets, packets + size);
    return bytes.size();
  }
  Bytes bytes;
  int calls = 0;
};

bool take(IncomingFlow& flow, Bytes bytes) {
  return flow.take(bytes.data(), bytes.size());
}

/// A link from the first to the second, whose stand-in writes when the test says so.
struct FlowPair : SessionPair {
  explicit FlowPair(Faults carrierFaults = {}, unsigned seed = 1)
      : SessionPair(carrierFaults, seed) {
    ends[0].onFrame = [this](const Frame& frame) {
      EXPECT_TRUE(frame.kind != FrameKind::credit || out.takeCredit(frame));
    };
    ends[1].onFrame = [this](const Frame& frame) {
      isClosed = frame.kind == FrameKind::close;
      EXPECT_TRUE(isClosed || in.take(frame.body, frame.size));
    };
  }
  void runUntil(const std::function<bool()>& isReached) {
    for (int turn = 0; turn < 60000 && !isReached(); ++turn, SessionPair::turn())
      if (first.hasRoom()) out.sendMore();
    EXPECT_TRUE(isReached());
  }

  Outlet outlet;
  OutgoingFlow out{first, 9};
  IncomingFlow in{second, 9};
  bool isClosed = false;
};

TEST(LinkFlow, PacketsArriveWholeUnderTheNumbersOfTheReceiver) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    FlowPair pair({5, 5, 0, 10}, seed);
    Bytes sent;
    std::uint64_t packets = 0;
    for (int turn = 0; turn < 500; ++turn, pair.turn()) {
      for (int i = 0; i < 20 && (!pair.out.isStopped() || pair.chance(3)); ++i, ++packets) {
        Bytes packet = packetOf(pair.below(i == 7 ? 300000 : 200), 11);
        for (std::size_t at = 16; at < packet.size(); ++at)
          packet[at] = static_cast<unsigned char>(pair.random());
        pair.out.send(packet.data(), packet.size());
        stpWriteWord(packet.data() + STP_SOURCE_OFFSET, 55);
        sent.insert(sent.end(), packet.begin(), packet.end());
      }
      if (turn == 100) {
        ASSERT_TRUE(pair.in.start(pair.outlet, 55, 66));
      }
      if (pair.chance(30)) pair.in.written(pair.outlet.bytes.size());
    }
    pair.out.close();
    pair.runUntil([&] {
      pair.in.written(pair.outlet.bytes.size());
      return pair.isClosed;
    });
    EXPECT_TRUE(pair.outlet.bytes == sent) << "seed " << seed;
    for (const FlowCounters& counters : {pair.out.counters(), pair.in.counters()}) {
      EXPECT_EQ(counters.packets, packets);
      EXPECT_EQ(counters.bytes, sent.size());
    }
  }
}

TEST(LinkFlow, StreamsAreCutAnywhereAndWholePacketsGoTogether) {
  SessionPair pair;
  Bytes stream;
  for (std::uint32_t size = 0; size < 50; ++size) {
    const Bytes packet = packetOf(size);
    stream.insert(stream.end(), packet.begin(), packet.end());
  }
  for (auto cut = stream.begin(); cut != stream.end(); ++cut) {
    Outlet outlet;
    IncomingFlow flow(pair.second, 1);
    ASSERT_TRUE(flow.start(outlet, 55, 66));
    ASSERT_TRUE(take(flow, Bytes(stream.begin(), cut)) && take(flow, Bytes(cut, stream.end())));
    EXPECT_TRUE(outlet.bytes == stream);
    EXPECT_LE(outlet.calls, 3);  // before the cut, across it, behind it
  }
  const auto takes = [&](std::uint32_t header, std::uint32_t payload) {
    Outlet outlet;
    IncomingFlow started(pair.second, 1), early(pair.second, 2);
    const Bytes head = packetOf(header, payload, 8);
    const bool isTaken = started.start(outlet, 55, 66) &&
                         take(started, Bytes(head.begin(), head.end() - 1)) &&
                         take(started, Bytes(head.end() - 1, head.end()));
    EXPECT_TRUE(take(early, head));
    EXPECT_EQ(early.start(outlet, 55, 66), isTaken);
    return isTaken;
  };
  EXPECT_TRUE(takes(32, 0) && takes(128, 0) && takes(44, 0x0FFFFFD4));
  EXPECT_FALSE(takes(28, 0) || takes(132, 0) || takes(45, 0) || takes(48, 0x0FFFFFD4));
}

TEST(LinkFlow, ASlowReceiverMakesTheSenderWait) {
  FlowPair pair;
  ASSERT_TRUE(pair.in.start(pair.outlet, 55, 66));
  const Bytes packet = packetOf(100000);
  const auto arrived = [&] { return pair.in.counters().bytes; };
  const auto fill = [&](std::uint64_t bytes) {
    pair.runUntil([&] {
      while (!pair.out.isStopped()) pair.out.send(packet.data(), packet.size());
      return arrived() >= bytes;
    });
    pair.run(50);
  };
  fill(kLinkWindow);
  EXPECT_EQ(arrived(), kLinkWindow);
  EXPECT_LE(pair.out.counters().bytes, kLinkWindow + packet.size());
  EXPECT_FALSE(take(pair.in, Bytes(1)));
  pair.in.written(kCreditStep - packet.size());  // not worth a frame
  pair.run(50);
  EXPECT_EQ(arrived(), kLinkWindow);
  pair.in.written(pair.outlet.bytes.size());
  fill(2 * kLinkWindow - kCreditStep - packet.size());
  // The other side can't give what it hasn't got.
  OutgoingFlow fresh(pair.first, 1);
  const auto takesCredit = [&](Bytes body) {
    return fresh.takeCredit({FrameKind::credit, 1, body.data(), body.size()});
  };
  fresh.send(packetOf(0).data(), 44);
  EXPECT_FALSE(takesCredit({45, 0, 0, 0}) || takesCredit({44, 0, 0}));
  EXPECT_TRUE(takesCredit({44, 0, 0, 0}));
  EXPECT_FALSE(takesCredit({1, 0, 0, 0}));
}

TEST(LinkFlow, PacketsBeyondTheWindowTakeTurns) {
  FlowPair pair;
  ASSERT_TRUE(pair.in.start(pair.outlet, 55, 66));
  const Bytes packet = packetOf(12 << 20);
  Bytes packets = packet;
  packets.insert(packets.end(), packet.begin(), packet.end());
  pair.out.send(packets.data(), packets.size());
  // A link's second waits until the first has been written.
  pair.runUntil([&] { return pair.outlet.calls == 1; });
  pair.run(200);
  EXPECT_EQ(pair.outlet.calls, 1);
  pair.in.written(packet.size());
  pair.runUntil([&] { return pair.outlet.calls == 2; });
  EXPECT_TRUE(pair.outlet.bytes == packets);
  pair.in.written(packets.size());
  IncomingFlow other(pair.second, 3);
  ASSERT_TRUE(other.start(pair.outlet, 55, 66));
  {  // Little has come of the largest, and yet nobody else has a share until it has gone.
    IncomingFlow claimant(pair.second, 2);
    ASSERT_TRUE(claimant.start(pair.outlet, 55, 66));
    ASSERT_TRUE(take(claimant, packetOf(44, 0x0FFFFFD4, 100)));
    ASSERT_TRUE(take(other, packetOf(44, kLinkWindow, kLinkWindow)));
    EXPECT_FALSE(take(other, Bytes(1)));
    // One comes within its credit after all, one goes while it waits.
    IncomingFlow quick(pair.second, 4), gone(pair.second, 5);
    ASSERT_TRUE(quick.start(pair.outlet, 55, 66) && gone.start(pair.outlet, 55, 66));
    const Bytes whole = packetOf(3 << 20);
    ASSERT_TRUE(take(quick, Bytes(whole.begin(), whole.begin() + 100)) &&
                take(quick, Bytes(whole.begin() + 100, whole.end())) &&
                take(gone, packetOf(44, kLinkWindow, 100)));
  }
  ASSERT_TRUE(take(other, Bytes(44)));
  EXPECT_EQ(pair.outlet.calls, 4);
  // Closed in the middle of one, and before another was written.
  ASSERT_TRUE(take(other, packetOf(44, kLinkWindow, 100)));
  other.close();
  EXPECT_TRUE(other.hasUnwritten());
  other.written(pair.outlet.bytes.size());
  EXPECT_FALSE(other.hasUnwritten());
  struct : LargePackets::Taker {
    void largePacketGranted() override {}
  } all;
  EXPECT_TRUE(pair.second.largePackets().reserve(all, STP_MAX_PACKET_SIZE));
}

// What nobody wants any more goes on coming, or the other side would never get to its end.
TEST(LinkFlow, WhatIsDroppedGivesCreditAllTheSame) {
  FlowPair pair;
  ASSERT_TRUE(pair.in.start(pair.outlet, 55, 66));
  const Bytes packet = packetOf(20 << 20);
  pair.out.send(packet.data(), packet.size());
  pair.run(50);
  pair.in.drop();
  pair.out.close();
  pair.runUntil([&] { return pair.isClosed; });
  EXPECT_EQ(pair.outlet.calls, 0);
}

}  // namespace
}  // namespace bridge_test
