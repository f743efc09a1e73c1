// What the hub asks of bridges to other machines. The test plays the bridges and their stand-ins.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "generated/hubbridge_bridge_impl.h"
#include "support/hub_test.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

using Number = std::int32_t;
using Text = const char*;

// Keeps questions as lines, without their cookies, which it remembers.
class Bridge : public HubBridge_bridge_Impl {
 public:
  std::vector<std::string> heard;
  Number cookie = 0;  // of the last question

 protected:
  template <class... Fields>
  void record(const Fields&... fields) {
    std::ostringstream text;
    ((text << fields << ' '), ...);
    heard.push_back(text.str());
  }
  void Wanted(Number number, Text service, Number requester, Text program, Number provider,
              StringArray pairs, Text directory) override {
    cookie = number;
    record("Wanted", service, requester, program, provider, pairs.count > 1 ? pairs.data[1] : "-",
           directory ? directory : "-");
  }
  void WantedProvider(Number number, Text service, Text directory, bool start) override {
    cookie = number;
    record("WantedProvider", service, directory ? directory : "-", start);
  }
  void NoLongerWanted(Number number) override { record("NoLongerWanted", number == cookie); }
};
using BridgeEnd = CountedPtr<Bridge>;

class AbroadTest : public HubTest {
 protected:
  static BridgeEnd open(const Plugin& plugin) {
    return openOfHub<Bridge>(plugin, "hublink.abroad", 5);
  }
  static std::string stands(const BridgeEnd& bridge, Number plugin, Text machine = "far") {
    gen_text error;
    EXPECT_TRUE(bridge->StandsFor(plugin, machine, "their program", 77, &error));
    return error ? error.get() : "";
  }
  static Number reserve(const Plugin& plugin) {
    plugin->ReserveRNBlock(1);
    return plugin->nextNumber("RNBlockReservedEvent");
  }
  /// All that it has heard since the last time.
  std::vector<std::string> heard(const BridgeEnd& bridge, std::size_t least = 1) {
    EXPECT_TRUE(await([&] { return bridge->heard.size() >= least; }));
    return std::exchange(bridge->heard, {});
  }
  /// Answers its next question.
  void deny(const BridgeEnd& bridge) {
    heard(bridge);
    bridge->NotFound(bridge->cookie);
  }
  void find(const BridgeEnd& bridge, Number plugin, Number rn) {
    heard(bridge);
    bridge->Found(bridge->cookie, plugin, rn);
  }
  void startAll() {
    startHub({"-hl_log_internal", directory / "log"});
    nearPlugin = join();
    farPlugin = join();
    nearBridge = open(nearPlugin);
    farBridge = open(farPlugin);
    standIn = join();
    EXPECT_EQ(stands(farBridge, standIn->id), "");
  }
  Plugin nearPlugin, farPlugin, standIn;  // 2, 3 and 4
  BridgeEnd nearBridge, farBridge;        // in this order; the stand-in is the second one's
};

// What the first has not found the second is asked for, and the link is made like any other.
TEST_F(AbroadTest, BridgesAreAskedInTheirOrder) {
  startAll();
  const Plugin user = join();  // 5
  const char* pairs[] = {"key", "value"};
  user->RequestServiceConnection("Far", -1, {2, pairs}, "/some/where", false, 6, false, false);
  EXPECT_THAT(heard(nearBridge), ElementsAre("Wanted Far 5 hub_tests -1 value /some/where "));
  nearBridge->NotFound(nearBridge->cookie);
  EXPECT_THAT(heard(farBridge), ElementsAre("Wanted Far 5 hub_tests -1 value /some/where "));
  nearBridge->NotFound(farBridge->cookie);  // of a question that it no longer has
  nearPlugin->counts();
  const Number rn = reserve(standIn);
  farBridge->Found(farBridge->cookie, standIn->id, rn);
  EXPECT_EQ(standIn->next(), "ConnectionRequestedEvent 5 " + std::to_string(rn) + " " +
                                 std::to_string(rn + 1) + " ['key' 'value']");
  standIn->ConnectionAcceptedEvent(rn, rn + 1, true);
  EXPECT_EQ(user->next(), "ConnectionReplyEvent 'Far' " + std::to_string(rn + 1) + " 1 0 1 " +
                              std::to_string(rn) + " 4 null 6");
  user->query("Far", 7, false);
  EXPECT_THAT(heard(nearBridge), ElementsAre("WantedProvider Far - 0 "));
  nearBridge->NotFound(nearBridge->cookie);
  EXPECT_THAT(heard(farBridge), ElementsAre("WantedProvider Far - 0 "));
  farBridge->Found(farBridge->cookie, standIn->id, 0);
  EXPECT_EQ(user->next(), "PluginIdForServiceReplyEvent 7 'Far' 4 1");
  standIn->vanish();
  EXPECT_TRUE(user->nextIs("ConnectionDroppedEvent"));
}

