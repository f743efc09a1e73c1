// What the hub sends, to the byte, and peers that speak the interface with other tables, other
// numbers, in another order, or not at all.
#include "indgen/host.h"
#include "support/hub_test.h"

using NegotiationTest = HubTest;

namespace {

std::string field(std::string_view name, std::uint32_t kind) {
  return wordBytes(static_cast<std::uint32_t>(tag(name)) << 8 | kind);
}
std::string u4(std::string_view name, std::uint32_t value) {
  return field(name, 0x24) + wordBytes(value);
}
std::string u1(std::string_view name, char value) {
  return field(name, 0x21) + std::string{value, 0, 0, 0};
}
std::string str(std::string_view name, const std::string& text) {
  std::string stored = text + '\0';
  const auto length = static_cast<std::uint32_t>(stored.size());
  stored.resize((stored.size() + 3) & ~std::size_t{3});
  return field(name, 0x10) + wordBytes(length) + stored;
}
std::string nullText(std::string_view name) {
  return field(name, 0x10) + wordBytes(0);
}
const std::string kEndWord(4, '\0');

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
  const auto packet = peer.next();
  ASSERT_TRUE(packet);
  const std::string record = routerRecord();
  ASSERT_EQ(record.size(), 1611u);
  std::string header;
  for (const std::uint32_t word : {44, 1616, 1, 2, 2, 0, 12, 1, 2, 2, 1}) header += wordBytes(word);
  EXPECT_EQ(packet->bytes, header + record + std::string(5, '\0'));

  peer.send(packetBytes({.type = 12, .id = 2, .flags = 0x01}, kEndWord));
  const auto formats = peer.next();
  ASSERT_TRUE(formats);
  EXPECT_EQ(formats->word(5), 2u);
  EXPECT_EQ(formats->payload().rfind(
                "msgs:(0x16 )[ { name:ConnectionAcceptedEvent fmt:\"serviceRN:%u4% remoteRN:%u4% "
                "accept:%u1% \"  } { name:DebugPlugin fmt:\"",
                0),
            0u);
}

TEST_F(NegotiationTest, MessagesToTheByte) {
  startHub();
  RawPeer peer(port);
  peer.send(negotiateBytes());
  ASSERT_TRUE(peer.next());
  std::uint32_t sequence = 2;
  const auto expectMessage = [&](std::string_view name, std::uint32_t flags,
                                 const std::string& fields) {
    const auto packet = peer.next();
    ASSERT_TRUE(packet);
    std::string header;
    ++sequence;
    // Chain and depth depend on the call in which a message is sent, and are carried by the sender.
    for (const std::uint32_t word : {44u, static_cast<std::uint32_t>(fields.size()) + 4, 1u, 2u,
                                     sequence, 0u, 15u, indexOf(kHubSends, name), flags})
      header += wordBytes(word);
    EXPECT_EQ(packet->bytes.substr(0, 36), header) << name;
    EXPECT_EQ(packet->payload(), fields + kEndWord) << name;
  };
  expectMessage("PluginId", 0x02, u4("plugin_id", 2));
  peer.send(hubMessageBytes("RequestLocation"));
  expectMessage("LocationEvent", 0x02,
                str("hostname", static_cast<const char*>(gen_host_name())) + u4("port", port));
  peer.send(hubMessageBytes("ReserveRNBlock",
                            [](STPMessage& message) { message.putU32(tag("count"), 2); }));
  const std::string list = u4("count", 2) + field("data", 0x50) + wordBytes(12) + wordBytes(2) +
                           wordBytes(10) + wordBytes(11);
  expectMessage("RNBlockReservedEvent", 0x02, field("rn_list", 0x40) + wordBytes(28) + list);
  peer.send(hubMessageBytes("ReserveRNBlock"));
  expectMessage("RNBlockReservedEvent", 0x02,
                field("rn_list", 0x40) + wordBytes(20) + u4("count", 0) + field("data", 0x50) +
                    wordBytes(4) + wordBytes(0));

  // A service of the peer's own, asked for by the peer itself.
  peer.send(hubMessageBytes("RegisterServiceList", [](STPMessage& message) {
    std::int64_t mark = 0;
    message.beginStruct(tag("name_list"), mark);
    message.putU32(tag("count"), 1);
    message.putU32(STP_TAG_ARRAY_COUNT, 1);
    message.putString(STP_TAG_ARRAY_ELEMENT, "svc");
    message.endStruct(mark);
  }));
  ASSERT_TRUE(peer.next());
  ++sequence;
  peer.send(hubMessageBytes("RequestServiceConnection", [](STPMessage& message) {
    message.putString(tag("serviceName"), "svc");
    message.putU32(tag("providingPluginID"), 0xFFFFFFFF);
    message.putU32(tag("client_cookie"), 0x77);
  }));
  expectMessage("ConnectionRequestedEvent", 0x02,
                u4("requesting_plugin_id", 2) + u4("serviceRN", 12) + u4("remoteRN", 13) +
                    field("name_value_pairs", 0x40) + wordBytes(16) + u4("count", 0) +
                    wordBytes(0x1624) + wordBytes(0));
  peer.send(hubMessageBytes("ConnectionAcceptedEvent", [](STPMessage& message) {
    message.putU32(tag("serviceRN"), 12);
    message.putU32(tag("remoteRN"), 13);
    message.putU8(tag("accept"), 0x80);
  }));
  expectMessage("ConnectionReplyEvent", 0x22,
                str("serviceName", "svc") + u4("localRN", 13) + u1("wasFound", 1) +
                    u1("is_shared_object", 0) + u1("wasAccepted", 1) + u4("serviceRN", 12) +
                    u4("plugin_id", 2) + nullText("shared_object_name") +
                    u4("client_cookie", 0x77));
  peer.send(hubMessageBytes("DropServiceConnection", [](STPMessage& message) {
    message.putU32(tag("localRN"), 13);
    message.putU32(tag("serviceRN"), 12);
  }));
  expectMessage("ConnectionDroppedEvent", 0x22, u4("serviceRN", 12) + u4("remoteRN", 13));

  peer.send(hubMessageBytes("NumPersistentServices", nullptr, 0x01));
  const auto reply = peer.next();
  ASSERT_TRUE(reply);
  std::string header;
  for (const std::uint32_t word : {44u, 20u, 1u, 2u, sequence + 1, 2u, ~0u, ~0u, 0u, 2u, 1u})
    header += wordBytes(word);
  EXPECT_EQ(reply->bytes, header + u4("num_persistent", 2) + u4("num_total", 2) + kEndWord);
}

