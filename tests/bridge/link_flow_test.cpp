#include "services/hublink_bridge/link_flow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bridge/session_pair.h"
#include "stp_transport/wire/stp_wire.h"

namespace bridge_test {
namespace {

constexpr std::uint32_t kLink = 9;

Bytes packetOf(std::uint32_t header, std::uint32_t payload, std::uint32_t source,
               std::uint32_t destination, std::size_t bytes) {
  Bytes packet(bytes);
  const std::uint32_t words[] = {header, payload, source, destination};
  for (std::size_t i = 0; i < 4 && i * 4 + 4 <= bytes; ++i)
    stpWriteWord(packet.data() + i * 4, words[i]);
  return packet;
}

Bytes packetOf(std::uint32_t payload, std::uint32_t source = 11, std::uint32_t destination = 12) {
  return packetOf(44, payload, source, destination,
                  static_cast<std::size_t>(stpStoredSize(44 + std::int64_t{payload})));
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

/// A link from the first to the second, whose stand-in writes when the test says so.
struct Link {
  explicit Link(SessionPair& pair, std::uint32_t number = kLink)
      : out(pair.first, number), in(pair.second, number) {}
  bool start() { return in.start(outlet, 55, 66); }
  void attach(SessionPair& pair) {
    pair.ends[0].onFrame = [this](Session&, const Frame& frame) {
      if (frame.kind == FrameKind::credit) EXPECT_TRUE(out.takeCredit(frame));
    };
    pair.ends[1].onFrame = [this](Session&, const Frame& frame) {
      if (frame.kind == FrameKind::data) EXPECT_TRUE(in.take(frame.body, frame.size));
      if (frame.kind == FrameKind::close) isClosed = true;
    };
  }
  Outlet outlet;
  OutgoingFlow out;
  IncomingFlow in;
  bool isClosed = false;
};

TEST(LinkFlow, PacketsArriveWholeUnderTheNumbersOfTheReceiver) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SessionPair pair({5, 5, 10}, seed);
    Link link(pair);
    link.attach(pair);
    Bytes expected;
    std::uint64_t packets = 0;
    for (int turn = 0; turn < 800; ++turn) {
      if (turn == 100) ASSERT_TRUE(link.start());
      if (turn < 500 && !link.out.isStopped()) {
        Bytes run;
        for (int i = 0; i < 20; ++i, ++packets) {
          const auto size = static_cast<std::uint32_t>(pair.random() % (i == 7 ? 300000 : 200));
          Bytes packet = packetOf(size);
          for (std::size_t at = 16; at < 44 + size; ++at)
            packet[at] = static_cast<unsigned char>(pair.random());
          run.insert(run.end(), packet.begin(), packet.end());
          stpWriteWord(packet.data() + STP_SOURCE_OFFSET, 55);
          stpWriteWord(packet.data() + STP_DESTINATION_OFFSET, 66);
          expected.insert(expected.end(), packet.begin(), packet.end());
        }
        link.out.send(run.data(), run.size());
      }
      if (pair.chance(30)) link.in.written(link.outlet.bytes.size() * (pair.random() % 2));
      if (pair.first.hasRoom()) link.out.sendMore();
      pair.turn();
    }
    link.out.close();
    for (int turn = 0; turn < 60000 && !link.isClosed; ++turn) {
      link.in.written(link.outlet.bytes.size());
      if (pair.first.hasRoom()) link.out.sendMore();
      pair.turn();
    }
    ASSERT_TRUE(link.isClosed && link.out.isClosed()) << "seed " << seed;
    EXPECT_TRUE(link.outlet.bytes == expected);
    for (const FlowCounters& counters : {link.out.counters(), link.in.counters()}) {
      EXPECT_EQ(counters.packets, packets);
      EXPECT_EQ(counters.bytes, expected.size());
    }
  }
}

TEST(LinkFlow, RunsAreCutAnywhereAndPassedOnTogether) {
  Bytes stream;
  for (std::uint32_t size = 0; size < 50; ++size) {
    const Bytes packet = packetOf(size, 55, 66);
    stream.insert(stream.end(), packet.begin(), packet.end());
  }
  SessionPair pair;
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    Link link(pair);
    ASSERT_TRUE(link.start());
    Bytes bytes = stream;
    ASSERT_TRUE(link.in.take(bytes.data(), cut));
    ASSERT_TRUE(link.in.take(bytes.data() + cut, bytes.size() - cut));
    EXPECT_TRUE(link.outlet.bytes == stream) << cut;
    EXPECT_LE(link.outlet.calls, 3);  // before the cut, the packet that lies across it, behind it
  }
}