TEST_F(AbroadTest, WhatIsFoundMustBeTheBridgesOwn) {
  startAll();
  const Number rn = reserve(standIn), foreign = reserve(first);
  const std::tuple<BridgeEnd, Number, Number> answers[] = {{nearBridge, standIn->id, rn},
                                                           {farBridge, standIn->id, foreign},
                                                           {farBridge, 1, foreign},
                                                           {farBridge, 99, rn},
                                                           {nearBridge, nearPlugin->id, rn}};
  for (const auto& [bridge, plugin, found] : answers) {
    first->ask("Far", 1);
    for (const BridgeEnd& asked : {nearBridge, farBridge}) {
      if (asked.get() == bridge.get())
        find(asked, plugin, found);
      else
        deny(asked);
    }
    EXPECT_EQ(first->next(), failureReply("Far", 1));
    EXPECT_THAT(heard(bridge), ElementsAre("NoLongerWanted 1 "));
  }
  EXPECT_EQ(stands(nearBridge, standIn->id), "plugin 4 is a stand-in of another bridge");
  EXPECT_EQ(stands(nearBridge, farPlugin->id), "plugin 3 is a bridge");
  EXPECT_EQ(stands(nearBridge, 99), "there is no plugin 99");
  EXPECT_EQ(stands(nearBridge, first->id, ""), "that is no name");
  for (const Plugin& plugin : {nearPlugin, standIn}) {
    plugin->ask("hublink.abroad", 2);
    EXPECT_EQ(plugin->next(), "ConnectionReplyEvent 'hublink.abroad' -1 1 0 0 5 0 null 2");
  }
}

// Nothing of this is heard by a bridge.
TEST_F(AbroadTest, WhatStaysHere) {
  startAll();
  first->RequestServiceConnection("Far", -1, {}, nullptr, true, 1, false, false);
  first->RequestServiceConnection("Far", -1, {}, nullptr, false, 2, true, false);
  first->RequestServiceConnection("Far", -1, {}, nullptr, false, 3, false, true);
  first->ask("hublink.other", 4);
  first->ask("Far", 5, 99);
  for (int cookie = 1; cookie <= 5; ++cookie)
    EXPECT_EQ(first->next(), failureReply(cookie == 4 ? "hublink.other" : "Far", cookie));
  for (const Plugin& plugin : {nearPlugin, farPlugin, standIn}) {
    plugin->ask("Far", 6);
    EXPECT_EQ(plugin->next(), failureReply("Far", 6));
    plugin->ask("Far", 7, standIn->id);
    EXPECT_THAT(plugin->next(), StartsWith("ConnectionReplyEvent 'Far' -1 0"));
    plugin->query("Far", 8);
    EXPECT_EQ(plugin->next(), "PluginIdForServiceReplyEvent 8 'Far' -1 0");
  }
  standIn->provide("Near");
  first->ask("Near", 9);
  EXPECT_TRUE(standIn->nextIs("ConnectionRequestedEvent"));
  EXPECT_THAT(nearBridge->heard, ElementsAre());
  EXPECT_THAT(farBridge->heard, ElementsAre());
}

