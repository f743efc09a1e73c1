// Messages whose counts, lengths and kinds lie: nothing is read past the message, no memory is made
// for what hasn't come, and the hub goes on.
#include <random>

#include "support/hub_test.h"

class HostileMessageTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    before = hub->residentBytes();
  }
  /// Sends one message with a payload of any bytes.
  static void sendRaw(RawPeer& peer, std::uint32_t id, std::string_view payload) {
    peer.send(filled(packetBytes({.id = id}, payload)));
  }
  /// The peer is answered again, after whatever its messages have brought it.
  static void expectAnswered(RawPeer& peer) {
    peer.send(hubMessageBytes("NumPersistentServices", nullptr, 0x01));
    auto packet = peer.next();
    while (packet && packet->word(6) != STP_RESPONSE) packet = peer.next();
    EXPECT_TRUE(packet);
  }
  void expectMemoryBelow(std::int64_t growth) const {
    EXPECT_LT(hub->residentBytes() - before, growth);
  }
  static bool isTried(std::size_t id) {
    return id != hubMessage("RequestHublinkDisconnect") &&
           id != hubMessage("SetEnvironmentVariable");
  }

  std::int64_t before = 0;
};

TEST_F(HostileMessageTest, LengthsAndCountsInEveryField) {
  RawPeer peer = joinRaw();
  for (const std::uint32_t lie : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x10000000u, 100u, 5u}) {
    std::string payload, inner;
    for (std::uint32_t i = 0; i < 49; ++i) {
      const auto kind = [i](std::uint32_t low) { return wordBytes(i << 8 | low); };
      inner = kind(0x24) + wordBytes(lie) + wordBytes(0x1624) + wordBytes(lie);
      for (const std::string& field :
           {kind(0x10) + wordBytes(lie), kind(0x40) + wordBytes(lie), kind(0x50) + wordBytes(lie),
            kind(0x40) + wordBytes(16) + inner, kind(0x40) + wordBytes(lie) + inner, kind(0x2F),
            kind(0x28) + wordBytes(lie)}) {
        for (std::size_t id = 0; id < kHubReceives.size(); ++id)
          if (isTried(id)) sendRaw(peer, static_cast<std::uint32_t>(id), field);
      }
      const std::string count = wordBytes(static_cast<std::uint32_t>(tag("count")) << 8 | 0x24) +
                                wordBytes(lie) + wordBytes(0x1624) + wordBytes(lie);
      payload = kind(0x40) + wordBytes(lie) + count + wordBytes(0x1710) + wordBytes(lie) + "x";
      for (std::size_t id = 0; id < kHubReceives.size(); ++id)
        if (isTried(id)) sendRaw(peer, static_cast<std::uint32_t>(id), payload);
    }
    expectAnswered(peer);
  }
  expectMemoryBelow(64 << 20);
}

TEST_F(HostileMessageTest, MessagesCutAtEveryByteAndRandomOnes) {
  RawPeer peer = joinRaw();
  const std::string whole = hubMessageBytes("RequestServiceConnection", [](STPMessage& message) {
                              message.putString(tag("serviceName"), "svc");
                              message.putU32(tag("providingPluginID"), 1);
                              std::int64_t mark = 0;
                              message.beginStruct(tag("name_value_pairs"), mark);
                              message.putU32(tag("count"), 2);
                              message.putU32(STP_TAG_ARRAY_COUNT, 2);
                              message.putString(STP_TAG_ARRAY_ELEMENT, "a");
                              message.putString(STP_TAG_ARRAY_ELEMENT, "bc");
                              message.endStruct(mark);
                              message.putString(tag("working_dir"), "/dir");
                              message.putU8(tag("local_only"), 1);
                              message.putU32(tag("client_cookie"), 7);
                              message.putU8(tag("no_reuse"), 1);
                            }).substr(44);
  for (std::size_t size = 0; size < whole.size(); ++size)
    for (std::size_t id = 0; id < kHubReceives.size(); ++id)
      if (isTried(id)) sendRaw(peer, static_cast<std::uint32_t>(id), whole.substr(0, size));
  expectAnswered(peer);

  std::mt19937 random(7);
  constexpr std::uint32_t kKinds[] = {0x10, 0x21, 0x24, 0x40, 0x50, 0x00, 0x2F};
  for (int round = 0; round < 4000; ++round) {
    std::string payload;
    for (auto words = random() % 30; words > 0; --words) {
      const std::uint32_t pick = static_cast<std::uint32_t>(random());
      const std::uint32_t options[] = {pick >> 8 & 0x3F,
                                       (pick >> 8) % 50 << 8 | kKinds[(pick >> 20) % 7], pick};
      payload += wordBytes(options[pick % 3]);
    }
    payload += std::string(random() % 4, 'e');
    const std::size_t id = random() % 24;
    // A host made of random bytes would be looked up by name.
    if (isTried(id) && id != hubMessage("RequestPluginConnect"))
      sendRaw(peer, static_cast<std::uint32_t>(id), payload);
    if (round % 500 == 0) expectAnswered(peer);
  }
  expectAnswered(peer);
  expectMemoryBelow(64 << 20);
  EXPECT_EQ(join()->counts().substr(1), "/3");
}

TEST_F(HostileMessageTest, CountsOfRNs) {
  const Plugin plugin = join();
  for (const std::int32_t count : {-1, 1048577, 0x7FFFFFFF, 0}) {
    plugin->ReserveRNBlock(count);
    EXPECT_EQ(plugin->next(), "RNBlockReservedEvent []");
  }
  plugin->ReserveRNBlock(2);
  EXPECT_EQ(plugin->next(), "RNBlockReservedEvent [10 11]");
  for (int i = 1; i <= 4; ++i) {
    plugin->ReserveRNBlock(1048576);
    EXPECT_EQ(plugin->nextNumber("RNBlockReservedEvent"), 11 + i * 1048576);
  }
  EXPECT_EQ(plugin->counts(), "2/2");
  expectMemoryBelow(64 << 20);
  // More announced than there is: what is there counts.
  RawPeer peer = joinRaw();
  peer.send(hubMessageBytes("RegisterServiceList", [](STPMessage& message) {
    std::int64_t mark = 0;
    message.beginStruct(tag("name_list"), mark);
    message.putU32(tag("count"), 0x7FFFFFFF);
    message.putU32(STP_TAG_ARRAY_COUNT, 0x7FFFFFFF);
    message.putString(STP_TAG_ARRAY_ELEMENT, "svc");
    message.endStruct(mark);
  }));
  ASSERT_TRUE(peer.next());
  plugin->query("svc", 1);
  EXPECT_EQ(plugin->next(), "PluginIdForServiceReplyEvent 1 'svc' 3 1");
}
