// What has been read and not been taken, without a socket: against the stream that was written.
#include "stp_transport/transport/stp_read_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

namespace {

using Use = STPReadBuffer::Use;
constexpr std::int64_t kInitial = STP_SMALL_BLOCK;

// One packet with something else than 0 for its fill.
std::vector<unsigned char> packetOf(std::int32_t headerSize, std::int32_t payload) {
  std::vector<unsigned char> packet(static_cast<std::size_t>(stpStoredSize(headerSize + payload)),
                                    0xEE);
  stpWriteWord(&packet[0], static_cast<std::uint32_t>(headerSize));
  stpWriteWord(&packet[4], static_cast<std::uint32_t>(payload));
  return packet;
}

void add(STPReadBuffer& buffer, const unsigned char* bytes, std::int64_t count,
         bool isWanted = false) {
  const STPReadBuffer::Room room = isWanted ? buffer.roomFor(count) : buffer.room();
  ASSERT_LE(count, room.size);
  ASSERT_LE(room.size, buffer.capacity()) << "begins in front of the block";
  std::memcpy(room.bytes, bytes, static_cast<std::size_t>(count));
  buffer.add(count);
}

// One stream cut into random pieces, with headers of every size, odd payloads and fill, taken
// packet by packet or in runs.
TEST(ReadBuffer, GivesBackAStreamHoweverItIsCut) {
  std::mt19937 random(20);
  for (int round = 0; round < 200; ++round) {
    std::vector<unsigned char> stream, taken;
    for (int i = 0; i < 40; ++i) {
      const auto packet = packetOf(
          static_cast<std::int32_t>(32 + 4 * (random() % 25)),
          static_cast<std::int32_t>(random() % 20 == 0 ? random() % 70000 : random() % 40));
      stream.insert(stream.end(), packet.begin(), packet.end());
    }
    STPReadBuffer buffer(kInitial);
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t wanted = 1 + random() % (round % 2 ? 7 : 100000);
      const auto room = static_cast<std::size_t>(buffer.room().size);
      ASSERT_GE(room, std::size_t{STPReadBuffer::kLeastRoom});
      const std::size_t piece =
          std::min(stream.size() - at, round % 3 ? std::min(wanted, room) : wanted);
      add(buffer, &stream[at], static_cast<std::int64_t>(piece), round % 3 == 0);
      at += piece;
      while (buffer.mayHavePacket()) {
        std::int64_t run = 0;
        STPPacketTest test;
        while ((test = buffer.test(run)).state == STPPacketState::complete) {
          const std::int64_t total = std::int64_t{test.headerSize} + test.payloadSize;
          buffer.clearFill(run, total);
          run += stpStoredSize(total);
          if (round % 4 == 0) break;
        }
        ASSERT_NE(test.state, STPPacketState::invalid);
        taken.insert(taken.end(), buffer.front(), buffer.front() + run);
        buffer.take(run, round % 5 ? Use::relayed : Use::delivered);
        if (test.state == STPPacketState::incomplete) buffer.awaitMore();
      }
      buffer.settle();
      if (random() % 3 == 0) buffer.rest();
    }
    // The fill isn't part of what a packet says.
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t total = stpReadWord(&stream[at]) + stpReadWord(&stream[at + 4]);
      const auto stored = static_cast<std::size_t>(stpStoredSize(static_cast<int>(total)));
      std::fill(&stream[at] + total, &stream[at] + stored, 0);
      at += stored;
    }
    ASSERT_TRUE(taken == stream) << "round " << round;
    ASSERT_EQ(buffer.count(), 0);
  }
}

// Nobody needs the fill to take a packet, however little room there is in front of the next one.
TEST(ReadBuffer, TakesAPacketBeforeItsFill) {
  STPReadBuffer buffer(kInitial);
  const auto odd = packetOf(32, 1), next = packetOf(32, 4);
  const auto take = [&](std::int64_t stored) {
    ASSERT_EQ(buffer.test().state, STPPacketState::complete);
    buffer.take(stored, Use::delivered);
  };
  for (int i = 0; i < 2000; ++i) {
    add(buffer, odd.data(), 33);
    take(36);
    EXPECT_EQ(buffer.count(), 0);
    EXPECT_FALSE(buffer.mayHavePacket());
    if (i % 2) buffer.settle(), buffer.rest();
    add(buffer, odd.data() + 33, 2);
    EXPECT_FALSE(buffer.mayHavePacket()) << "still fill";
    add(buffer, odd.data() + 35, 1);
    add(buffer, next.data(), 36);
    EXPECT_EQ(buffer.count(), 36);
    take(36);
  }
  EXPECT_EQ(buffer.capacity(), kInitial) << "what has been taken leaves its room";
}

TEST(ReadBuffer, FollowsTheReadsWithItsSize) {
  STPReadBuffer buffer(kInitial);
  const std::vector<unsigned char> bytes(STP_LARGE_BLOCK, 'x');
  const auto read = [&](std::int64_t count) {
    add(buffer, bytes.data(), count);
    buffer.take(count, Use::relayed);
    buffer.settle();
  };
  read(kInitial);
  EXPECT_EQ(buffer.capacity(), kInitial) << "what has been delivered calls for no more";
  read(kInitial);
  EXPECT_EQ(buffer.capacity(), STP_LARGE_BLOCK);
  read(STP_LARGE_BLOCK / 2);
  EXPECT_EQ(buffer.capacity(), STP_LARGE_BLOCK);
  read(100);
  EXPECT_EQ(buffer.capacity(), kInitial);
  add(buffer, bytes.data(), STP_LARGE_BLOCK, true);
  EXPECT_GT(buffer.capacity(), STP_LARGE_BLOCK);
  buffer.clear();
  EXPECT_EQ(buffer.count(), 0);
  EXPECT_EQ(buffer.capacity(), kInitial);
}

}  // namespace
