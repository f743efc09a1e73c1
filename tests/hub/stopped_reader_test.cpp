// A plugin that stops reading and goes on: the hub keeps what comes for it, passes it on whole and
// in order, and has no more memory than before.
#include <numeric>
#include <random>

#include "support/hub_test.h"

namespace {

// The packet with that number of a stream: neighbours have other bytes and sizes.
std::string numbered(std::uint32_t rn, std::uint32_t number) {
  static const std::string bytes = [] {
    std::mt19937 random(3);
    std::string made(1 << 18, '\0');
    for (char& byte : made) byte = static_cast<char>(random());
    return made;
  }();
  return packetBytes({.destination = rn, .sequence = number},
                     bytes.substr(number * 997 % (1 << 16), 60000 + number % 4999));
}

}  // namespace

class StoppedReaderTest : public HubTest, public testing::WithParamInterface<bool> {
 protected:
  RawEnds joinTwo() { return HubTest::joinTwo(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(Roads, StoppedReaderTest, testing::Bool());

TEST_P(StoppedReaderTest, GetsAllLater) {
  constexpr std::uint32_t kPackets = 1500;  // more than sockets hold
  startHub();
  auto [from, to] = joinTwo();
  const std::int64_t before = hub->residentBytes();
  for (int round = 0; round < 2; ++round) {
    for (std::uint32_t i = 0; i < kPackets; ++i)
      ASSERT_TRUE(from.peer.send(filled(numbered(to.rn, i))));
    EXPECT_EQ(first->counts(), "3/3");
    EXPECT_TRUE(await([&] { return hub->residentBytes() - before > 40 * kMiB; }));
    for (std::uint32_t i = 0; i < kPackets; ++i)
      ASSERT_TRUE(to.peer.next().bytes == numbered(to.rn, i)) << i;
    settle();
    awaitMemory(before);
  }
}

// Its end lies behind what nobody reads.
TEST_P(StoppedReaderTest, TheEndOfAStoppedSenderIsNoticed) {
  startHub();
  auto [from, to] = joinTwo();
  const platform::Socket socket = from.peer.blockingSocket();
  std::uint32_t packets = 0;  // sent whole
  std::int64_t total = 0;
  for (bool isStopped = false; !isStopped;) {
    ASSERT_LT(total, 400 * kMiB);
    const std::string bytes = filled(numbered(to.rn, packets));
    std::size_t at = 0;
    while (at < bytes.size() && !isStopped) {
      const platform::Transfer sent = platform::sendBytes(
          socket, bytes.data() + at, static_cast<std::int64_t>(bytes.size() - at));
      ASSERT_EQ(sent.error, 0);
      at += static_cast<std::size_t>(sent.count);
      total += sent.count;
      isStopped = sent.wouldBlock && total > 256 * kMiB;
    }
    packets += at == bytes.size() ? 1 : 0;
  }
  EXPECT_EQ(first->counts(), "3/3");
  from.peer.close();
  awaitCounts("2/2");
  for (std::uint32_t i = 0; i < packets; ++i)
    ASSERT_TRUE(to.peer.next().bytes == numbered(to.rn, i)) << i;
}
