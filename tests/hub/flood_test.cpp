// Plugins that send without end: everybody else gets their turns all the same.
#include <atomic>
#include <thread>

#include "support/hub_test.h"

namespace {

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
        const platform::Transfer moved = platform::sendBytes(socket, &block[at], rest);
        if (moved.error != 0) return;
        at += static_cast<std::size_t>(moved.count);
        sent_ += moved.count;
      }
    });
    if (!to) return;
    threads_.emplace_back([this, socket = to->blockingSocket()] {
      std::string bytes(1 << 18, '\0');
      platform::Transfer moved{.count = 1};
      while (!ended_ && (moved.count > 0 || moved.wouldBlock))
        moved = platform::receiveBytes(socket, bytes.data(), 1 << 18);
    });
  }
  ~Flood() { ended_ = true; }

  std::int64_t sent() const { return sent_; }

 private:
  std::atomic<bool> ended_ = false;
  std::atomic<std::int64_t> sent_ = 0;
  std::vector<std::jthread> threads_;
};

bool makeRoundTrip(RawEnds& ends) {
  const std::string ping = packetBytes({.destination = ends.second.rn}, "ping");
  const std::string pong = packetBytes({.destination = ends.first.rn}, "pong");
  return ends.first.peer.send(ping) && ends.second.peer.next().bytes == ping &&
         ends.second.peer.send(pong) && ends.first.peer.next().bytes == pong;
}

}  // namespace

class FloodTest : public HubTest {
 protected:
  void SetUp() override {
    startHub();
    quiet.emplace(joinTwo());
    loud.emplace(joinTwo());
  }
  // The quiet pair gets its turns while the flood goes on.
  void expectTurns(const Flood& flood, int count) {
    ASSERT_TRUE(await([&] { return flood.sent() > 16 * kMiB; })) << "more than sockets hold";
    for (int i = 0; i < count; ++i) ASSERT_TRUE(makeRoundTrip(*quiet)) << i;
    const std::int64_t soFar = flood.sent();
    EXPECT_TRUE(await([&] { return flood.sent() > soFar; }));
  }
  std::string loudPacket(std::size_t size) const {
    return packetBytes({.destination = loud->second.rn}, std::string(size, 'f'));
  }

  std::optional<RawEnds> quiet, loud;
};

TEST_F(FloodTest, OfSmallPacketsLeavesOthersTheirTurns) {
  expectTurns({loud->first.peer, loudPacket(4), &loud->second.peer}, 200);
}

TEST_F(FloodTest, OfLargePacketsLeavesOthersTheirTurns) {
  expectTurns({loud->first.peer, loudPacket(90000), &loud->second.peer}, 200);
}

// The hub itself has the work.
TEST_F(FloodTest, OfQuestionsLeavesOthersTheirTurns) {
  expectTurns({loud->first.peer, hubMessageBytes("RequestLocation"), &loud->first.peer}, 30);
}

TEST_F(FloodTest, ToNobodyLeavesOthersTheirTurns) {
  expectTurns({loud->first.peer, packetBytes({.destination = 5}, "lost")}, 30);
}

// Two that send to each other and never read are stopped when the hub holds as much as it may for
// either, which costs nobody else anything.
TEST_F(FloodTest, OfTwoWhoNeverReadIsStopped) {
  const std::int64_t before = hub->residentBytes();
  {
    auto& [one, two] = *loud;
    const Flood there(one.peer, loudPacket(60000));
    const Flood back(two.peer, packetBytes({.destination = one.rn}, std::string(60000, 'b')));
    const auto least = [&] { return std::min(there.sent(), back.sent()); };
    std::int64_t sent = 0;
    // They are stopped when nothing moves during many turns of the others.
    for (int unchanged = 0; unchanged < 500 || least() < 256 * kMiB;) {
      ASSERT_TRUE(makeRoundTrip(*quiet));
      const std::int64_t now = there.sent() + back.sent();
      unchanged = std::exchange(sent, now) == now ? unchanged + 1 : 0;
      ASSERT_LT(sent, 640 * kMiB) << "nothing stops them";
    }
    EXPECT_EQ(first->counts(), "5/5");
  }
  loud.reset();
  awaitCounts("3/3");
  // The allocator may keep what the last packets to plugins that had gone took for a moment.
  awaitMemory(before + 32 * kMiB);
}
