// The growable storage under every message, and the alignment rules of its reads and writes.
//
// Storage is zero-filled, also what a growth adds, so that pad bytes are zero without being
// written. When writing, the limit is the end of the block; when reading, the end of the value or
// range that may be read, and a read that doesn't fit gives 0 and puts the cursor on the limit.
// Behind the capacity stands one more zero word that belongs to nobody: it closes a text that fills
// the storage.
#pragma once

#include <cstdint>

#include "indgen/memory.h"
#include "stp_transport/wire/stp_wire.h"

class STPBuffer {
 public:
  /// Zero-filled storage of `capacity` bytes, the cursor at its start, the limit at its end.
  explicit STPBuffer(std::int64_t capacity = 0);
  ~STPBuffer() { gen_free(storage_); }
  STPBuffer(const STPBuffer&) = delete;
  STPBuffer& operator=(const STPBuffer&) = delete;

  /// The first byte; changes when the buffer grows.
  const unsigned char* storage() const { return storage_; }
  unsigned char* storage() { return storage_; }
  /// Bytes of storage, the closing zero word not counted.
  std::int64_t capacity() const { return capacity_; }
  /// Offset of the cursor from the first byte.
  std::int64_t cursorOffset() const { return cursor_ - storage_; }
  std::int64_t limitOffset() const { return limit_ - storage_; }

 protected:
  /// Makes sure that `extra` bytes can be written at the cursor, growing to
  /// `extra` + 2 x capacity (`extra` + 14 for an empty buffer).
  void reserve(std::int64_t extra) {
    if (remaining() < extra) grow(extra);
  }

  /// Writes at the cursor, growing as needed; 16- and 32-bit values at their own boundary.
  void writeU8(std::uint8_t value) {
    reserve(1);
    *cursor_++ = value;
  }
  void writeU16(std::uint16_t value) {
    reserve(2 + 1);
    alignCursor(2);
    *cursor_++ = static_cast<unsigned char>(value);
    *cursor_++ = static_cast<unsigned char>(value >> 8);
  }
  void writeU32(std::uint32_t value) {
    reserve(4 + 3);
    alignCursor(4);
    stpWriteWord(cursor_, value);
    cursor_ += 4;
  }
  void writeBytes(const void* bytes, std::int64_t count) {
    reserve(count);
    if (count > 0) std::memcpy(cursor_, bytes, static_cast<std::size_t>(count));
    cursor_ += count;
  }

  /// Reads at the cursor within the limit, 16- and 32-bit values at their own boundary.
  std::uint8_t readU8() { return fits(1) ? *cursor_++ : std::uint8_t{0}; }
  std::uint16_t readU16() {
    alignCursor(2);
    if (!fits(2)) return 0;
    cursor_ += 2;
    return static_cast<std::uint16_t>(cursor_[-2] | cursor_[-1] << 8);
  }
  std::uint32_t readU32() {
    alignCursor(4);
    if (!fits(4)) return 0;
    cursor_ += 4;
    return stpReadWord(cursor_ - 4);
  }

  /// Whether `count` bytes stand between the cursor and the limit; if not, the cursor goes to the
  /// limit.
  bool fits(std::int64_t count) {
    if (count <= remaining()) return true;
    cursor_ = limit_;
    return false;
  }
  /// Bytes between the cursor and the limit; below 0 when an alignment has passed the limit.
  std::int64_t remaining() const { return limit_ - cursor_; }
  void setCursor(std::int64_t offset) { cursor_ = storage_ + offset; }
  void setLimit(std::int64_t offset) { limit_ = storage_ + offset; }
  /// Moves the cursor up to the next multiple of `alignment` (a power of 2).
  void alignCursor(std::int64_t alignment) { cursor_ += -cursorOffset() & (alignment - 1); }

  unsigned char* storage_ = nullptr;
  std::int64_t capacity_ = 0;
  unsigned char* cursor_ = nullptr;
  unsigned char* limit_ = nullptr;

 private:
  void grow(std::int64_t extra);
};
