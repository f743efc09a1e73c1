// Owner of a block of bytes whose address others may hold: the buffers of a transport. The pointer
// itself is at hand, since the other end of a pair in one process reads through it.
#pragma once

#include <cstdint>

#include "indgen/memory.h"

struct STPByteBlock {
  unsigned char* bytes = nullptr;

  explicit STPByteBlock(std::int64_t size) { renew(size); }
  ~STPByteBlock() { gen_free(bytes); }
  STPByteBlock(const STPByteBlock&) = delete;
  STPByteBlock& operator=(const STPByteBlock&) = delete;

  /// A zero-filled block in place of the old one.
  void renew(std::int64_t size) {
    gen_free(bytes);
    bytes = allocate(size);
  }
  static unsigned char* allocate(std::int64_t size) {
    return static_cast<unsigned char*>(gen_alloc(static_cast<std::size_t>(size), 1));
  }
  /// Takes over a block from allocate().
  void adopt(unsigned char* block) {
    gen_free(bytes);
    bytes = block;
  }
};
