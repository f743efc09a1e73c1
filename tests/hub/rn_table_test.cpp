// The table of RNs by itself: who owns which.
#include <gtest/gtest.h>

#include <array>

#include "services/hublink/rn_table.h"

namespace {

// Owners are only told apart.
std::array<std::uint64_t, 2> places;
HublinkConnection* owner(std::size_t index) {
  return reinterpret_cast<HublinkConnection*>(&places[index]);
}

}  // namespace

TEST(RNTableTest, PagesGoWithTheirRNs) {
  RNTable table;
  std::int32_t expected = 10;
  const auto inOrder = [&](std::int32_t rn) { EXPECT_EQ(rn, expected++); };
  table.assignBlock(owner(0), 5000, inOrder);
  table.assignBlock(owner(1), 0, inOrder);
  table.assignBlock(owner(1), 3000, inOrder);
  for (std::int32_t rn = 10; rn < 8010; ++rn)
    ASSERT_EQ(table.owner(rn), owner(rn < 5010 ? 0 : 1)) << rn;
  // A block may be given back in pieces, from its middle too.
  for (std::int32_t rn = 2500; rn >= 2048; --rn) table.release(owner(0), rn);
  EXPECT_EQ(table.pages(), 8u);
  for (std::int32_t rn = 2501; rn < 3072; ++rn) table.release(owner(0), rn);
  EXPECT_EQ(table.pages(), 7u);
  table.releaseAll(owner(0), [](std::int32_t) {});
  EXPECT_EQ(table.owner(5009), nullptr);
  EXPECT_EQ(table.owner(5010), owner(1));
  table.releaseAll(owner(1), [](std::int32_t) {});
  EXPECT_EQ(table.pages(), 0u);
  EXPECT_EQ(table.assign(owner(0)), 8010);
}
