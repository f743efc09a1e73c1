// The death of a requester or a provider while a question is with the provider. The simulation has
// them die in every state of a request.
#include "support/hub_test.h"

class DepartureTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    a = join();
    b = join();
  }
  Plugin a, b;  // plugins 2 and 3
};

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
