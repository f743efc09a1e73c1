// What one plugin may make the hub keep: up to each bound all is well, beyond it the plugin is
// told, everybody else goes on, and with what it gives back it can go on itself.
#include <gmock/gmock.h>

#include "services/hublink/plugin_bounds.h"
#include "support/hub_test.h"

using ::testing::HasSubstr;

class BoundsTest : public HubTest {
 protected:
  /// The internal log is for few messages: it traces every text and list.
  void start(bool hasLog) {
    if (hasLog)
      startHub({"-hl_log_internal", directory / "internal"});
    else
      startHub();
    greedy = join();
  }
  void expectLogged(const std::string& line) const {
    EXPECT_THAT(contents(directory / "internal"), HasSubstr(": Warning: " + line));
  }
  void expectOthersUnharmed() {
    const std::string service = "other" + std::to_string(++others);
    EXPECT_GT(first->provide(service.c_str()), 0);
    first->query(service.c_str(), 1);
    EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 1 '" + service + "' 1 1");
  }
  void registerServices(int count, const std::string& start) const {
    std::vector<std::string> names;
    std::vector<const char*> texts;
    for (int i = 0; i < count; ++i) names.push_back(start + std::to_string(i));
    for (const std::string& name : names) texts.push_back(name.c_str());
    greedy->RegisterServiceList({count, texts.data()});
  }
  static std::string failure(const std::string& service, int cookie) {
    return "ConnectionReplyEvent '" + service + "' -1 0 0 0 0 -1 null " + std::to_string(cookie);
  }

  Plugin greedy;  // plugin 2
  int others = 0;
};

TEST_F(BoundsTest, RNs) {
  start(false);
  RawPeer peer = joinRaw();
  const std::string block = hubMessageBytes("ReserveRNBlock", Numbers{{"count", kLargestRNBlock}});
  const std::string one = hubMessageBytes("ReserveRNBlock", Numbers{{"count", 1}});
  const auto sizeAfter = [&peer](const std::string& message) {
    peer.send(message);
    return peer.next().payload().size();
  };
  const std::size_t empty = sizeAfter(hubMessageBytes("ReserveRNBlock", Numbers{{"count", 0}}));
  for (int i = 0; i < 8; ++i) EXPECT_GT(sizeAfter(block), std::size_t{4} * kLargestRNBlock);
  EXPECT_EQ(sizeAfter(one), empty);
  peer.send(hubMessageBytes("ReleaseRN", Numbers{{"rn", 12345}}));
  EXPECT_EQ(sizeAfter(hubMessageBytes("ReserveRNBlock", Numbers{{"count", 2}})), empty);
  EXPECT_GT(sizeAfter(one), empty);
  EXPECT_EQ(sizeAfter(hubMessageBytes("RegisterServiceList",
                                      [](STPMessage& message) {
                                        putTexts(message, tag("name_list"), tag("count"), 1,
                                                 {"svc"});
                                      })),
            empty);
  EXPECT_EQ(first->provide("svc"), 10 + 8 * kLargestRNBlock + 1);
  peer.send(hubMessageBytes("RequestServiceConnection", [](STPMessage& message) {
    message.putString(tag("serviceName"), "svc");
    message.putU32(tag("providingPluginID"), static_cast<std::uint32_t>(-1));
  }));
  EXPECT_EQ(peer.next().read().getU32(tag("wasFound")), 0u);
  expectOthersUnharmed();
}

TEST_F(BoundsTest, Services) {
  start(true);
  registerServices(kMostServices - 1, "s");
  ASSERT_TRUE(greedy->nextIs("RNBlockReservedEvent"));
  registerServices(2, "t");
  EXPECT_EQ(greedy->next(), "RNBlockReservedEvent []");
  const std::int32_t last = greedy->provide("u");
  EXPECT_GT(last, kMostServices);
  EXPECT_EQ(greedy->provide("v"), 0) << "an empty list";
  // Giving the RN back leaves the service.
  greedy->ReleaseRN(last);
  EXPECT_EQ(greedy->provide("v"), 0);
  greedy->UnregisterService(last);
  const std::int32_t next = greedy->provide("v");
  EXPECT_GT(next, last);
  greedy->ReleaseRN(next);
  expectLogged("Plugin ID 2 has too many services: no more are registered.\n");
  expectOthersUnharmed();
  greedy->vanish();
  awaitCounts("1/1");
  for (const char* name : {"s1", "t1", "v"}) {
    first->query(name, 2);
    EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 2 '" + std::string(name) + "' -1 0");
  }
  greedy = join();
  for (const char letter : {'a', 'b'})
    EXPECT_GT(greedy->provide(std::string(9 << 20, letter).c_str()), next);
  EXPECT_EQ(greedy->provide("c"), 0);
}

