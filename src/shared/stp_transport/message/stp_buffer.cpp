#include "stp_transport/message/stp_buffer.h"

namespace {

constexpr std::int64_t kClosingZeros = 4;
constexpr std::int64_t kFirstGrowth = 14;

}  // namespace

STPBuffer::STPBuffer(std::int64_t capacity)
    : storage_(static_cast<unsigned char*>(
          gen_alloc(static_cast<std::size_t>(capacity + kClosingZeros), 1))),
      capacity_(capacity),
      cursor_(storage_),
      limit_(storage_ + capacity) {}

void STPBuffer::grow(std::int64_t extra) {
  const std::int64_t capacity = extra + (capacity_ > 0 ? 2 * capacity_ : kFirstGrowth);
  const std::int64_t cursor = cursorOffset();
  storage_ = static_cast<unsigned char*>(
      gen_realloc(storage_, static_cast<std::size_t>(capacity + kClosingZeros)));
  std::memset(storage_ + capacity_ + kClosingZeros, 0,
              static_cast<std::size_t>(capacity - capacity_));
  capacity_ = capacity;
  setCursor(cursor);
  setLimit(capacity);
}
