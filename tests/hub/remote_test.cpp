// The hub's small jobs: connecting on request, values asked across, where it is, and leaving.
#include "indgen/host.h"
#include "stp_transport/transport/stp_socket.h"
#include "support/hub_test.h"

using RemoteTest = HubTest;

TEST_F(RemoteTest, ConnectsToAPluginThatListens) {
  startHub({"-hl_log_internal", directory / "internal"});
  const std::string nobody = std::to_string(freePort());
  first->RequestPluginConnect("127.0.0.1", std::stoi(nobody), 5);
  EXPECT_EQ(first->next(),
            "PluginConnectedEvent 5 -1 'Hublink unable to connect to plugin on host 127.0.0.1 and "
            "port " +
                nobody + ".'");
  std::uint16_t listening = 0;
  const auto link = awaitClient([&](std::uint16_t at) {
    listening = at;
    first->RequestPluginConnect("localhost", at, 6);
    settle();
  });
  EXPECT_EQ(first->counts(), "2/1");
  const Plugin remote = makeCounted<TestPlugin>(link.get());
  EXPECT_EQ(remote->next(), "PluginId 2");  // the failure used up no ID
  EXPECT_EQ(first->next(), "PluginConnectedEvent 6 2 ''");
  EXPECT_EQ(remote->counts(), "2/2");
  EXPECT_NE(
      contents(directory / "internal")
          .find("Created plugin ID 2 on host localhost, port " + std::to_string(listening) + ".\n"),
      std::string::npos);
}

TEST_F(RemoteTest, PluginThatDiesBeforeItNegotiatesIsReported) {
  startHub();
  const Plugin other = join();
  for (const bool requesterGoes : {false, true}) {
    auto link = awaitClient([&](std::uint16_t at) {
      (requesterGoes ? other : first)->RequestPluginConnect("127.0.0.1", at, 6);
      (requesterGoes ? other : first)->counts();
    });
    if (requesterGoes) {
      other->vanish();
      awaitCounts("2/1");
      const Plugin remote = makeCounted<TestPlugin>(link.get());
      EXPECT_EQ(remote->next(), "PluginId 4");
      continue;
    }
    link.reset();
    const std::string line = first->next();
    EXPECT_EQ(line.rfind("PluginConnectedEvent 6 -1 'Hublink unable to connect to plugin", 0), 0u)
        << line;
  }
}

TEST_F(RemoteTest, ValuesAskedAcross) {
  startHub();
  const Plugin a = join(), b = join();
  a->RequestValueOfNameOnPlugin(3, "colour");
  EXPECT_EQ(b->next(), "ForwardedRequestValueOfNameOnPlugin 2 3 'colour'");
  b->ValueOfNameOnPluginResponseEvent(2, 3, "colour", "blue");
  EXPECT_EQ(a->next(), "ValueOfNameOnPluginEvent 3 'colour' 'blue'");
  b->ValueOfNameOnPluginResponseEvent(2, 3, nullptr, "");
  EXPECT_EQ(a->next(), "ValueOfNameOnPluginEvent 3 null ''");
  b->ValueOfNameOnPluginResponseEvent(99, 3, "colour", "blue");
  a->RequestValueOfNameOnPlugin(99, "colour");
  EXPECT_EQ(a->next(), "ValueOfNameOnPluginEvent 99 'colour' null");
  a->RequestValueOfNameOnPlugin(2, "own");
  EXPECT_EQ(a->next(), "ForwardedRequestValueOfNameOnPlugin 2 2 'own'");
  a->RequestLocation();
  EXPECT_EQ(a->next(), "LocationEvent '" + std::string(static_cast<const char*>(gen_host_name())) +
                           "' " + std::to_string(port));
}

TEST_F(RemoteTest, LeavesUnlessItOwesAnAnswer) {
  startHub();
  const Plugin a = join(), b = join();
  EXPECT_EQ(b->provide("svc"), 10);
  a->ask("svc", 1);
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 2 10 11 ['key' 'value']");
  b->RequestHublinkDisconnect();
  EXPECT_EQ(b->counts(), "3/3");  // it stays, and has to ask again
  b->ConnectionAcceptedEvent(10, 11, true);
  EXPECT_EQ(a->next(), "ConnectionReplyEvent 'svc' 11 1 0 1 10 3 null 1");
  EXPECT_EQ(b->counts(), "3/3");
  b->RequestHublinkDisconnect();
  EXPECT_EQ(b->next(), "closed");
  EXPECT_EQ(a->next(), "ConnectionDroppedEvent 11 10");
  EXPECT_EQ(a->counts(), "2/2");
}

TEST_F(RemoteTest, ALocationHasLeftWhenTheNextMessageIsHandled) {
  startHub();
  RawPeer leaving = joinRaw();
  leaving.send(hubMessageBytes("RequestLocation") + hubMessageBytes("RequestHublinkDisconnect"));
  EXPECT_EQ(leaving.next().id(), indexOf(kHubSends, "LocationEvent"));
  EXPECT_TRUE(leaving.ends());
}
