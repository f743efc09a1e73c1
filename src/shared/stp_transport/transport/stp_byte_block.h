// Owner of a block of bytes whose address others may hold: the buffers of a transport. The pointer
// itself is at hand, since the other end of a pair in one process reads through it.
//
// A transport has its blocks only while they hold something. Blocks of the two usual sizes go to a
// store of the thread's from which the next transport takes them, so that this costs a busy one
// next to nothing: fresh memory costs a page fault for each 4 KiB of it, which is more than to copy
// them. What nobody has needed there for a while goes.
#pragma once

#include <cstdint>
#include <utility>

/// The sizes in bytes that are kept in store: of a connection that carries little, and of one that
/// carries much.
inline constexpr std::int64_t STP_SMALL_BLOCK = 32768;
inline constexpr std::int64_t STP_LARGE_BLOCK = 262144;

struct STPByteBlock {
  unsigned char* bytes = nullptr;

  STPByteBlock() = default;
  ~STPByteBlock() { release(); }
  STPByteBlock(const STPByteBlock&) = delete;
  STPByteBlock& operator=(const STPByteBlock&) = delete;

  /// Makes a block of `size` bytes, with anything in it, if there is none.
  void require(std::int64_t size) {
    if (!bytes) adopt(allocate(size), size);
  }
  void release() {
    if (bytes) discard(std::exchange(bytes, nullptr), size_);
  }
  /// Takes over a block of `size` bytes from allocate().
  void adopt(unsigned char* block, std::int64_t size) {
    release();
    bytes = block;
    size_ = size;
  }
  /// At least `size` bytes and the fill that may follow a packet at their end.
  static unsigned char* allocate(std::int64_t size);
  /// Gives back a block of `size` bytes from allocate().
  static void discard(unsigned char* block, std::int64_t size);

  // --- For the thread's loop ---
  /// Milliseconds until freeUnused() has something to look at, as a burst has left blocks in the
  /// store; 0: it is due. -1: nothing.
  static int sleepLimit();
  /// Frees what has lain in the store since it last looked, if that is kLookInterval ago. Behind
  /// each sleep.
  static void freeUnused();
  static constexpr int kLookInterval = 1000;  // ms

 private:
  std::int64_t size_ = 0;
};
