#include "libcxxutil/ut_token_buffer.h"

#include <cstring>
#include <utility>

void ut_token_buffer::clear(std::size_t room) {
  full_.clear();
  start_ = used_ = 0;
  last_ = nullptr;
  if (capacity_ < room) grow(room);
}

void ut_token_buffer::put(char c) {
  if (used_ == capacity_) grow(1);
  block_[used_++] = c;
}

void ut_token_buffer::put(std::string_view text) {
  if (text.size() > capacity_ - used_) grow(text.size());
  if (!text.empty()) std::memcpy(block_.get() + used_, text.data(), text.size());
  used_ += text.size();
}

char* ut_token_buffer::finish() {
  put('\0');
  last_ = block_.get() + start_;
  start_ = used_;
  return last_;
}

// Goes on in a new block, with room for `needed` bytes more.
void ut_token_buffer::grow(std::size_t needed) {
  const std::size_t unfinished = used_ - start_;
  capacity_ = 2 * capacity_ + needed;
  auto larger = std::make_unique_for_overwrite<char[]>(capacity_);
  if (unfinished > 0) std::memcpy(larger.get(), block_.get() + start_, unfinished);
  if (start_ > 0) full_.push_back(std::move(block_));
  block_ = std::move(larger);
  start_ = 0;
  used_ = unfinished;
}
