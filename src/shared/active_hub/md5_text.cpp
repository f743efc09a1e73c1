#include "active_hub/md5_text.h"

#include <array>
#include <bit>
#include <cstdint>
#include <string>

#include "indgen/text.h"

namespace {

constexpr std::size_t kBlock = 64;  // bytes that one round works on
constexpr std::size_t kLengthAt = 56;

// The tables of RFC 1321: how far each operation rotates, by round, and the integer part of
// 2^32 * |sin(i + 1)|.
constexpr std::array<std::array<int, 4>, 4> kRotations{
    {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}}};
constexpr std::array<std::uint32_t, 64> kSines{
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

using State = std::array<std::uint32_t, 4>;

std::uint32_t wordAt(const std::string& bytes, std::size_t at) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4; ++i)
    word |= std::uint32_t{static_cast<unsigned char>(bytes[at + i])} << (8 * i);
  return word;
}

void digestBlock(State& state, const std::string& bytes, std::size_t block) {
  auto [a, b, c, d] = state;
  for (std::size_t i = 0; i < 64; ++i) {
    const std::size_t round = i / 16;
    std::uint32_t mixed = 0;
    std::size_t place = 0;
    switch (round) {
      case 0:
        mixed = (b & c) | (~b & d);
        place = i;
        break;
      case 1:
        mixed = (b & d) | (c & ~d);
        place = 5 * i + 1;
        break;
      case 2:
        mixed = b ^ c ^ d;
        place = 3 * i + 5;
        break;
      default:
        mixed = c ^ (b | ~d);
        place = 7 * i;
    }
    const std::uint32_t sum = a + mixed + kSines[i] + wordAt(bytes, block + 4 * (place % 16));
    a = d;
    d = c;
    c = b;
    b += std::rotl(sum, kRotations[round][i % 4]);
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

}  // namespace

gen_text md5Text(const char* text) {
  std::string bytes = text ? text : "";
  const std::uint64_t bits = std::uint64_t{bytes.size()} * 8;
  bytes += '\x80';
  while (bytes.size() % kBlock != kLengthAt) bytes += '\0';
  for (unsigned i = 0; i < 8; ++i) bytes += static_cast<char>(bits >> (8 * i) & 0xFF);

  State state{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  for (std::size_t block = 0; block < bytes.size(); block += kBlock)
    digestBlock(state, bytes, block);

  std::string digits;
  for (const std::uint32_t word : state)
    for (unsigned half = 0; half < 8; ++half) digits += "0123456789abcdef"[word >> (4 * half) & 15];
  return gen_strdup(digits.c_str());
}
