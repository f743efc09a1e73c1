#include "libcxxutil/ut_string.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "indgen/memory.h"
#include "indgen/report.h"

namespace {

using Size = ut_string::Size;

// The word in front of the characters: header bytes in the low four bits, references above.
constexpr std::int32_t kReference = 16;
constexpr std::int32_t kHeaderMask = kReference - 1;
constexpr std::int32_t kCompactHeader = 4;
constexpr std::int32_t kGrowableHeader = 12;
constexpr std::int32_t kCompactStart = kReference + kCompactHeader;
constexpr std::int32_t kGrowableStart = kReference + kGrowableHeader;

// Distances of the header's fields from the characters. The ends are offsets from there as well.
constexpr std::ptrdiff_t kWord = 4, kEndOfBuffer = 8, kEndOfText = 12;

constexpr Size kLongest = INT32_MAX - 1;

// A block without characters that is never released: its first reference stays.
using StaticBlock = std::array<char, 8>;
constexpr StaticBlock staticBlock() {
  return std::bit_cast<StaticBlock>(std::array<std::int32_t, 2>{kCompactStart, 0});
}
constinit StaticBlock nullBlock = staticBlock();
constinit StaticBlock emptyBlock = staticBlock();
char* const null_string = nullBlock.data() + kCompactHeader;
char* const empty_string = emptyBlock.data() + kCompactHeader;

std::int32_t field(const char* text, std::ptrdiff_t distance) {
  std::int32_t value;
  std::memcpy(&value, text - distance, sizeof value);
  return value;
}

void setField(char* text, std::ptrdiff_t distance, std::int32_t value) {
  std::memcpy(text - distance, &value, sizeof value);
}

char* retain(char* text) {
  const auto word = static_cast<std::uint32_t>(field(text, kWord)) + kReference;
  GEN_ASSERT(static_cast<std::int32_t>(word) > 0);
  setField(text, kWord, static_cast<std::int32_t>(word));
  return text;
}

void release(char* text) {
  const std::int32_t word = field(text, kWord) - kReference;
  setField(text, kWord, word);
  if (word < kReference) gen_free(text - (word & kHeaderMask));
}

Size lengthOf(const char* text) {
  const std::size_t length = text ? std::strlen(text) : 0;
  GEN_ASSERT(length <= kLongest);
  return static_cast<Size>(length);
}

// Length of a text that counts as ended after `bound` characters.
Size boundedLength(const char* text, Size bound) {
  if (bound < 1) return 0;
  const void* end = std::memchr(text, '\0', static_cast<std::size_t>(bound));
  return end ? static_cast<Size>(static_cast<const char*>(end) - text) : bound;
}

char* copied(char* to, const char* from, Size count) {
  std::memcpy(to, from, static_cast<std::size_t>(count));
  return to + count;
}

char* compactBlock(Size length) {
  char* block =
      static_cast<char*>(gen_alloc(static_cast<std::size_t>(length) + kCompactHeader + 1, 1));
  setField(block + kCompactHeader, kWord, kCompactStart);
  return block + kCompactHeader;
}

// A growable block with a text of `length` characters for the caller to fill, and as much room
// again.
char* growableBlock(std::int64_t length) {
  GEN_ASSERT(length <= kLongest);
  const std::int64_t room = std::min<std::int64_t>(2 * (length + 1), INT32_MAX);
  char* block = static_cast<char*>(gen_alloc(static_cast<std::size_t>(room) + kGrowableHeader, 1));
  char* text = block + kGrowableHeader;
  setField(text, kWord, kGrowableStart);
  setField(text, kEndOfBuffer, static_cast<std::int32_t>(room));
  setField(text, kEndOfText, static_cast<std::int32_t>(length));
  return text;
}

char* made(const char* text, Size length) {
  if (!text) return retain(null_string);
  if (length < 1) return retain(empty_string);
  char* block = compactBlock(length);
  copied(block, text, length);
  return block;
}

bool needsQuotes(char c) {
  return c == ' ' || c == '\t' || c == '"' || c == '\'';
}

}  // namespace

ut_string::ut_string() : text_(retain(null_string)) {}

ut_string::ut_string(const char* text) : text_(made(text, lengthOf(text))) {}

ut_string::ut_string(const char* text, Size length)
    : text_(made(text, text ? boundedLength(text, length) : 0)) {}

ut_string::ut_string(const ut_string& other) : text_(retain(other.text_)) {}

ut_string::ut_string(ut_string&& other) noexcept
    : text_(std::exchange(other.text_, retain(null_string))) {}

ut_string::~ut_string() {
  release(text_);
}

ut_string& ut_string::operator=(const ut_string& other) {
  if (this != &other && text_ != other.text_) adopt(retain(other.text_));
  return *this;
}

ut_string& ut_string::operator=(ut_string&& other) noexcept {
  std::swap(text_, other.text_);
  return *this;
}

ut_string& ut_string::operator=(const char* text) {
  adopt(made(text, lengthOf(text)));
  return *this;
}

void ut_string::assign(const char* a, const char* b) {
  const Size first = lengthOf(a), second = lengthOf(b);
  const std::int64_t length = std::int64_t{first} + second;
  GEN_ASSERT(length <= kLongest);
  if (length == 0) {
    adopt(retain(a || b ? empty_string : null_string));
    return;
  }
  char* block = compactBlock(static_cast<Size>(length));
  char* end = first > 0 ? copied(block, a, first) : block;
  if (second > 0) copied(end, b, second);
  adopt(block);
}

