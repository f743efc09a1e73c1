#include "stp_transport/transport/stp_byte_block.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "platform/clock.h"
#include "platform/memory.h"
#include "stp_transport/wire/stp_wire.h"

namespace {

constexpr std::int64_t kWorthTrimming = 2 << 20;

// Blocks of one size that nobody holds: up to `Most`, of which `Rest` stay. The others are freed,
// but small blocks lie between others that stay, so that the allocator alone would keep most of a
// burst: it is told to let go whenever more has been freed than is still in use, which is a few
// times for a burst, however large.
template <std::int64_t Size, std::size_t Most, std::size_t Rest>
class Store {
 public:
  Store() = default;
  ~Store() { shrink(0); }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  unsigned char* take() {
    used_ += Size;
    if (count_ == 0) {
      lowest_ = 0;
      return static_cast<unsigned char*>(::operator new(Size + STP_MAX_FILL));
    }
    lowest_ = std::min(lowest_, --count_);
    return blocks_[count_];
  }
  void give(unsigned char* block) {
    used_ -= Size;
    if (count_ < Most) {
      blocks_[count_++] = block;
      return;
    }
    ::operator delete(block);
    freed_ += Size;
    if (freed_ < std::max(used_, kWorthTrimming)) return;
    freed_ = 0;
    platform::trimFreedMemory();
  }
  int timeToLook() const {
    if (count_ <= Rest) return -1;
    const std::uint64_t passed = platform::monotonicMilliseconds() - lookedAt_;
    constexpr std::uint64_t kInterval = STPByteBlock::kLookInterval;
    return passed < kInterval ? static_cast<int>(kInterval - passed) : 0;
  }
  void freeUnused() {
    if (timeToLook() != 0) return;
    lookedAt_ = platform::monotonicMilliseconds();
    const std::size_t unused = std::min(std::exchange(lowest_, count_), count_ - Rest);
    if (unused == 0) return;
    shrink(lowest_ = count_ - unused);
    freed_ = 0;
    platform::trimFreedMemory();
  }

 private:
  void shrink(std::size_t count) {
    while (count_ > count) ::operator delete(blocks_[--count_]);
  }

  std::array<unsigned char*, Most> blocks_{};
  std::size_t count_ = 0;
  std::size_t lowest_ = 0;      // count since the last look
  std::int64_t used_ = 0;       // bytes of blocks that somebody holds
  std::int64_t freed_ = 0;      // bytes since the allocator was last told
  std::uint64_t lookedAt_ = 0;  // ms
};

struct Stores {
  // 64 MiB of what waits for slow receivers; 2 MiB of each stay.
  Store<STP_SMALL_BLOCK, 2048, 64> small;
  Store<STP_LARGE_BLOCK, 8, 8> large;
};

Stores& stores() {
  static thread_local Stores blocks;
  return blocks;
}

}  // namespace

unsigned char* STPByteBlock::allocate(std::int64_t size) {
  if (size <= STP_SMALL_BLOCK) return stores().small.take();
  if (size <= STP_LARGE_BLOCK) return stores().large.take();
  return static_cast<unsigned char*>(::operator new(static_cast<std::size_t>(size + STP_MAX_FILL)));
}

void STPByteBlock::discard(unsigned char* block, std::int64_t size) {
  if (size <= STP_SMALL_BLOCK)
    stores().small.give(block);
  else if (size <= STP_LARGE_BLOCK)
    stores().large.give(block);
  else
    ::operator delete(block);
}

int STPByteBlock::sleepLimit() {
  return stores().small.timeToLook();
}

void STPByteBlock::freeUnused() {
  stores().small.freeUnused();
}
