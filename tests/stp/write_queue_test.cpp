// What waits to be written, without a socket: against a plain string, whatever is taken from it.
#include "stp_transport/transport/stp_write_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>

namespace {

constexpr std::int64_t kBlock = STPWriteQueue::kBlockBytes;

void append(STPWriteQueue& queue, const std::string& bytes) {
  queue.append(reinterpret_cast<const unsigned char*>(bytes.data()),
               static_cast<std::int64_t>(bytes.size()));
}

std::string gathered(const STPWriteQueue& queue, std::size_t most = platform::kMostPieces) {
  std::array<platform::Piece, platform::kMostPieces> pieces;
  const std::size_t used = queue.gather(pieces.data(), most);
  EXPECT_LE(used, most);
  std::string all;
  for (std::size_t i = 0; i < used; ++i) {
    EXPECT_GT(pieces[i].count, 0);
    all.append(static_cast<const char*>(pieces[i].bytes),
               static_cast<std::size_t>(pieces[i].count));
  }
  return all;
}

TEST(WriteQueue, HoldsBlocksOnlyForWhatWaits) {
  STPWriteQueue queue;
  EXPECT_EQ(queue.capacity(), 0);
  const std::string large(static_cast<std::size_t>(3 * kBlock + 1), 'x');
  append(queue, large);
  EXPECT_EQ(queue.capacity(), 4 * STP_SMALL_BLOCK);
  EXPECT_EQ(gathered(queue, 2).size(), static_cast<std::size_t>(2 * kBlock));
  queue.drop(kBlock);
  EXPECT_EQ(queue.capacity(), 3 * STP_SMALL_BLOCK);
  queue.drop(2 * kBlock);
  EXPECT_EQ(queue.capacity(), STP_SMALL_BLOCK);
  queue.drop(1);
  EXPECT_EQ(queue.capacity(), 0);
  EXPECT_EQ(gathered(queue), "");
  append(queue, "again");
  EXPECT_EQ(gathered(queue), "again");
  queue.clear();
  EXPECT_TRUE(queue.empty());
}

// Cut within blocks, at their ends and one byte beside.
TEST(WriteQueue, KeepsTheOrderWhateverIsTaken) {
  std::mt19937 random(12);
  const std::array<std::int64_t, 7> sizes{1, 3, 1000, kBlock - 1, kBlock, kBlock + 1, 3 * kBlock};
  STPWriteQueue queue;
  std::string waiting;
  for (int round = 0; round < 3000; ++round) {
    const std::int64_t size = sizes[random() % sizes.size()];
    if (random() % 2 == 0 && queue.count() < 20 * kBlock) {
      std::string bytes(static_cast<std::size_t>(size), '\0');
      for (char& byte : bytes) byte = static_cast<char>(random());
      append(queue, bytes);
      waiting += bytes;
    } else {
      const std::int64_t taken = std::min(size, queue.count());
      queue.drop(taken);
      waiting.erase(0, static_cast<std::size_t>(taken));
    }
    ASSERT_EQ(queue.count(), static_cast<std::int64_t>(waiting.size()));
    ASSERT_LE(queue.capacity() / STP_SMALL_BLOCK, queue.count() / kBlock + 2);
    ASSERT_TRUE(round % 10 != 0 || gathered(queue) == waiting) << round;
  }
}

}  // namespace