TEST_F(NegotiationTest, LongerTablesOtherNumbersAndFieldsInAnotherOrder) {
  startHub();
  EXPECT_EQ(first->provide("svc"), 10);
  const Tables tables = longerTables();
  RawPeer peer(port);
  ASSERT_TRUE(peer.send(tables.record()));
  ASSERT_TRUE(peer.next());
  const auto told = peer.next();
  ASSERT_TRUE(told);
  EXPECT_EQ(told->id(), tables.idOf("PluginId"));
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
    std::int64_t mark = 0;
    message.beginStruct(tables.tagOf("name_value_pairs"), mark);
    message.putU32(tables.tagOf("count"), 2);
    message.putU32(STP_TAG_ARRAY_COUNT, 2);
    message.putString(STP_TAG_ARRAY_ELEMENT, "");
    message.putString(STP_TAG_ARRAY_ELEMENT, nullptr);
    message.endStruct(mark);
    unknown();
    message.putU32(tables.tagOf("providingPluginID"), 1);
    message.putString(tables.tagOf("serviceName"), "svc");
    unknown();
  }));
  EXPECT_EQ(first->next(), "ConnectionRequestedEvent 2 10 11 ['' null]");
  first->ConnectionAcceptedEvent(10, 11, false);
  settle();
  const auto reply = peer.next();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->id(), tables.idOf("ConnectionReplyEvent"));
  EXPECT_EQ(reply->read().getU32(tag("client_cookie")), 5u);

  // A second record is merged over the first.
  ASSERT_TRUE(peer.send(negotiateBytes({}, {"LocationEvent"}, {77})));
  peer.send(hubMessageBytes("RequestLocation"));
  const auto location = peer.next();
  ASSERT_TRUE(location);
  EXPECT_EQ(location->id(), 77u);
}