void ut_string::append(const char* text, Size length) {
  if (!text) return;
  const Size added = boundedLength(text, length);
  if (added == 0) return;
  const Size old = this->length();
  char* target = isWritable(added) ? text_ : grown(added);
  copied(target + old, text, added);
  if (target != text_) adopt(target);  // only now: the text may lie within the old block
  setLength(old + added);
}

void ut_string::append(const char* text) {
  append(text, lengthOf(text));
}

void ut_string::append(const ut_string& other) {
  append(other.text_, other.length());
}

void ut_string::append(char c) {
  append(&c, 1);
}

void ut_string::append_quoted(const char* text, Size length) {
  if (!text || length < 0) return;
  ut_string quoted("\"");
  for (const char* const end = text + boundedLength(text, length); text != end; ++text) {
    if (*text == '\\' || *text == '"') quoted.append('\\');
    quoted.append(*text);
  }
  quoted.append('"');
  append(quoted);
}

void ut_string::append_quoted_if_needed(const char* text, Size length) {
  if (!text) return;
  if (std::any_of(text, text + boundedLength(text, length), needsQuotes))
    append_quoted(text, length);
  else
    append(text, length);
}

void ut_string::set_char(Size index, char c) {
  if (index < 0 || index >= length()) return;
  makeWritable();
  text_[index] = c;
  if (c == '\0') setLength(index);
}

char ut_string::exchange_char(Size index, char c) {
  if (index < 0 || index >= length()) return '\0';
  const char old = text_[index];
  set_char(index, c);
  return old;
}

void ut_string::erase(Size index, Size count) {
  const Size old = length();
  if (index < 0 || index >= old || count < 1) return;
  count = std::min(count, old - index);
  makeWritable();
  std::memmove(text_ + index, text_ + index + count, static_cast<std::size_t>(old - index - count));
  setLength(old - count);
}

void ut_string::replace(Size index, Size count, const char* text) {
  const Size old = length();
  if (index < 0 || index > old) return;
  count = std::clamp(count, Size{0}, old - index);
  if (!text) text = "";
  const Size added = lengthOf(text), tail = old - index - count;

  if (added > count || !isWritable(0)) {
    char* block = growableBlock(std::int64_t{old} - count + added);
    char* end = copied(block, text_, index);
    end = copied(end, text, added);
    copied(end, text_ + index + count, tail);
    adopt(block);
    return;
  }
  // The new text first: it may lie within what is replaced or behind it.
  std::memmove(text_ + index, text, static_cast<std::size_t>(added));
  std::memmove(text_ + index + added, text_ + index + count, static_cast<std::size_t>(tail));
  setLength(old - count + added);
}

ut_string ut_string::substring(Size index, Size count) const {
  const Size all = length();
  if (index < 0 || index > all) return ut_string();
  if (count < 0 || count > all - index) count = all - index;
  return count == all ? *this : ut_string(text_ + index, count);
}

Size ut_string::copy_out(char* buffer, Size count, Size index) const {
  if (!buffer) return 0;
  const Size all = length();
  const Size available = index < 0 || index > all ? 0 : all - index;
  const Size copiedCount = count < 0 ? available : std::min(count, available);
  if (copiedCount > 0) copied(buffer, text_ + index, copiedCount);
  if (count < 0) buffer[copiedCount] = '\0';
  return copiedCount;
}

Size ut_string::length() const {
  const bool growable = (field(text_, kWord) & kHeaderMask) == kGrowableHeader;
  return growable ? field(text_, kEndOfText) : lengthOf(text_);
}

bool ut_string::is_null() const {
  return text_ == null_string;
}

std::uint32_t ut_string::hash(const char* text, std::uint32_t size) {
  if (!text || size == 0) return 0;
  constexpr int kUnfolded = 6;  // characters that can't reach the top bits
  constexpr std::uint32_t kTop = 0xF0000000;
  std::uint32_t value = 0;
  for (int i = 0; *text; ++text, ++i) {
    value = (value << 4) + static_cast<unsigned char>(*text);
    const std::uint32_t top = value & kTop;
    if (i >= kUnfolded && top != 0) value = (value ^ (top >> 24)) & ~kTop;
  }
  return value % size;
}

int ut_string::compare(const char* other) const {
  if (!other) other = "";
  const auto a = static_cast<unsigned char>(*text_), b = static_cast<unsigned char>(*other);
  return a != b ? (a < b ? -1 : 1) : std::strcmp(text_, other);
}

// Whether the block is growable, this string's own, and has room for `added` more characters.
bool ut_string::isWritable(Size added) const {
  return field(text_, kWord) == kGrowableStart &&
         added < field(text_, kEndOfBuffer) - field(text_, kEndOfText);
}

// A growable block with this string's text, which has room for `added` more characters.
char* ut_string::grown(Size added) const {
  const Size old = length();
  char* block = growableBlock(std::int64_t{old} + added);
  copied(block, text_, old);
  return block;
}

void ut_string::adopt(char* block) {
  release(std::exchange(text_, block));
}

void ut_string::makeWritable() {
  if (isWritable(0)) return;
  const Size old = length();
  adopt(grown(0));
  setLength(old);
}

void ut_string::setLength(Size length) {
  text_[length] = '\0';
  setField(text_, kEndOfText, length);
}
