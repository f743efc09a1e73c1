// What the hub sends, to the byte, and peers that speak the interface with other tables, other
// numbers, in another order, or not at all.
#include "indgen/host.h"
#include "support/hub_test.h"

using NegotiationTest = HubTest;

namespace {

std::string words(std::initializer_list<std::uint32_t> list) {
  std::string bytes;
  for (const std::uint32_t word : list) bytes += wordBytes(word);
  return bytes;
}

std::string routerRecord() {
  std::string text = "name:router vstamp:\"1\" flags:0x0 tags:(0x31 )[ ";
  for (const std::string& name : kTagNames) text += name + " ";
  text += " ] msgs:(0x16 )[ ";
  for (std::size_t i = 0; i < kHubReceives.size(); ++i) {
    char id[24];
    std::snprintf(id, sizeof id, "0x%zx", i);
    text += std::string("{ id:") + id + " name:" + kHubReceives[i] +
            (kHubReceives[i] == "NumPersistentServices" ? " flags:0x1  } " : " flags:0x2  } ");
  }
  return text + " ] ";
}

// A peer's own tables: which names, and which numbers for the messages that it takes.
struct Tables {
  std::vector<std::string> tags, messages;
  std::vector<std::uint32_t> ids;

  std::string record() const { return negotiateBytes(tags, messages, ids); }
  std::int32_t tagOf(std::string_view name) const {
    return static_cast<std::int32_t>(indexOf(tags, name));
  }
  std::uint32_t idOf(std::string_view name) const { return ids[indexOf(messages, name)]; }
};

// Every name of the interface, each followed by one that the hub doesn't know.
Tables longerTables() {
  Tables tables;
  for (const std::string& name : kTagNames) {
    tables.tags.push_back(name);
    tables.tags.push_back(name + "!");
  }
  for (const std::string& name : kHubSends) {
    for (const char* end : {"", "!"}) {
      tables.messages.push_back(name + end);
      tables.ids.push_back(static_cast<std::uint32_t>(1000 - 7 * tables.ids.size()));
    }
  }
  return tables;
}

}  // namespace

TEST_F(NegotiationTest, RecordToTheByte) {
  startHub();
  RawPeer peer(port);
  const std::string record = routerRecord();
  ASSERT_EQ(record.size(), 1611u);
  EXPECT_EQ(peer.next().bytes,
            words({44, 1616, 1, 2, 2, 0, 12, 1, 2, 2, 1}) + record + std::string(5, '\0'));

  peer.send(packetBytes({.type = 12, .id = 2, .flags = 0x01}, wordBytes(0)));
  const Packet formats = peer.next();
  EXPECT_EQ(formats.word(5), 2u);
  const std::string start =
      "msgs:(0x16 )[ { name:ConnectionAcceptedEvent fmt:\"serviceRN:%u4% remoteRN:%u4% "
      "accept:%u1% \"  } { name:DebugPlugin fmt:\"";
  EXPECT_EQ(formats.payload().substr(0, start.size()), start);
}

TEST_F(NegotiationTest, MessagesToTheByte) {
  startHub();
  RawPeer peer(port);
  ASSERT_EQ(peer.negotiate(), 2u);
  std::string host = static_cast<const char*>(gen_host_name());
  const auto hostSize = static_cast<std::uint32_t>(host.size() + 1);
  host.resize((hostSize + 3) & ~std::size_t{3});
  // A field word is the tag, the class and the size; 0x77 is a cookie or an RN of nobody.
  const struct {
    std::string question;
    std::uint32_t id, flags;
    std::string payload;
  } cases[] = {
      {hubMessageBytes("RequestLocation"), 4, 0x02,
       words({15 << 8 | 0x10, hostSize}) + host + words({31 << 8 | 0x24, port, 0})},
      {hubMessageBytes("ReserveRNBlock", Numbers{{"count", 2}}), 8, 0x02,
       words({0x2540, 28, 0x0624, 2, 0x0750, 12, 2, 10, 11, 0})},
      {hubMessageBytes("ReserveRNBlock"), 8, 0x02, words({0x2540, 20, 0x0624, 0, 0x0750, 4, 0, 0})},
      {hubMessageBytes("DropServiceConnection", Numbers{{"serviceRN", 10}, {"localRN", 0x77}}), 0,
       0x22, words({0x2724, 10, 0x2224, 0x77, 0})},
      {hubMessageBytes("RequestServiceConnection", Numbers{{"client_cookie", 0x77}}), 1, 0x22,
       words({0x2610, 0, 0x1124, ~0u, 0x2F21, 0, 0x1021, 0, 0x2E21, 0, 0x2724, 0, 0x1D24, ~0u,
              0x2910, 0, 0x0324, 0x77, 0})},
      {hubMessageBytes("RequestValueOfNameOnPlugin", Numbers{{"plugin_id", 0x77}}), 11, 0x02,
       words({0x1D24, 0x77, 0x1510, 0, 0x2C10, 0, 0})},
  };
  std::uint32_t sequence = 3;
  for (const auto& entry : cases) {
    peer.send(entry.question);
    const auto size = static_cast<std::uint32_t>(entry.payload.size());
    // The chain is that of the question, one deeper.
    EXPECT_EQ(
        peer.next().bytes,
        words({44, size, 1, 2, ++sequence, 0, 15, entry.id, entry.flags, 2, 2}) + entry.payload)
        << entry.id;
  }
  peer.send(hubMessageBytes("NumPersistentServices", nullptr, 0x01));
  EXPECT_EQ(peer.next().bytes,
            words({44, 20, 1, 2, sequence + 1, 2, ~0u, ~0u, 0, 2, 1, 0x1924, 2, 0x1A24, 2, 0}));
}

