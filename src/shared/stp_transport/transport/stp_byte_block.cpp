#include "stp_transport/transport/stp_byte_block.h"

#include <array>

#include "indgen/memory.h"

namespace {

// As many as are in use at a time in a busy process; more would only hold memory.
class Store {
 public:
  Store() = default;
  ~Store() {
    while (unsigned char* block = take()) gen_free(block);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  unsigned char* take() { return count_ > 0 ? blocks_[--count_] : nullptr; }
  bool give(unsigned char* block) {
    if (count_ == blocks_.size()) return false;
    blocks_[count_++] = block;
    return true;
  }

 private:
  std::array<unsigned char*, 32> blocks_{};
  std::size_t count_ = 0;
};

Store& store() {
  static thread_local Store blocks;
  return blocks;
}

}  // namespace

unsigned char* STPByteBlock::allocate(std::int64_t size) {
  if (size == STP_STORED_BLOCK)
    if (unsigned char* block = store().take()) return block;
  return static_cast<unsigned char*>(gen_alloc(static_cast<std::size_t>(size), 1));
}

void STPByteBlock::discard(unsigned char* block, std::int64_t size) {
  if (size != STP_STORED_BLOCK || !store().give(block)) gen_free(block);
}
