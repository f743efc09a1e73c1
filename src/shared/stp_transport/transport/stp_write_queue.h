// What waits to be written to a socket: bytes in a chain of blocks of one size, which grows at its
// end and goes at its front, so that nothing that waits is ever moved. The blocks come from a store
// of the process and go back to it one by one; an empty queue holds none.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/socket.h"
#include "stp_transport/transport/stp_byte_block.h"

class STPWriteQueue {
 public:
  /// Bytes that a block holds.
  static constexpr std::int64_t kBlockBytes = STP_SMALL_BLOCK - std::int64_t{sizeof(void*)};

  STPWriteQueue() = default;
  ~STPWriteQueue() { clear(); }
  STPWriteQueue(const STPWriteQueue&) = delete;
  STPWriteQueue& operator=(const STPWriteQueue&) = delete;

  /// Bytes that wait.
  std::int64_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  /// Bytes of the blocks that it holds.
  std::int64_t capacity() const { return blocks_ * STP_SMALL_BLOCK; }

  /// Copies the bytes to the end.
  void append(const unsigned char* bytes, std::int64_t count);
  /// Points up to `most` pieces at what waits, from its front; they hold until the next change.
  /// The number of pieces.
  std::size_t gather(platform::Piece* pieces, std::size_t most) const;
  /// Takes that many bytes, no more than wait, from the front.
  void drop(std::int64_t count);
  void clear() { drop(count_); }

 private:
  struct Block {
    Block* next;
    unsigned char bytes[kBlockBytes];
  };
  static_assert(sizeof(Block) == STP_SMALL_BLOCK);

  void addBlock();
  void dropBlock();

  Block* first_ = nullptr;
  Block* last_ = nullptr;
  std::int64_t begin_ = 0;  // of what waits in the first block
  std::int64_t end_ = 0;    // of what waits in the last one
  std::int64_t count_ = 0;
  std::int64_t blocks_ = 0;
};