TEST_F(AbroadTest, OnlyItsBridgeIsAskedForAStandIn) {
  startAll();
  first->ask("Far", 1, standIn->id);
  EXPECT_THAT(heard(farBridge), ElementsAre(StartsWith("Wanted Far 1")));
  const Number rn = reserve(standIn);
  farBridge->Found(farBridge->cookie, standIn->id, rn);
  EXPECT_TRUE(standIn->nextIs("ConnectionRequestedEvent"));
  standIn->ConnectionAcceptedEvent(rn, rn + 1, false);
  EXPECT_THAT(first->next(), StartsWith("ConnectionReplyEvent 'Far' "));
  first->ask("Far", 2, standIn->id);
  deny(farBridge);
  EXPECT_EQ(first->next(), failureReply("Far", 2));
  const Plugin other = join();
  EXPECT_EQ(stands(farBridge, other->id, "another machine"), "");
  first->ask("Far", 3, standIn->id);
  find(farBridge, other->id, reserve(other));
  EXPECT_EQ(first->next(), failureReply("Far", 3));
  EXPECT_THAT(nearBridge->heard, ElementsAre());
}

TEST_F(AbroadTest, AQuestionEndsWithItsRequesterAndGoesOnWithoutItsBridge) {
  startAll();
  const Plugin user = join();
  user->ask("Far", 1);
  heard(nearBridge);
  user->vanish();
  EXPECT_THAT(heard(nearBridge), ElementsAre("NoLongerWanted 1 "));
  // One that goes before its link has been accepted.
  const Plugin another = join();
  another->ask("Far", 2);
  deny(nearBridge);
  find(farBridge, standIn->id, reserve(standIn));
  EXPECT_TRUE(standIn->nextIs("ConnectionRequestedEvent"));
  another->vanish();
  EXPECT_TRUE(standIn->nextIs("ConnectionDroppedEvent"));
  // What is registered here meanwhile serves those who have asked.
  first->ask("Late", 3);
  first->query("Late", 4);
  heard(nearBridge, 2);
  // Whoever isn't served abroad waits with those who wait here.
  const Plugin provider = join();
  first->ask("Late", 7, provider->id);
  first->ask("Late", 8);
  deny(nearBridge);
  deny(farBridge);
  farPlugin->counts();
  provider->provide("Late");
  EXPECT_EQ(heard(nearBridge, 2).size(), 2u);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(provider->nextIs("ConnectionRequestedEvent"));
  EXPECT_THAT(first->next(), HasSubstr("4 'Late' " + std::to_string(provider->id) + " 0"));
  first->ask("Far", 5);
  heard(nearBridge);
  nearPlugin->vanish();
  heard(farBridge);
  farPlugin->DropServiceConnection(farBridge->getSourceRN(), 5);
  EXPECT_EQ(first->next(), failureReply("Far", 5));
  // The hub is as it was without a bridge.
  first->query("Far", 6, false);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 6 'Far' -1 0");
}

TEST_F(AbroadTest, ABridgeIsStartedIfItIsDescribed) {
  namespace fs = std::filesystem;
  executable = directory / "hublink";
  fs::copy_file(HubProcess::builtExecutable(), executable);
  fs::create_directories(directory / "defaults/services");
  std::ofstream(directory / "defaults/services/test.kvs")
      << "Services { { ExecName = \"" << LAUNCHED_PLUGIN << "\" Arguments { { Arg = \"once\" } "
      << "{ Arg = \"" << directory / "tried"
      << "\" } { Arg = \"exit\" } { Arg = \"provide\" } "
      << "{ Arg = \"other\" } } ServicesProvided { { ServiceName = \"hublink.bridge\" } } } }\n";
  startHub();
  first->ask("Far", 1);
  EXPECT_EQ(first->next(), failureReply("Far", 1)) << "it has ended at once";
  // The next one comes. Its questions go to whoever first opens the service.
  first->ask("Far", 2);
  first->query("Far", 3);
  const Plugin plugin = join();
  const BridgeEnd bridge = open(plugin);
  EXPECT_THAT(heard(bridge, 2),
              ElementsAre(StartsWith("Wanted Far 1"), StartsWith("WantedProvider Far - 1")));
  plugin->vanish();
  EXPECT_EQ(first->next(), failureReply("Far", 2));
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 3 'Far' -1 0");
  awaitCounts("2/2");
}

}  // namespace
