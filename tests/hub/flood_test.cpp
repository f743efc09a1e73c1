// Plugins that send without end: everybody else gets their turns all the same.
#include <atomic>
#include <thread>

#include "support/hub_test.h"

namespace {

constexpr std::int64_t kMiB = 1 << 20;

// Sends a packet over and over from one peer, and takes what comes to another, in threads of their
// own.
class Flood {
 public:
  Flood(RawPeer& from, const std::string& packet, RawPeer* to = nullptr) {
    std::string block;
    while (block.size() < 100000) block += packet;
    threads_.emplace_back([this, socket = from.blockingSocket(), block] {
      for (std::size_t at = 0; !ended_; at %= block.size()) {
        const auto rest = static_cast<std::int64_t>(block.size() - at);
        const platform::Transfer sent = platform::sendBytes(socket, &block[at], rest);
        if (sent.error != 0) return;
        at += static_cast<std::size_t>(sent.count);
        sent_ += sent.count;
      }
    });
    if (!to) return;
    threads_.emplace_back([this, socket = to->blockingSocket()] {
      std::string bytes(1 << 18, '\0');
      while (!ended_) {
        const platform::Transfer got = platform::receiveBytes(socket, bytes.data(), 1 << 18);
        if (got.count == 0 && !got.wouldBlock) return;
        received_ += got.count;
      }
    });
  }
  ~Flood() { ended_ = true; }

  std::int64_t sent() const { return sent_; }
  std::int64_t received() const { return received_; }

 private:
  std::atomic<bool> ended_ = false;
  std::atomic<std::int64_t> sent_ = 0, received_ = 0;
  std::vector<std::jthread> threads_;
};

bool makeRoundTrip(RawEnds& ends) {
  const std::string ping = packetBytes({.destination = ends.second.rn}, "ping");
  const std::string pong = packetBytes({.destination = ends.first.rn}, "pong");
  return ends.first.peer.send(ping) && ends.second.peer.next().bytes == ping &&
         ends.second.peer.send(pong) && ends.first.peer.next().bytes == pong;
}

}  // namespace

using FloodTest = HubTest;

TEST_F(FloodTest, LeavesAQuietPairItsTurns) {
  startHub();
  RawEnds quiet = joinTwo();
  for (const int kind : {0, 1, 2}) {
    SCOPED_TRACE(kind);
    RawEnds loud = joinTwo();
    // Small packets, large ones, and questions to the hub itself.
    const std::string packet = kind == 2 ? hubMessageBytes("RequestLocation")
                                         : packetBytes({.destination = loud.second.rn},
                                                       std::string(kind ? 90000 : 4, 'f'));
    const Flood flood(loud.first.peer, packet, kind == 2 ? &loud.first.peer : &loud.second.peer);
    ASSERT_TRUE(await([&] { return flood.received() > 0; }));
    for (int i = 0; i < 200; ++i) ASSERT_TRUE(makeRoundTrip(quiet)) << i;
    const std::int64_t sofar = flood.received();
    EXPECT_TRUE(await([&] { return flood.received() > sofar + kMiB; })) << "it goes on";
  }
  awaitCounts("3/3");
}

// Two that send to each other and never read are stopped when the hub holds as much as it may for
// either, which costs nobody else anything.
TEST_F(FloodTest, OfTwoWhoNeverReadIsStopped) {
  startHub();
  const std::int64_t before = hub->residentBytes();
  RawEnds quiet = joinTwo();
  {
    RawEnds deaf = joinTwo();
    auto& [one, two] = deaf;
    const Flood there(one.peer, packetBytes({.destination = two.rn}, std::string(60000, 't')));
    const Flood back(two.peer, packetBytes({.destination = one.rn}, std::string(60000, 'b')));
    std::int64_t sent = 0;
    // They are stopped when nothing moves during many turns of the others.
    for (int unchanged = 0; unchanged < 500;) {
      ASSERT_TRUE(makeRoundTrip(quiet));
      const std::int64_t now = there.sent() + back.sent();
      unchanged = now == sent ? unchanged + 1 : 0;
      sent = now;
      ASSERT_LT(sent, 640 * kMiB) << "nothing stops them";
    }
    EXPECT_GT(std::min(there.sent(), back.sent()), 200 * kMiB);
    EXPECT_EQ(first->counts(), "5/5");
  }
  awaitCounts("3/3");
  awaitMemory(before + 8 * kMiB);
}
