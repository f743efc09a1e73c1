// Services: who is found, who waits, and what each side is told.
#include "support/hub_test.h"

class BrokeringTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    a = join();
    b = join();
    c = join();
  }
  Plugin a, b, c;  // plugins 2, 3 and 4
};

TEST_F(BrokeringTest, AcceptedRefusedAndDropped) {
  const char* names[] = {"one", "svc", "two"};
  b->RegisterServiceList({3, names});
  EXPECT_EQ(b->next(), "RNBlockReservedEvent [10 11 12]");
  a->ask("svc", 7);
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 2 11 13 ['key' 'value']");
  b->ConnectionAcceptedEvent(11, 14, true);  // none of these is the question
  b->ConnectionAcceptedEvent(10, 13, true);
  c->ConnectionAcceptedEvent(11, 13, true);
  EXPECT_EQ(c->counts(), "4/4");
  b->ConnectionAcceptedEvent(11, 13, true);
  b->ConnectionAcceptedEvent(11, 13, true);  // answered already
  EXPECT_EQ(a->next(), "ConnectionReplyEvent 'svc' 13 1 0 1 11 3 null 7");

  a->ask("svc", 8, 3);
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 2 11 14 ['key' 'value']");
  b->UnregisterService(11);  // the question stands all the same
  b->ConnectionAcceptedEvent(11, 14, false);
  EXPECT_EQ(a->next(), "ConnectionReplyEvent 'svc' 14 1 0 0 11 3 null 8");

  a->DropServiceConnection(13, 11);
  EXPECT_EQ(b->next(), "ConnectionDroppedEvent 11 13");
  a->DropServiceConnection(13, 99999);
  c->ask("one", 9);
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 4 10 15 ['key' 'value']");
  b->ConnectionAcceptedEvent(10, 15, true);
  EXPECT_EQ(c->nextNumber("ConnectionReplyEvent"), 9);
  c->DropServiceConnection(15, 10);
  EXPECT_EQ(b->next(), "ConnectionDroppedEvent 10 15");
  // A dropped link ends once: neither side hears of it again when the other goes.
  a->vanish();
  awaitCounts("3/3");
  b->RequestLocation();
  EXPECT_EQ(b->nextNumber("LocationEvent"), port);
  b->vanish();
  awaitCounts("2/2");
  c->RequestLocation();
  EXPECT_EQ(c->nextNumber("LocationEvent"), port);
}

TEST_F(BrokeringTest, WhoIsFound) {
  EXPECT_EQ(b->provide("svc"), 10);
  EXPECT_EQ(c->provide("svc"), 11);
  b->SetWorkingDir("/dir/b");
  c->SetWorkingDir("/dir/c/");
  EXPECT_EQ(b->counts() + c->counts(), "4/44/4");
  const struct {
    const char* service;
    std::int32_t provider;
    const char* directory;
    bool localOnly, noReuse;
    const char* found;  // the plugin asked, or null for a failure
  } cases[] = {
      {"svc", -1, nullptr, false, false, "b"},     {"svc", -1, nullptr, true, false, "b"},
      {"svc", 4, nullptr, false, false, "c"},      {"svc", -1, "/dir/./c", false, false, "c"},
      {"svc", 3, "/dir/c", true, true, nullptr},   {"svc", -1, "/dir/d", false, false, nullptr},
      {"svc", 4, nullptr, false, true, nullptr},   {"svc", 9, nullptr, false, false, nullptr},
      {"SVC", -1, nullptr, false, false, nullptr}, {"sv", -1, nullptr, true, false, nullptr},
      {"", -1, nullptr, false, false, nullptr},
  };
  std::int32_t rn = 12;
  for (const auto& entry : cases) {
    a->RequestServiceConnection(entry.service, entry.provider, {0, nullptr}, entry.directory,
                                entry.localOnly, 5, entry.noReuse, false);
    const std::string name = "'" + std::string(entry.service) + "'";
    if (!entry.found) {
      EXPECT_EQ(a->next(), "ConnectionReplyEvent " + name + " -1 0 0 0 0 -1 null 5");
      continue;
    }
    const bool isB = *entry.found == 'b';
    EXPECT_EQ((isB ? b : c)->next(), "ConnectionRequestedEvent 2 " + std::to_string(isB ? 10 : 11) +
                                         " " + std::to_string(rn) + " []");
    (isB ? b : c)->ConnectionAcceptedEvent(isB ? 10 : 11, rn, false);
    EXPECT_EQ(a->nextNumber("ConnectionReplyEvent"), 5);
    ++rn;
  }
  // With the older gone the younger is found.
  a->UnregisterService(10);
  a->query("svc", 1);
  EXPECT_EQ(a->next(), "PluginIdForServiceReplyEvent 1 'svc' 4 1");
  a->RequestServiceConnection(nullptr, -1, {0, nullptr}, nullptr, false, 6, false, false);
  EXPECT_EQ(a->next(), "ConnectionReplyEvent null -1 0 0 0 0 -1 null 6");
}

TEST_F(BrokeringTest, QueriesAndThoseThatWait) {
  a->query("svc", 1, false);
  EXPECT_EQ(a->next(), "PluginIdForServiceReplyEvent 1 'svc' -1 0");
  a->query("svc", 2);
  EXPECT_EQ(a->next(), "PluginIdForServiceReplyEvent 2 'svc' -1 0");
  a->query(nullptr, 3);
  EXPECT_EQ(a->next(), "PluginIdForServiceReplyEvent 3 null -1 0");

  // A plugin that runs and hasn't registered yet is waited for, and others wait along.
  a->ask("svc", 4, 3);
  EXPECT_EQ(a->counts(), "4/4");
  c->query("svc", 5);
  c->ask("svc", 6);
  c->RequestServiceConnection("svc", -1, {0, nullptr}, "/dir", false, 8, false, false);
  EXPECT_EQ(c->counts(), "4/4");
  const char* empty[] = {""};
  b->RegisterServiceList({0, empty});
  EXPECT_EQ(b->provide("svc"), 10);
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 2 10 11 ['key' 'value']");
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 4 10 12 ['key' 'value']");
  EXPECT_EQ(c->next(), "PluginIdForServiceReplyEvent 5 'svc' 3 0");
  b->ConnectionAcceptedEvent(10, 12, true);
  EXPECT_EQ(c->next(), "ConnectionReplyEvent 'svc' 12 1 0 1 10 3 null 6");
  // The one that named a directory still waits for a provider that works there.
  b->SetWorkingDir("/dir/");
  EXPECT_EQ(b->provide("svc"), 13);
  EXPECT_EQ(b->next(), "ConnectionRequestedEvent 4 13 14 []");
}

TEST_F(BrokeringTest, RNsAreOwned) {
  RawPeer raw = joinRaw();
  const auto rn = static_cast<std::uint32_t>(reserveRN(raw));
  const std::string packet = packetBytes({.destination = rn, .type = 99}, "over");
  a->ReleaseRN(static_cast<std::int32_t>(rn));  // not its own
  EXPECT_EQ(a->counts(), "5/5");
  RawPeer sender = joinRaw();
  sender.send(packet);
  EXPECT_EQ(raw.next().bytes, packet);
  raw.send(hubMessageBytes("ReleaseRN", Numbers{{"rn", rn}}));
  EXPECT_EQ(reserveRN(raw), 11);
  sender.send(packet);
  EXPECT_EQ(reserveRN(sender), 12);
  EXPECT_EQ(reserveRN(raw), 13);  // and no packet came before
}