TEST(LinkFlow, ASlowReceiverMakesTheSenderWait) {
  SessionPair pair;
  Link link(pair);
  link.attach(pair);
  ASSERT_TRUE(link.start());
  const Bytes packet = packetOf(100000 - 44);
  std::size_t sent = 0;
  const auto fill = [&] {
    for (int turn = 0; turn < 300; ++turn) {
      for (; !link.out.isStopped(); sent += packet.size())
        link.out.send(packet.data(), packet.size());
      pair.run(1);
      link.out.sendMore();
    }
  };
  fill();
  EXPECT_EQ(link.in.counters().bytes, kLinkWindow);
  EXPECT_LE(sent, kLinkWindow + packet.size());
  Bytes tooMuch(1);
  EXPECT_FALSE(link.in.take(tooMuch.data(), 1));
  // Less than a step isn't worth a frame; the whole window is given back.
  link.in.written(kCreditStep - packet.size());
  pair.run(50);
  EXPECT_EQ(link.in.counters().bytes, kLinkWindow);
  link.in.written(link.outlet.bytes.size());
  fill();
  EXPECT_GT(link.in.counters().bytes, 2 * kLinkWindow - 2 * kCreditStep);
  // The other side can't give what nobody has taken.
  Bytes credit = {1, 0, 0, 0};
  OutgoingFlow fresh(pair.first, 1);
  EXPECT_FALSE(fresh.takeCredit({FrameKind::credit, 1, credit.data(), 4}));
  EXPECT_FALSE(fresh.takeCredit({FrameKind::credit, 1, credit.data(), 3}));
  fresh.send(packetOf(0).data(), 44);
  EXPECT_TRUE(fresh.takeCredit({FrameKind::credit, 1, credit.data(), 4}));
  credit[0] = 44;
  EXPECT_FALSE(fresh.takeCredit({FrameKind::credit, 1, credit.data(), 4}));
}

TEST(LinkFlow, PacketsBeyondTheWindowTakeTurns) {
  SessionPair pair;
  Link big(pair);
  big.attach(pair);
  ASSERT_TRUE(big.start());
  const Bytes packet = packetOf(20 << 20, 55, 66);
  big.out.send(packet.data(), packet.size());
  for (int turn = 0; turn < 1000 && big.outlet.calls == 0; ++turn) {
    pair.run(1);
    big.out.sendMore();
  }
  EXPECT_TRUE(big.outlet.bytes == packet);

  // Nothing but the claim has come of this one, and yet nobody else has a claim until it has gone.
  IncomingFlow other(pair.second, 3);
  ASSERT_TRUE(other.start(big.outlet, 55, 66));
  big.in.written(big.outlet.bytes.size());
  {
    IncomingFlow claimant(pair.second, 2);
    ASSERT_TRUE(claimant.start(big.outlet, 55, 66));
    Bytes head = packetOf(44, 0x10000000 - 44, 1, 1, 100);
    ASSERT_TRUE(claimant.take(head.data(), head.size()));
    Bytes most = packetOf(44, kLinkWindow, 1, 1, kLinkWindow);
    ASSERT_TRUE(other.take(most.data(), most.size()));
    EXPECT_FALSE(other.take(most.data(), 1));
  }
  Bytes rest(44);
  ASSERT_TRUE(other.take(rest.data(), rest.size()));
  EXPECT_EQ(big.outlet.calls, 2);
  // Closed in the middle of one, and before it was written.
  Bytes again = packetOf(44, kLinkWindow, 1, 1, 100);
  ASSERT_TRUE(other.take(again.data(), again.size()));
  other.close();
  EXPECT_TRUE(other.hasUnwritten());
  other.written(big.outlet.bytes.size());
  EXPECT_FALSE(other.hasUnwritten());
  struct : LargePackets::Taker {
    void largePacketGranted() override {}
  } all;
  EXPECT_TRUE(pair.second.largePackets().reserve(all, STP_MAX_PACKET_SIZE));
}

TEST(LinkFlow, BytesThatAreNoPacketsAreRefused) {
  SessionPair pair;
  const auto takes = [&](std::uint32_t header, std::uint32_t payload, std::size_t cut) {
    Outlet outlet;
    IncomingFlow flow(pair.second, 1);
    Bytes bytes = packetOf(header, payload, 1, 1, 8);
    return flow.start(outlet, 55, 66) && flow.take(bytes.data(), cut) &&
           flow.take(bytes.data() + cut, 8 - cut);
  };
  for (const std::size_t cut : {0u, 3u, 7u, 8u}) {
    EXPECT_TRUE(takes(32, 0, cut) && takes(128, 0, cut) && takes(44, 0x10000000 - 44, cut));
    EXPECT_FALSE(takes(28, 0, cut) || takes(132, 0, cut) || takes(45, 0, cut));
    EXPECT_FALSE(takes(44, 0x10000000 - 43, cut) || takes(44, 0xFFFFFFFF, cut));
  }
  // Also if it came before the link was up.
  Outlet outlet;
  IncomingFlow flow(pair.second, 1);
  Bytes bytes = packetOf(28, 0, 1, 1, 40);
  EXPECT_TRUE(flow.take(bytes.data(), bytes.size()));
  EXPECT_FALSE(flow.start(outlet, 55, 66));
}

}  // namespace
}  // namespace bridge_test
