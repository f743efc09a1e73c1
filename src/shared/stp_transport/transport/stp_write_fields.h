// What one end of a pair in one process has written and the other hasn't read yet: bytes in one
// block, and the four values through which the other end reads them, wherever it lives. What is
// queued before there is a connection of any kind waits here too.
#pragma once

#include <cstdint>

#include "stp_transport/transport/stp_byte_block.h"

/// Read and reset by the other end.
struct STPWriteFields {
  explicit STPWriteFields(std::int64_t initialSize) : capacity(initialSize), initial(initialSize) {}

  /// Copies the bytes behind those that wait. Compacts as well as grows.
  void append(const unsigned char* bytes, std::int64_t added);
  const unsigned char* front() const { return block.bytes + offset; }
  /// Gives the block back if nothing lies in it.
  void rest() {
    if (count == 0) block.release();
  }
  /// Forgets everything.
  void clear();

  std::int64_t offset = 0;
  std::int64_t count = 0;
  std::int64_t capacity;
  STPByteBlock block;
  const std::int64_t initial;
};

/// Where the other end's fields are; all null once that end has gone.
struct STPPeerFields {
  std::int64_t* offset = nullptr;
  std::int64_t* count = nullptr;
  std::int64_t* capacity = nullptr;
  unsigned char** buffer = nullptr;
};
