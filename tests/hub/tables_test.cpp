// The hub's small classes by themselves: who owns which RN, the order of services, when the hub
// stops by itself, and the command line.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "services/hublink/command_line.h"
#include "services/hublink/idle_logic.h"
#include "services/hublink/rn_table.h"
#include "services/hublink/service_table.h"

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
  bool removeRecord() override {
    ++tries;
    return lockFree;
  }
  bool persistent = false, shared = true, lockFree = true;
  int tries = 0;
};

}  // namespace

TEST(RNTableTest, CountsUpAndKeepsOwnersApart) {
  RNTable table;
  EXPECT_EQ(table.assign(owner(0)), 10);
  EXPECT_EQ(table.assign(owner(1)), 11);
  table.release(owner(0), 11);
  EXPECT_EQ(table.owner(11), owner(1));
  table.release(owner(1), 11);
  EXPECT_EQ(table.assign(owner(1)), 12);  // a released RN isn't given out again
  for (const std::int32_t rn : {-1, 0, 9, 11, 13, 0x7FFFFFFF}) EXPECT_EQ(table.owner(rn), nullptr);
}

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
  for (std::int32_t rn = 10; rn < 5010; ++rn) ASSERT_EQ(table.owner(rn), nullptr) << rn;
  EXPECT_EQ(table.owner(5010), owner(1));
  table.releaseAll(owner(1), [](std::int32_t) {});
  EXPECT_EQ(table.pages(), 0u);
  EXPECT_EQ(table.assign(owner(0)), 8010);
}

TEST(ServiceTableTest, OldestOfEqualNamesFirst) {
  ServiceTable table;
  table.add("svc", 12);
  table.add("svc", 10);
  table.add("Svc", 11);
  table.add("svc", 13);
  const auto any = [](std::int32_t) { return true; };
  EXPECT_EQ(table.find("svc", any), 12);
  EXPECT_EQ(table.find("svc", [](std::int32_t rn) { return rn != 12; }), 10);
  for (const std::int32_t gone : {12, 12, 99}) table.remove(gone);
  EXPECT_EQ(table.find("svc", any), 10);
  EXPECT_EQ(table.find("Svc", any), 11);
  EXPECT_EQ(table.find("sv", any), -1);
  EXPECT_EQ(table.size(), 3u);
}

TEST(IdleLogicTest, HubWithoutRecordStopsOnTheFirstIdlePass) {
  FakeHub hub;
  hub.shared = false;
  hub.persistent = true;
  IdleLogic logic;
  EXPECT_TRUE(logic.afterPass(hub, 0));
  hub.persistent = false;
  EXPECT_FALSE(logic.afterPass(hub, 0));
}

TEST(IdleLogicTest, SharedHubRemovesItsRecordOnceThenStops) {
  FakeHub hub;
  hub.lockFree = false;
  IdleLogic logic;
  EXPECT_TRUE(logic.afterPass(hub, 1000));
  EXPECT_TRUE(logic.afterPass(hub, 1000));
  EXPECT_TRUE(logic.afterPass(hub, 1000));  // no time has passed since the clock started
  EXPECT_EQ(hub.tries, 0);
  EXPECT_TRUE(logic.afterPass(hub, 1001));
  hub.lockFree = true;
  EXPECT_TRUE(logic.afterPass(hub, 1002));
  EXPECT_TRUE(logic.afterPass(hub, 4999));
  EXPECT_EQ(hub.tries, 2);
  hub.persistent = true;  // somebody came back
  EXPECT_TRUE(logic.afterPass(hub, 6000));
  hub.persistent = false;
  for (const std::int64_t now : {7000, 7500, 11000}) EXPECT_TRUE(logic.afterPass(hub, now)) << now;
  EXPECT_FALSE(logic.afterPass(hub, 11001));
  EXPECT_EQ(hub.tries, 2);
}

TEST(CommandLineTest, Options) {
  std::vector<std::string> kept;
  const auto parse = [&](std::vector<std::string> arguments) {
    kept = std::move(arguments);
    std::vector<char*> argv{kept.front().data()};
    for (std::string& argument : kept) argv.push_back(argument.data());
    return parseCommandLine(static_cast<int>(argv.size()), argv.data());
  };
  const struct {
    std::vector<std::string> arguments;
    std::uint32_t port;
    bool connectMode;
  } ports[] = {
      {{"-PORT", "0x2000"}, 8192, false},
      {{"-port", "017"}, 15, false},
      {{"-port", "99999999999"}, 0xFFFFFFFF, false},
      {{"-port", "5000", "-connect_hublink", "6000"}, 6000, true},
      {{"-Connect_Hublink", "6000", "-port", "5000"}, 5000, true},
      {{"-unknown", "-port", "-not_shared", "5000"}, 0, false},
  };
  for (const auto& entry : ports) {
    const CommandLine line = parse(entry.arguments);
    EXPECT_EQ(line.port, entry.port) << entry.arguments[0];
    EXPECT_EQ(line.connectMode, entry.connectMode) << entry.arguments[0];
    EXPECT_FALSE(line.notShared || line.missingValue);
  }
  const CommandLine all =
      parse({"-log", "a", "-hl_log_internal", "b", "-HL_ZONE", "-z", "-Not_Shared", "-log"});
  EXPECT_STREQ(all.logFile, "a");
  EXPECT_STREQ(all.internalLogFile, "b");
  EXPECT_STREQ(all.zone, "-z");
  EXPECT_TRUE(all.notShared);
  EXPECT_STREQ(all.missingValue, "-log");
}