TEST_F(BoundsTest, WaitingRequests) {
  start(false);
  for (int i = 1; i < kMostWaiting; ++i) greedy->ask("later", i, 1);
  const char* program[] = {"program"};
  greedy->RequestPluginLaunch({1, program}, 1, true, nullptr);
  EXPECT_TRUE(greedy->nextIs("StartPlugin"));
  greedy->ask("later", 0, 1);
  EXPECT_EQ(greedy->next(), failure("later", 0));
  greedy->query("later", 2);
  EXPECT_EQ(greedy->next(), "PluginIdForServiceReplyEvent 2 'later' -1 0");
  greedy->RequestPluginLaunch({1, program}, 3, true, nullptr);
  EXPECT_EQ(greedy->next(), "PluginConnectedEvent 3 -1 'Failed to launch plugin'");
  greedy->RequestPluginConnect("127.0.0.1", port, 4);
  EXPECT_TRUE(greedy->nextIs("PluginConnectedEvent 4 -1"));
  expectOthersUnharmed();
  greedy->StartPluginEvent(1, false, "no");
  EXPECT_EQ(greedy->next(), "PluginConnectedEvent 1 -1 'no'");
  greedy->ask("later", 5, 1);
  EXPECT_EQ(greedy->counts(), "2/2");
  greedy->vanish();
  awaitCounts("1/1");
  greedy = join();
  const std::string text(33 << 20, 'x');
  const char* pairs[] = {text.c_str()};
  for (int cookie = 1; cookie <= 3; ++cookie)
    greedy->RequestServiceConnection("later", 1, {cookie < 3, pairs}, nullptr, false, cookie, false,
                                     false);
  EXPECT_EQ(greedy->next(), failure("later", 3));
}

TEST_F(BoundsTest, Connections) {
  start(false);
  const std::int32_t service = greedy->provide("own");
  std::string asked;
  int made = 0;
  for (; made < kMostConnections; ++made) {
    greedy->ask("own", made);
    greedy->ConnectionAcceptedEvent(service, service + 1 + made, true);
  }
  for (int i = 0; i < 2 * made; ++i) asked = greedy->next();
  EXPECT_TRUE(asked.starts_with("ConnectionReplyEvent 'own' " + std::to_string(service + made)));
  greedy->ask("own", 7);
  EXPECT_EQ(greedy->next(), failure("own", 7));
  expectOthersUnharmed();
  greedy->DropServiceConnection(service + made, service);
  EXPECT_TRUE(greedy->nextIs("ConnectionDroppedEvent"));
  greedy->ask("own", 8);
  EXPECT_TRUE(greedy->nextIs("ConnectionRequestedEvent"));
}

TEST_F(BoundsTest, TextsForLater) {
  start(true);
  std::string name;
  for (std::size_t i = 0; i <= kMostDebugNames; ++i)
    greedy->DebugPlugin((name = "p" + std::to_string(i)).c_str(), true, nullptr, nullptr);
  const std::string longest(kLongestText, 'd'), longer(kLongestText + 1, 'd');
  greedy->DebugPlugin(nullptr, false, "debugger", longest.c_str());
  greedy->DebugPlugin(nullptr, false, longer.c_str(), "options");
  for (const auto& [program, isDebugged] : {std::pair("p0", true), {name.c_str(), false}}) {
    greedy->RequestPluginLaunch({1, &program}, 1, true, nullptr);
    const std::string start = "StartPlugin ['" + std::string(program) + "' '-hl_";
    EXPECT_THAT(greedy->next(),
                HasSubstr(start + (isDebugged ? "debug_startup' '-hl_debug_debugger' 'debugger' "
                                                "'-hl_debug_debugger_opts' '" +
                                                    longest + "'"
                                              : "client_start_cookie'")));
  }
  expectLogged("Too many plugins to be debugged: ignored \"" + name + "\".\n");
  expectLogged("Ignored a text of plugin ID 2 that is too long.\n");
  greedy->provide("svc");
  greedy->SetWorkingDir("/tmp");
  greedy->SetWorkingDir(longer.c_str());
  greedy->counts();
  first->RequestPluginIdForService(3, "svc", "/tmp", false);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 3 'svc' 2 1");
}