TEST_F(NegotiationTest, ShorterTables) {
  startHub();
  RawPeer peer(port);
  // It has no name for most fields, and takes no answer but these two.
  const Tables tables{{"client_cookie", "count", "name_list", "serviceName"},
                      {"ConnectionReplyEvent", "PluginId"},
                      {4, 2}};
  ASSERT_EQ(peer.negotiate(tables.record()), 2u);
  peer.send(hubMessageBytes("RegisterServiceList", [&](STPMessage& message) {
    std::int64_t mark = 0;
    message.beginStruct(tables.tagOf("name_list"), mark);
    message.putU32(tables.tagOf("count"), 1);
    message.putU32(STP_TAG_ARRAY_COUNT, 1);
    message.putString(STP_TAG_ARRAY_ELEMENT, "svc");
    message.endStruct(mark);
  }));
  // Without its name the provider's number reads as 0, which no plugin has.
  peer.send(hubMessageBytes("RequestServiceConnection", [&](STPMessage& message) {
    message.putString(tables.tagOf("serviceName"), "svc");
    message.putU32(tables.tagOf("client_cookie"), 3);
    message.putU32(-1, 2);
  }));
  const auto reply = peer.next();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->id(), 4u);
  EXPECT_EQ(reply->read().getU32(tag("client_cookie")), 3u);
  EXPECT_EQ(reply->read().getU8(tag("wasFound")), 0u);
  first->query("svc", 1);
  EXPECT_EQ(first->next(), "PluginIdForServiceReplyEvent 1 'svc' 2 1");
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
  const auto list = peer.next();
  ASSERT_TRUE(list);
  EXPECT_EQ(list->word(1), 32u);
  const auto location = peer.next();
  ASSERT_TRUE(location);
  EXPECT_NE(location->read().findField(tag("hostname")), 0u);
}

TEST_F(NegotiationTest, PeerThatSendsBeforeItNegotiates) {
  startHub();
  RawPeer peer(port);
  ASSERT_TRUE(peer.next());
  // No field has a name yet and no message can be answered, but for a plain response.
  peer.send(hubMessageBytes("RequestLocation") + hubMessageBytes("RegisterServiceList") +
            hubMessageBytes("NumPersistentServices", nullptr, 0x01));
  const auto reply = peer.next();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->word(6), STP_RESPONSE);
  EXPECT_EQ(reply->read().getU32(tag("num_persistent")), 2u);
  EXPECT_EQ(reply->read().getU32(tag("num_total")), 1u);
  peer.send(negotiateBytes());
  const auto told = peer.next();
  ASSERT_TRUE(told);
  EXPECT_EQ(told->id(), indexOf(kHubSends, "PluginId"));
  EXPECT_EQ(first->counts(), "2/2");
}

TEST_F(NegotiationTest, PeersThatNeverNegotiateHoldNobodyUp) {
  startHub();
  std::vector<RawPeer> silent;
  for (int i = 0; i < 20; ++i) silent.emplace_back(port);
  const Plugin later = connectPlugin();
  EXPECT_EQ(later->next(), "PluginId 22");
  awaitCounts("22/2");
  // In negotiation they aren't there for others.
  later->RequestValueOfNameOnPlugin(5, "x");
  EXPECT_EQ(later->next(), "ValueOfNameOnPluginEvent 5 'x' null");
  silent.clear();
  awaitCounts("2/2");
  EXPECT_EQ(join()->id, 23);
}

TEST_F(NegotiationTest, HostileRecords) {
  startHub();
  const auto record = [](const std::string& text) {
    std::string payload = text;
    payload.resize(((payload.size() + 3) & ~std::size_t{3}) + 4);
    return packetBytes({.type = 12, .id = 1}, payload);
  };
  const std::string deep(100000, '{');
  for (const std::string& text :
       {std::string(), std::string("tags:(0xFFFFFFFF )[ "),
        std::string("msgs:(0x7FFFFFFF )[ { { {"), std::string("name:"), std::string("vstamp:\"\\"),
        "msgs:(0x2 )[ " + deep,
        "tags:(0x31 )[ " + std::string(200000, ' ') + "] msgs:", std::string("] } ] } name:x "),
        std::string("msgs:(0x10000 )[ ") + std::string(20000, ']')}) {
    RawPeer peer(port);
    peer.send(record(text));
    peer.send(record(text) + packetBytes({.type = 12, .id = 1}, text) +
              hubMessageBytes("RequestLocation"));
    peer.send(hubMessageBytes("NumPersistentServices", nullptr, 0x01));
    for (auto packet = peer.next(); packet && packet->word(6) != STP_RESPONSE;)
      packet = peer.next();
  }
  awaitCounts("1/1");
}
