#include "indgen/random.h"

#include "platform/clock.h"

namespace {

constexpr std::uint32_t kPolynomial = 0x10211021;
constexpr std::uint32_t kTopBit = 0x80000000;

struct CrcTable {
  constexpr CrcTable() {
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
      std::uint32_t remainder = byte << 24;
      for (int bit = 0; bit < 8; ++bit)
        remainder = remainder & kTopBit ? (remainder << 1) ^ kPolynomial : remainder << 1;
      entries[byte] = remainder;
    }
  }
  std::uint32_t entries[256] = {};
};
constexpr CrcTable kCrcTable;

constexpr std::uint32_t kMultiplier = 15016;
constexpr std::uint32_t kIncrement = 1000999;
constexpr std::uint32_t kModulus = 30960u * 65536u + 57465u;
constexpr std::uint32_t kSeedBits = 0x7FFFFFFF;

bool seeded = false;
std::uint32_t state = 0;

}  // namespace

std::uint32_t gen_crc(const void* data, std::size_t length, std::uint32_t crc) {
  if (!data) return crc;
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < length; ++i)
    crc = (crc << 8) ^ kCrcTable.entries[(crc >> 24) ^ bytes[i]];
  return crc;
}

std::uint32_t gen_random() {
  if (!seeded) gen_seed_random(static_cast<std::uint32_t>(platform::unixMilliseconds()));
  const std::uint64_t next = std::uint64_t{state} * kMultiplier + kIncrement;
  state = static_cast<std::uint32_t>(next % kModulus);
  return state;
}

void gen_seed_random(std::uint32_t seed) {
  state = seed & kSeedBits;
  seeded = true;
}
