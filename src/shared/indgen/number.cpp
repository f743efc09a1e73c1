#include "indgen/number.h"

#include <cerrno>

namespace {

constexpr int kNoDigit = 36;

int digitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return kNoDigit;
}

bool isNumberBlank(char c) {
  return c == ' ' || (c >= 8 && c <= 13);
}

bool hasHexPrefix(const char* at) {
  return at[0] == '0' && (at[1] == 'x' || at[1] == 'X');
}

}  // namespace

std::uint32_t gen_strtoul(const char* text, const char** end, int base) {
  if (end) *end = text;
  if (!text) return 0;

  const char* at = text;
  while (isNumberBlank(*at)) ++at;
  const bool negative = *at == '-';
  if (*at == '-' || *at == '+') ++at;

  if (base != 0 && (base < 2 || base > 36)) {
    if (end) *end = at;
    return 0;
  }
  const bool hexPrefix = hasHexPrefix(at);
  if (base == 0) base = hexPrefix ? 16 : *at == '0' ? 8 : 10;
  if (base == 16 && hexPrefix) at += 2;

  const char* const digits = at;
  std::uint64_t value = 0;
  bool overflow = false;
  for (; digitValue(*at) < base; ++at) {
    value = value * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digitValue(*at));
    if (value > UINT32_MAX) {
      overflow = true;
      value = 0;
    }
  }
  if (at == digits) return 0;
  if (end) *end = at;
  if (overflow) {
    errno = ERANGE;
    return UINT32_MAX;
  }
  const auto result = static_cast<std::uint32_t>(value);
  return negative ? 0 - result : result;
}

gen_text gen_hex(const void* bytes, std::size_t count) {
  if (!bytes) return gen_text();
  constexpr char kDigits[] = "0123456789abcdef";
  const auto* from = static_cast<const unsigned char*>(bytes);
  gen_text result(static_cast<char*>(gen_alloc(2 * count + 1, 1)));
  char* to = result.data();
  for (std::size_t i = 0; i < count; ++i) {
    *to++ = kDigits[from[i] & 15];
    *to++ = kDigits[from[i] >> 4];
  }
  return result;
}
