// Messages whose counts, lengths and kinds lie: nothing is read past the message, no memory is made
// for what hasn't come, and the hub goes on.
#include "support/hub_test.h"

class HostileMessageTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    before = hub->residentBytes();
  }
  /// Sends a payload of any bytes as every message but those that end the link or change the hub.
  static void sendAsEach(RawPeer& peer, std::string_view payload) {
    std::string stream;
    for (std::uint32_t id = 0; id < 24; ++id)
      if (id != hubMessage("RequestHublinkDisconnect") &&
          id != hubMessage("SetEnvironmentVariable"))
        stream += filled(packetBytes({.id = id}, payload));
    peer.send(stream);
  }
  void expectMemoryBelow(std::int64_t growth) const {
    EXPECT_LT(hub->residentBytes() - before, growth);
  }

  std::int64_t before = 0;
};

TEST_F(HostileMessageTest, LengthsAndCountsInEveryField) {
  RawPeer peer = joinRaw();
  const std::uint32_t countTag = static_cast<std::uint32_t>(tag("count")) << 8;
  for (const std::uint32_t lie : {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x10000000u, 100u, 5u}) {
    const std::string said = wordBytes(lie);
    const std::string counts = wordBytes(countTag | 0x24) + said + wordBytes(0x1624) + said;
    for (std::uint32_t field = 0; field < 49 << 8; field += 1 << 8)
      for (const std::string& payload :
           {wordBytes(field | 0x10) + said, wordBytes(field | 0x50) + said,
            wordBytes(field | 0x40) + said + counts, wordBytes(field | 0x2F),
            wordBytes(field | 0x40) + wordBytes(16) + counts, wordBytes(field | 0x28) + said,
            wordBytes(field | 0x40) + said + counts + wordBytes(0x1710) + said + "x"})
        sendAsEach(peer, payload);
    EXPECT_TRUE(peer.isAnswered());
  }
  expectMemoryBelow(64 << 20);
}

TEST_F(HostileMessageTest, MessagesCutAtEveryByteAndBroken) {
  RawPeer peer = joinRaw();
  std::string whole = hubMessageBytes("RequestServiceConnection", [](STPMessage& message) {
    message.putString(tag("serviceName"), "svc");
    message.putU32(tag("providingPluginID"), 1);
    putTexts(message, tag("name_value_pairs"), tag("count"), 2, {"a", "bc"});
    message.putString(tag("working_dir"), "/dir");
    message.putU8(tag("local_only"), 1);
    message.putU32(tag("client_cookie"), 7);
  });
  whole.erase(0, 44);
  for (std::size_t size = 0; size < whole.size(); ++size) sendAsEach(peer, whole.substr(0, size));
  EXPECT_TRUE(peer.isAnswered());
  for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
    std::string broken = whole;
    broken[bit / 8] = static_cast<char>(broken[bit / 8] ^ 1 << bit % 8);
    sendAsEach(peer, broken);
  }
  EXPECT_TRUE(peer.isAnswered());
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
    putTexts(message, tag("name_list"), tag("count"), 0x7FFFFFFF, {"svc"});
  }));
  ASSERT_FALSE(peer.next().isEmpty());
  plugin->query("svc", 1);
  EXPECT_EQ(plugin->next(), "PluginIdForServiceReplyEvent 1 'svc' 3 1");
}
