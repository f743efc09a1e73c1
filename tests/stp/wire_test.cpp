#include "stp_transport/wire/stp_wire.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

STPPacketState stateOf(std::uint32_t headerSize, std::uint32_t payloadSize, std::int64_t have) {
  unsigned char sizes[8];
  stpWriteWord(sizes, headerSize);
  stpWriteWord(sizes + 4, payloadSize);
  return stpTestPacket(sizes, have).state;
}

TEST(PacketTest, TellsValidSizesFromInvalidOnes) {
  for (std::uint32_t size : {32U, 36U, 44U, 128U})
    EXPECT_EQ(stateOf(size, 0, 1000), STPPacketState::complete) << size;
  for (std::uint32_t size : {0U, 28U, 30U, 33U, 132U, 0x80000000U, 0xFFFFFFFCU})
    EXPECT_EQ(stateOf(size, 0, 1000), STPPacketState::invalid) << size;
  EXPECT_EQ(stateOf(44, 0x10000000 - 44, 44), STPPacketState::incomplete);
  for (std::uint32_t size : {0xFFFFFFFFU, 0x10000000U - 40, 0x7FFFFFFFU})
    EXPECT_EQ(stateOf(44, size, 44), STPPacketState::invalid) << size;
}

TEST(PacketTest, WaitsForTheWholePacketButNotForItsFill) {
  EXPECT_EQ(stateOf(0, 0, 7), STPPacketState::incomplete);
  EXPECT_EQ(stateOf(0, 0, -3), STPPacketState::incomplete);
  EXPECT_EQ(stateOf(44, 5, 48), STPPacketState::incomplete);
  EXPECT_EQ(stateOf(44, 5, 49), STPPacketState::complete);
  EXPECT_EQ(stpStoredSize(49), 52);
}

}  // namespace
