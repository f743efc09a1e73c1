#include "indgen/printable.h"

#include <cstdint>

namespace {

unsigned char byteAt(std::string_view text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

// The bytes of the character in front, which is given too; 0 if they are no UTF-8.
std::size_t takeCharacter(std::string_view text, std::uint32_t& character) {
  const unsigned char first = byteAt(text, 0);
  if (first < 0x80) {
    character = first;
    return 1;
  }
  const std::size_t length = first < 0xC2   ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  if (length == 0) return 0;
  character = first & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const unsigned char next = byteAt(text, i);
    if ((next & 0xC0) != 0x80) return 0;
    character = character << 6 | (next & 0x3Fu);
  }
  const bool overlong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
  const bool surrogate = character >= 0xD800 && character < 0xE000;
  return overlong || surrogate || character > 0x10FFFF ? 0 : length;
}

bool isHarmless(std::uint32_t character) {
  const bool control = character < 0x20 || (character >= 0x7F && character < 0xA0);
  const bool separator = character == 0x2028 || character == 0x2029;
  const bool direction =
      (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
  return !control && !separator && !direction;
}

void appendEscaped(std::string& result, char c) {
  constexpr const char* kDigits = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  if (c == '\n')
    result += "\\n";
  else if (c == '\t')
    result += "\\t";
  else
    result.append("\\x") += {kDigits[byte >> 4], kDigits[byte & 0xF]};
}

}  // namespace

std::string gen_printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::uint32_t character = 0;
    const std::size_t length = takeCharacter(text, character);
    const std::string_view taken = text.substr(0, length == 0 ? 1 : length);
    if (length > 0 && isHarmless(character))
      result += taken;
    else
      for (const char c : taken) appendEscaped(result, c);
    text.remove_prefix(taken.size());
  }
  return result;
}
