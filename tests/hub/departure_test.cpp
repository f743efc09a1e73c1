// The death of a requester or a provider in every state of a request. How both die together is
// played on the simulated machine.
#include "support/hub_test.h"

class DepartureTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    a = join();
    b = join();
  }
  /// Nothing but this waits for the plugin.
  void expectQuiet(const Plugin& plugin) {
    plugin->RequestLocation();
    EXPECT_EQ(plugin->nextNumber("LocationEvent"), port);
  }
  Plugin a, b;  // plugins 2 and 3
};

TEST_F(DepartureTest, WhileTheRequestWaits) {
  a->ask("svc", 1, 3);
  a->ask("svc", 2, 3);
  a->ask("svc", 3);
  a->query("svc", 4);
  EXPECT_EQ(a->counts(), "3/3");
  b->vanish();
  EXPECT_EQ(a->next(), "ConnectionReplyEvent 'svc' -1 0 0 0 0 -1 null 1");
  EXPECT_EQ(a->next(), "ConnectionReplyEvent 'svc' -1 0 0 0 0 -1 null 2");
  // Those that take any provider wait on, until their requester goes.
  const Plugin other = join();
  other->ask("svc", 5);
  EXPECT_EQ(other->counts(), "3/3");
  a->vanish();
  awaitCounts("2/2");
  EXPECT_EQ(first->provide("svc"), 10);
  EXPECT_EQ(first->next(), "ConnectionRequestedEvent 4 10 11 ['key' 'value']");
  expectQuiet(first);
}

TEST_F(DepartureTest, WhileTheProviderOwesAnAnswer) {
  EXPECT_EQ(b->provide("svc"), 10);
  RawPeer asker = joinRaw();
  for (std::uint32_t cookie = 1; cookie <= 3; ++cookie) {
    asker.send(hubMessageBytes("RequestServiceConnection", [cookie](STPMessage& message) {
      message.putString(tag("serviceName"), "svc");
      message.putU32(tag("providingPluginID"), 3);
      message.putU32(tag("client_cookie"), cookie);
    }));
    EXPECT_TRUE(b->nextIs("ConnectionRequestedEvent"));
  }
  a->ask("svc", 4);
  EXPECT_TRUE(b->nextIs("ConnectionRequestedEvent"));
  b->vanish();
  EXPECT_EQ(a->next(), "ConnectionReplyEvent 'svc' -1 1 0 0 0 -1 null 4");
  for (std::uint32_t cookie = 1; cookie <= 3; ++cookie)
    EXPECT_EQ(asker.next().read().getU32(tag("client_cookie")), cookie);
  // The RNs of its own ends went with the answers: packets for them reach nobody.
  RawPeer sender = joinRaw();
  for (std::uint32_t rn = 10; rn <= 14; ++rn) sender.send(packetBytes({.destination = rn}, "late"));
  EXPECT_TRUE(sender.isAnswered());
  EXPECT_EQ(reserveRN(asker), 15);
}

TEST_F(DepartureTest, WhileTheRequesterAwaitsTheAnswer) {
  EXPECT_EQ(b->provide("svc"), 10);
  a->ask("svc", 1);
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 2 10 11 ['key' 'value']");
  b->RequestHublinkDisconnect();
  EXPECT_EQ(b->counts(), "3/3") << "it owes an answer, and has to ask again";
  a->vanish();
  awaitCounts("2/2");
  b->ConnectionAcceptedEvent(10, 11, true);
  b->RequestHublinkDisconnect();  // nobody waits for it any more
  EXPECT_EQ(b->next(), "closed");
}

TEST_F(DepartureTest, OfEitherSideOfALink) {
  const Plugin c = join();
  EXPECT_EQ(b->provide("svc"), 10);
  for (const Plugin& requester : {a, c, b}) {
    requester->ask("svc", 1);
    EXPECT_TRUE(b->nextIs("ConnectionRequestedEvent"));
  }
  for (std::int32_t rn = 11; rn <= 13; ++rn) b->ConnectionAcceptedEvent(10, rn, true);
  EXPECT_EQ(a->nextNumber("ConnectionReplyEvent"), 1);
  EXPECT_EQ(c->nextNumber("ConnectionReplyEvent"), 1);
  EXPECT_EQ(b->nextNumber("ConnectionReplyEvent"), 1);
  a->vanish();
  EXPECT_EQ(b->next(), "ConnectionDroppedEvent 10 11");
  b->RequestHublinkDisconnect();
  EXPECT_EQ(b->next(), "closed");
  EXPECT_EQ(c->next(), "ConnectionDroppedEvent 12 10");
  expectQuiet(c);
  c->query("svc", 2, false);
  EXPECT_EQ(c->next(), "PluginIdForServiceReplyEvent 2 'svc' -1 0");
}
