#include "stp_transport/transport/stp_write_fields.h"

#include <algorithm>
#include <cstring>

void STPWriteFields::append(const unsigned char* bytes, std::int64_t added) {
  if (capacity < offset + count + added) {
    const std::int64_t size = count + std::max(count, added);
    unsigned char* larger = STPByteBlock::allocate(size);
    if (count > 0) std::memcpy(larger, front(), static_cast<std::size_t>(count));
    block.adopt(larger, size);
    capacity = size;
    offset = 0;
  }
  block.require(capacity);
  std::memcpy(block.bytes + offset + count, bytes, static_cast<std::size_t>(added));
  count += added;
}

void STPWriteFields::clear() {
  capacity = initial;
  block.release();
  offset = count = 0;
}
