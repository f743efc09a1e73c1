// The stream below the messages: packets of every shape, cut and joined anywhere, and those that
// end their connection.
#include <random>

#include "support/hub_test.h"

class StreamTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    sender.emplace(joinRaw());
    receiver.emplace(joinRaw());
    rn = static_cast<std::uint32_t>(reserveRN(*receiver));
    ASSERT_GE(rn, 10u);
  }
  void expectAtReceiver(const std::string& packet) {
    const Packet got = receiver->next();
    ASSERT_TRUE(got.bytes == packet) << got.bytes.size() << " bytes for " << packet.size();
  }

  std::optional<RawPeer> sender, receiver;
  std::uint32_t rn = 0;
};

TEST_F(StreamTest, EveryShapeInChunksOfEverySize) {
  std::mt19937 random(1);
  for (const std::size_t largest : {5, 50, 3000, 100000, 100000000}) {
    std::vector<std::string> packets;
    std::string stream;
    for (std::uint32_t headerSize = 32; headerSize <= 128; headerSize += 4) {
      for (const std::size_t size : {0, 1, 2, 3, 4, 777}) {
        packets.push_back(packetBytes({.headerSize = headerSize, .destination = rn},
                                      std::string(size, static_cast<char>(random()))));
        stream += filled(packets.back());
      }
    }
    for (std::string_view rest = stream; !rest.empty();) {
      const std::size_t chunk = std::min(rest.size(), 1 + random() % largest);
      ASSERT_TRUE(sender->send(rest.substr(0, chunk)));
      if (largest == 50) settle();  // the hub sees each piece by itself
      rest.remove_prefix(chunk);
    }
    for (const std::string& packet : packets) expectAtReceiver(packet);
  }
}

TEST_F(StreamTest, PayloadsUpTo64MiB) {
  for (const std::size_t size : {32767u, 32768u, 327681u, 1u << 20, 64u << 20}) {
    std::string payload(size, '\0');
    for (std::size_t i = 0; i < size; ++i) payload[i] = static_cast<char>(i * 2654435761u >> 13);
    const std::string packet = packetBytes({.destination = rn}, payload);
    ASSERT_TRUE(sender->send(filled(packet)));
    expectAtReceiver(packet);
  }
  settle();
}

TEST_F(StreamTest, InvalidPacketEndsItsConnectionAlone) {
  const std::pair<std::uint32_t, std::uint32_t> invalid[] = {
      {0, 4},           {28, 4},           {30, 4},          {46, 4},          {132, 4},
      {0x80000000, 4},  {0xFFFFFFD4, 44},  {0x7FFFFFFC, 4},  {44, 0xFFFFFFFF}, {44, 0x80000000},
      {44, 0x7FFFFFFF}, {128, 0x7FFFFF80}, {44, 0x7FFFFFD4}, {44, 0x0FFFFFD5}, {128, 0x0FFFFF84}};
  const std::string good = packetBytes({.destination = rn}, "good");
  for (const auto& [headerSize, payloadSize] : invalid) {
    SCOPED_TRACE(std::to_string(headerSize) + " " + std::to_string(payloadSize));
    RawPeer peer = joinRaw();
    peer.send(good + wordBytes(headerSize) + wordBytes(payloadSize) + good + good);
    EXPECT_TRUE(peer.ends());
    expectAtReceiver(good);
  }
  awaitCounts("3/3");
  sender->send(good);
  expectAtReceiver(good);
}

// Neither what is only announced nor what nobody takes stays in memory.
TEST_F(StreamTest, MemoryStaysBounded) {
  const std::int64_t before = hub->residentBytes();
  std::vector<RawPeer> peers;
  for (int i = 0; i < 20; ++i) {
    peers.push_back(joinRaw());
    // The largest packet that is valid, of which little comes.
    peers.back().send(wordBytes(44) + wordBytes(0x0FFFFFD4) + std::string(5000, 'x'));
  }
  settle();
  EXPECT_EQ(first->counts(), "23/23");
  EXPECT_LT(hub->residentBytes() - before, 20 << 20);
  const std::string stray = packetBytes({.destination = 5}, std::string(1 << 20, 'x'));
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(sender->send(stray));
  std::string small;
  for (int i = 0; i < 50000; ++i) small += packetBytes({.destination = 5, .type = 5}, "");
  ASSERT_TRUE(sender->send(small));
  sender->send(packetBytes({.destination = rn}, "last"));
  expectAtReceiver(packetBytes({.destination = rn}, "last"));
  EXPECT_LT(hub->residentBytes() - before, 96 << 20);
}

TEST_F(StreamTest, OtherTypesAndUnownedAddressesAreHarmless) {
  const std::uint32_t nobody = 1000000;
  std::string stream;
  for (const std::uint32_t type : {0u, 1u, 4u, 5u, 6u, 12u, 13u, 14u, 15u, 16u, 0xFFFFFFFFu})
    for (const std::uint32_t id : {0u, 1u, 2u, 3u, 22u, 0x7FFFFFFFu, 0xFFFFFFFFu})
      for (const std::uint32_t destination : {0u, 2u, 9u, nobody, 0x80000000u, 0xFFFFFFFFu})
        stream += packetBytes({.destination = destination, .type = type, .id = id, .flags = 0x1},
                              std::string(8, '\0'));
  sender->send(stream);
  sender->send(packetBytes({.destination = rn}, "last"));
  expectAtReceiver(packetBytes({.destination = rn}, "last"));
  // A plugin's packet to an RN of its own comes back to it.
  const std::string own = packetBytes({.headerSize = 64, .destination = rn, .type = 4}, "self");
  receiver->send(own);
  expectAtReceiver(own);
}

TEST_F(StreamTest, LastWordsArrive) {
  for (int round = 0; round < 60; ++round) {
    // With the hub's own words read or not: unread ones make the close a reset, which only what
    // fits into the receive window outlives.
    RawPeer peer(port);
    if (round % 3 == 0) peer.next();
    if (round % 3 == 1) peer.negotiate();
    // One that goes before it is accepted is nobody's: this pass sees it, the next one takes it.
    if (round % 3 == 2) settle(), settle();
    const std::string words =
        packetBytes({.destination = rn}, std::to_string(round) + std::string(50000, 'w'));
    ASSERT_TRUE(peer.send(words));
    peer.close();
    expectAtReceiver(words);
  }
  awaitCounts("3/3");
}
