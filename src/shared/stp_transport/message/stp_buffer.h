// The growable storage under every message, and the alignment rules of its reads and writes.
//
// Storage is zero-filled, also what a growth adds, so that pad bytes are zero without being written.
// When writing, the limit is the end of the block; when reading, the end of the value or range that
// may be read, and a read that doesn't fit gives 0 and puts the cursor on the limit.
#pragma once

#include <cstdint>

#include "indgen/memory.h"

class STPBuffer {
 public:
  /// Zero-filled storage of `capacity` bytes, the cursor at its start, the limit at its end.
  explicit STPBuffer(std::int64_t capacity = 0);
  ~STPBuffer();
  STPBuffer(const STPBuffer&) = delete;
  STPBuffer& operator=(const STPBuffer&) = delete;

  /// The first byte; changes when the buffer grows.
  const unsigned char* storage() const { return storage_; }
  unsigned char* storage() { return storage_; }
  std::int64_t capacity() const { return capacity_; }
  /// Offset of the cursor from the first byte.
  std::int64_t cursorOffset() const { return cursor_ - storage_; }
  std::int64_t limitOffset() const { return limit_ - storage_; }

 protected:
  /// Makes sure that `extra` bytes can be written at the cursor, growing to
  /// `extra` + 2 x capacity (`extra` + 14 for an empty buffer).
  void reserve(std::int64_t extra);

  /// Writes at the cursor, growing as needed; 16- and 32-bit values at their own boundary.
  void writeByte(std::uint8_t value);
  void writeHalf(std::uint16_t value);
  void writeWord(std::uint32_t value);
  void writeBytes(const void* bytes, std::int64_t count);

  /// Reads at the cursor within the limit, 16- and 32-bit values at their own boundary.
  std::uint8_t readByte();
  std::uint16_t readHalf();
  std::uint32_t readWord();

  /// Bytes between the cursor and the limit.
  std::int64_t remaining() const { return limit_ - cursor_; }
  void setCursor(std::int64_t offset) { cursor_ = storage_ + offset; }
  void setLimit(std::int64_t offset) { limit_ = storage_ + offset; }
  /// Moves the cursor up to the next multiple of `alignment` (a power of 2).
  void alignCursor(std::int64_t alignment);

  unsigned char* storage_ = nullptr;
  std::int64_t capacity_ = 0;
  unsigned char* cursor_ = nullptr;
  unsigned char* limit_ = nullptr;
};
