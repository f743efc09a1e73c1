#include "stp_transport/transport/stp_write_queue.h"

#include <algorithm>
#include <cstring>
#include <new>

void STPWriteQueue::addBlock() {
  auto* block = new (STPByteBlock::allocate(STP_SMALL_BLOCK)) Block;
  block->next = nullptr;
  (last_ ? last_->next : first_) = block;
  last_ = block;
  end_ = 0;
  ++blocks_;
}

void STPWriteQueue::dropBlock() {
  Block* block = first_;
  first_ = block->next;
  if (!first_) last_ = nullptr;
  begin_ = 0;
  --blocks_;
  STPByteBlock::discard(reinterpret_cast<unsigned char*>(block), STP_SMALL_BLOCK);
}

void STPWriteQueue::append(const unsigned char* bytes, std::int64_t count) {
  count_ += count;
  while (count > 0) {
    if (!last_ || end_ == kBlockBytes) addBlock();
    const std::int64_t part = std::min(count, kBlockBytes - end_);
    std::memcpy(last_->bytes + end_, bytes, static_cast<std::size_t>(part));
    end_ += part;
    bytes += part;
    count -= part;
  }
}

std::size_t STPWriteQueue::gather(platform::Piece* pieces, std::size_t most) const {
  std::size_t used = 0;
  for (const Block* block = first_; block && used < most; block = block->next) {
    const std::int64_t begin = block == first_ ? begin_ : 0;
    const std::int64_t end = block == last_ ? end_ : kBlockBytes;
    pieces[used++] = {block->bytes + begin, end - begin};
  }
  return used;
}

void STPWriteQueue::drop(std::int64_t count) {
  count_ -= count;
  begin_ += count;
  while (first_ && first_ != last_ && begin_ >= kBlockBytes) {
    const std::int64_t further = begin_ - kBlockBytes;
    dropBlock();
    begin_ = further;
  }
  if (first_ && count_ == 0) dropBlock();
}