TEST_F(NegotiationTest, LongerTablesOtherNumbersAndFieldsInAnotherOrder) {
  startHub();
  EXPECT_EQ(first->provide("svc"), 10);
  const Tables tables = longerTables();
  RawPeer peer(port);
  ASSERT_TRUE(peer.send(tables.record()));
  ASSERT_FALSE(peer.next().isEmpty());
  EXPECT_EQ(peer.next().id(), tables.idOf("PluginId"));
  peer.send(hubMessageBytes("RequestServiceConnection", [&](STPMessage& message) {
    const auto unknown = [&] {
      message.putString(tables.tagOf("args!"), "unknown");
      std::int64_t mark = 0;
      message.beginStruct(tables.tagOf("port!"), mark);
      message.putU8(tables.tagOf("client_cookie"), 9);
      message.endStruct(mark);
      message.putF64(0xFFFFFF, 1.0);
    };
    unknown();
    message.putU32(tables.tagOf("client_cookie"), 5);
    unknown();
    putTexts(message, tables.tagOf("name_value_pairs"), tables.tagOf("count"), 2, {"", nullptr});
    unknown();
    message.putU32(tables.tagOf("providingPluginID"), 1);
    message.putString(tables.tagOf("serviceName"), "svc");
    unknown();
  }));
  EXPECT_EQ(first->next(), "ConnectionRequestedEvent 2 10 11 ['' null]");
  first->ConnectionAcceptedEvent(10, 11, false);
  settle();
  const Packet reply = peer.next();
  EXPECT_EQ(reply.id(), tables.idOf("ConnectionReplyEvent"));
  EXPECT_EQ(reply.read().getU32(tag("client_cookie")), 5u);

  // A second record is merged over the first.
  ASSERT_TRUE(peer.send(negotiateBytes({}, {"LocationEvent"}, {77})));
  peer.send(hubMessageBytes("RequestLocation"));
  EXPECT_EQ(peer.next().id(), 77u);
}

TEST_F(NegotiationTest, PermutedTablesLoseWhatIsOutOfOrder) {
  startHub();
  Tables tables{kTagNames, kHubSends, std::vector<std::uint32_t>(kHubSends.size(), 3)};
  std::swap(tables.tags[indexOf(tables.tags, "count")], tables.tags.back());
  std::swap(tables.messages.front(), tables.messages[indexOf(tables.messages, "LocationEvent")]);
  RawPeer peer(port);
  ASSERT_EQ(peer.negotiate(tables.record()), 2u);
  peer.send(hubMessageBytes(
      "ReserveRNBlock", [&](STPMessage& message) { message.putU32(tables.tagOf("count"), 3); }));
  peer.send(hubMessageBytes("RequestServiceConnection") + hubMessageBytes("RequestLocation"));
  // The count stands behind a later name and isn't found, and neither is the reply's message.
  EXPECT_EQ(peer.next().word(1), 32u);
  EXPECT_NE(peer.next().read().findField(tag("hostname")), 0u);
}

TEST_F(NegotiationTest, PeerThatSendsBeforeItNegotiates) {
  startHub();
  RawPeer peer(port);
  ASSERT_FALSE(peer.next().isEmpty());
  // No field has a name yet and no message can be answered, but for a plain response.
  peer.send(hubMessageBytes("RequestLocation") + hubMessageBytes("RegisterServiceList") +
            hubMessageBytes("NumPersistentServices", nullptr, 0x01));
  const Packet reply = peer.next();
  EXPECT_EQ(reply.word(6), STP_RESPONSE);
  EXPECT_EQ(reply.read().getU32(tag("num_persistent")), 2u);
  EXPECT_EQ(reply.read().getU32(tag("num_total")), 1u);
  peer.send(negotiateBytes());
  EXPECT_EQ(peer.next().id(), indexOf(kHubSends, "PluginId"));
  EXPECT_EQ(first->counts(), "2/2");
}
