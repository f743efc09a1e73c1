// The hub's small jobs: connecting on request, and leaving.
#include "stp_transport/transport/stp_socket.h"
#include "support/hub_test.h"

using RemoteTest = HubTest;

TEST_F(RemoteTest, ConnectsToAPluginThatListens) {
  startHub({"-hl_log_internal", directory / "internal"});
  const std::string unable =
      "PluginConnectedEvent 5 -1 'Hublink unable to connect to plugin on host 127.0.0.1 and port ";
  std::int32_t listening = freePort();
  const auto link = awaitClient([&](std::uint16_t at) {
    // Nobody listens at the first, and the second is no port, whatever its low 16 bits are.
    for (const std::int32_t nobody : {listening, at + 65536}) {
      first->RequestPluginConnect("127.0.0.1", nobody, 5);
      EXPECT_EQ(first->next(), unable + std::to_string(nobody) + ".'");
    }
    listening = at;
    first->RequestPluginConnect("localhost", at, 6);
    settle();
  });
  awaitCounts("2/1");
  const Plugin remote = makeCounted<TestPlugin>(link.get());
  EXPECT_EQ(remote->next(), "PluginId 2");  // the failure used up no ID
  EXPECT_EQ(first->next(), "PluginConnectedEvent 6 2 ''");
  EXPECT_EQ(remote->counts(), "2/2");
  EXPECT_NE(
      contents(directory / "internal")
          .find("Created plugin ID 2 on host localhost, port " + std::to_string(listening) + ".\n"),
      std::string::npos);
}

// Two ends that are both a hub's would wait for each other for ever.
TEST_F(RemoteTest, AHubIsNoPlugin) {
  startHub();
  const std::string unable =
      "PluginConnectedEvent 5 -1 'Hublink unable to connect to plugin on host localhost and port ";
  first->RequestPluginConnect("localhost", port, 5);
  EXPECT_EQ(first->next(), unable + std::to_string(port) + ".'");
  awaitCounts("1/1");
  HubProcess other({"-connect_hublink", std::to_string(port), "-not_shared"}, directory);
  EXPECT_EQ(other.waitForEnd(), 0);
  awaitCounts("1/1");
  EXPECT_EQ(other.printed(), "");
}

TEST_F(RemoteTest, ALocationHasLeftWhenTheNextMessageIsHandled) {
  startHub();
  RawPeer leaving = joinRaw();
  leaving.send(hubMessageBytes("RequestLocation") + hubMessageBytes("RequestHublinkDisconnect"));
  EXPECT_EQ(leaving.next().id(), indexOf(kHubSends, "LocationEvent"));
  EXPECT_TRUE(leaving.ends());
}
