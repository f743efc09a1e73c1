#include "stp_transport/transport/stp_byte_block.h"

#include <algorithm>
#include <array>
#include <new>

#include "platform/memory.h"
#include "stp_transport/wire/stp_wire.h"

namespace {

constexpr std::int64_t kWorthTrimming = 2 << 20;

// Blocks of one size that nobody holds: as many as a busy process uses at a time, since more would
// only hold memory. The rest is freed, but small blocks lie between others that stay, so that the
// allocator alone would keep most of a burst: it is told to let go whenever more has been freed
// than is still in use, which is a few times for a burst, however large.
template <std::int64_t Size, std::size_t Most>
class Store {
 public:
  Store() = default;
  ~Store() {
    while (count_ > 0) ::operator delete(blocks_[--count_]);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  unsigned char* take() {
    used_ += Size;
    return count_ > 0 ? blocks_[--count_]
                      : static_cast<unsigned char*>(::operator new(Size + STP_MAX_FILL));
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

 private:
  std::array<unsigned char*, Most> blocks_{};
  std::size_t count_ = 0;
  std::int64_t used_ = 0;   // bytes of blocks that somebody holds
  std::int64_t freed_ = 0;  // bytes since the allocator was last told
};

struct Stores {
  Store<STP_SMALL_BLOCK, 64> small;
  Store<STP_LARGE_BLOCK, 8> large;
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
