// The hub's small classes by themselves: who owns which RN, and when the hub stops by itself.
#include <gtest/gtest.h>

#include <array>

#include "services/hublink/idle_logic.h"
#include "services/hublink/rn_table.h"

namespace {

// Owners are only told apart.
std::array<std::uint64_t, 2> places;
HublinkConnection* owner(std::size_t index) {
  return reinterpret_cast<HublinkConnection*>(&places[index]);
}

class FakeHub : public IdleSubject {
 public:
  bool hasPersistentPlugin() const override { return persistent; }
  bool isShared() const override { return shared; }
  bool isUsedUp() const override { return false; }
  bool removeRecord() override {
    ++tries;
    return lockFree;
  }
  std::int64_t now() const override { return time; }
  bool persistent = false, shared = true, lockFree = true;
  std::int64_t time = 0;
  int tries = 0;
};

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

TEST(IdleLogicTest, SharedHubRemovesItsRecordOnceThenStops) {
  FakeHub hub;
  hub.lockFree = false;
  IdleLogic logic;
  const auto goesOn = [&](std::int64_t time) {
    hub.time = time;
    return logic.afterPass(hub);
  };
  EXPECT_TRUE(goesOn(1000));
  EXPECT_TRUE(goesOn(1000));
  EXPECT_TRUE(goesOn(1000));  // no time has passed since the clock started
  EXPECT_EQ(hub.tries, 0);
  EXPECT_TRUE(goesOn(1001));
  hub.lockFree = true;
  EXPECT_TRUE(goesOn(1002));
  EXPECT_TRUE(goesOn(4999));
  EXPECT_EQ(hub.tries, 2);
  hub.persistent = true;  // somebody came back
  EXPECT_TRUE(goesOn(6000));
  hub.persistent = false;
  for (const std::int64_t now : {7000, 7500, 11000}) EXPECT_TRUE(goesOn(now)) << now;
  EXPECT_FALSE(goesOn(11001));
  EXPECT_EQ(hub.tries, 2);
}
