// The table of those who wait by itself: who is served, told or forgotten by what happens.
#include <gtest/gtest.h>

#include <array>

#include "services/hublink/waiting_table.h"

namespace {

// Requesters are only told apart.
std::array<std::uint64_t, 4> requesters;
HublinkConnection* plugin(std::size_t index) {
  return reinterpret_cast<HublinkConnection*>(&requesters[index]);
}

std::string shown(const Waiting& entry) {
  const auto index = reinterpret_cast<std::uint64_t*>(entry.requester) - requesters.data();
  const char* kinds[] = {"service", "query", "plugin"};
  return std::to_string(index) + ":" + kinds[entry.wish.index()] + " ";
}
std::string shown(const WaitingList& list) {
  std::string text;
  for (const Waiting& entry : list) text += shown(entry);
  return text;
}

class WaitingTableTest : public ::testing::Test {
 protected:
  void service(std::size_t who, Awaited on, const char* directory = nullptr) {
    table.add(plugin(who), ServiceWish{"S", optionalText(directory), false, false, {}, 1}, on, {});
  }
  void query(std::size_t who, Awaited on) { table.add(plugin(who), QueryWish{"S", {}, 1}, on, {}); }
  void forPlugin(std::size_t who, Awaited on) { table.add(plugin(who), PluginWish{1, ""}, on, {}); }
  std::string registered(std::int32_t pluginID, const char* directory = nullptr) {
    return shown(table.registered(pluginID, directory, "S"));
  }
  /// A launch of the service's provider for `who`.
  ArrivalID launch(std::size_t who) {
    const ArrivalID arrival = table.newArrival();
    table.expect("S", arrival);
    service(who, OnArrival{arrival, true});
    return arrival;
  }

  WaitingTable table;
};

TEST_F(WaitingTableTest, ALaunchServesItsOwnRequestAndThoseThatJoined) {
  const ArrivalID arrival = launch(0);
  service(1, table.joining("S"));
  query(2, table.joining("S"));
  // Somebody else's registration is for those who take any provider.
  EXPECT_EQ(registered(9), "1:service 2:query ");
  EXPECT_TRUE(table.isExpected("S"));
  service(3, table.joining("S"));
  table.arrived(arrival, 5);
  EXPECT_EQ(registered(6), "3:service ");
  EXPECT_EQ(registered(5), "0:service ");
  EXPECT_TRUE(table.empty());
}

TEST_F(WaitingTableTest, AFailedLaunchIsToldToAllWhoHangOnIt) {
  const ArrivalID first = launch(0);
  service(1, table.joining("S"));
  const ArrivalID second = launch(2);
  service(3, table.joining("S"));
  service(3, OnPlugin{7});
  // Who joined goes on as long as another launch may serve him, and ends with the last.
  auto failed = table.arrivalFailed(first);
  EXPECT_EQ(failed.service, "S");
  EXPECT_EQ(shown(failed.ended), "0:service ");
  EXPECT_EQ(shown(table.arrivalFailed(second).ended), "1:service 2:service 3:service ");
  EXPECT_FALSE(table.isExpected("S"));
  EXPECT_TRUE(table.isAwaited("S", nullptr)) << "by the one who named a plugin";
  // One that has connected may still serve those who joined another.
  table.arrived(launch(0), 8);
  const ArrivalID third = launch(1);
  service(2, table.joining("S"));
  EXPECT_EQ(shown(table.arrivalFailed(third).ended), "1:service ");
  EXPECT_EQ(shown(table.gone(plugin(3), 8).ended), "0:service ")
      << "any other will do for the rest";
  EXPECT_EQ(registered(9), "2:service ");
}

TEST_F(WaitingTableTest, APluginIsToldOfOnceItHasNegotiated) {
  for (const std::size_t who : {0u, 1u, 2u}) {
    const ArrivalID arrival = table.newArrival();
    forPlugin(who, OnArrival{arrival, true});
    if (who < 2)
      table.arrived(arrival, static_cast<std::int32_t>(10 + who));
    else
      EXPECT_EQ(shown(table.arrivalFailed(arrival).ended), "2:plugin ");
  }
  EXPECT_EQ(registered(10), "");
  EXPECT_EQ(shown(table.negotiated(10)), "0:plugin ");
  EXPECT_EQ(shown(table.negotiated(10)), "");
  EXPECT_EQ(shown(table.gone(plugin(3), 11).ended), "1:plugin ");
  EXPECT_TRUE(table.empty());
}

TEST_F(WaitingTableTest, AStartByAClientStandsUnderAnIDOfItsOwn) {
  const auto start = [&](std::size_t who, std::int32_t cookie, std::int32_t setAside) {
    service(who, OnClientStart{cookie});
    table.expectFromClient("S", cookie, setAside);
    service(3, OnPlugin{setAside});
  };
  start(0, 1, 21);
  EXPECT_EQ(registered(21), "3:service ") << "nobody has that ID, but who named it takes it";
  service(3, OnPlugin{21});
  EXPECT_FALSE(table.clientStarted(77, 5, false).own);
  auto end = table.clientStarted(1, 5, false);
  EXPECT_FALSE(end.own) << "it waits on, for the plugin";
  EXPECT_EQ(end.setAside, 21);
  EXPECT_TRUE(table.isExpected("S"));
  EXPECT_EQ(registered(5), "0:service 3:service ");
  EXPECT_FALSE(table.isExpected("S"));
  start(0, 2, 22);
  end = table.clientStartFailed(2);
  ASSERT_TRUE(end.own);
  EXPECT_EQ(shown(*end.own) + shown(end.others), "0:service 3:service ");
  EXPECT_EQ(end.setAside, 22);
  // With the client goes what it had in hand.
  start(0, 3, 23);
  forPlugin(0, OnClientStart{4});
  const auto departure = table.gone(plugin(0), 1);
  EXPECT_EQ(shown(departure.ended), "3:service ");
  EXPECT_EQ(departure.setAside, std::vector<std::int32_t>{23});
  EXPECT_FALSE(table.clientStarted(4, 5, false).own);
  forPlugin(1, OnClientStart{5});
  EXPECT_EQ(shown(*table.clientStarted(5, 9, false).own), "1:plugin ");
  EXPECT_TRUE(table.empty());
}

TEST_F(WaitingTableTest, DirectoriesSayWhoFits) {
  service(0, OnAnybody{}, "/a/b");
  service(1, OnAnybody{});
  EXPECT_TRUE(table.isAwaited("S", "/c")) << "by the one to whom it doesn't matter";
  EXPECT_EQ(registered(5), "1:service ");
  EXPECT_FALSE(table.isAwaited("S", "/c"));
  EXPECT_TRUE(table.isAwaited("S", "/A/./b"));
  EXPECT_EQ(registered(5, "/c"), "");
  EXPECT_EQ(registered(5, "/a/b/"), "0:service ");
}

}  // namespace
