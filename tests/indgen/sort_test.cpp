#include "indgen/sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "indgen/random.h"

namespace {

// Compares the first byte of elements of any size, and counts.
int byFirstByte(void* context, const void* a, const void* b) {
  ++*static_cast<long*>(context);
  return *static_cast<const unsigned char*>(a) - *static_cast<const unsigned char*>(b);
}

int bySize(void* context, const void* a, const void* b) {
  ++*static_cast<long*>(context);
  const int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
  return x < y ? -1 : x > y;
}

TEST(Sort, SortsEveryLengthAndPatternInFewSteps) {
  std::mt19937 generator(1);
  for (int count : {0, 1, 2, 5, 6, 35, 36, 64, 65, 1000, 20000}) {
    for (int pattern = 0; pattern < 5; ++pattern) {
      std::vector<int> values(static_cast<std::size_t>(count));
      std::iota(values.begin(), values.end(), 0);
      if (pattern == 1) std::reverse(values.begin(), values.end());
      if (pattern == 2) std::shuffle(values.begin(), values.end(), generator);
      if (pattern == 3) std::fill(values.begin(), values.end(), 7);
      if (pattern == 4) std::for_each(values.begin(), values.end(), [](int& v) { v %= 3; });
      std::vector<int> expected = values;
      std::sort(expected.begin(), expected.end());
      long steps = 0;
      gen_sort(&steps, values.data(), values.size(), sizeof(int), bySize, nullptr);
      EXPECT_EQ(values, expected) << count << " " << pattern;
      EXPECT_LE(steps, 60L * count) << pattern;
    }
  }
}

template <std::size_t size>
void expectStable(std::size_t count) {
  struct Element {
    unsigned char bytes[size];
  };
  std::vector<Element> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    values[i].bytes[0] = static_cast<unsigned char>(i * 7 % 4);
    values[i].bytes[1] = static_cast<unsigned char>(i);
    values[i].bytes[size - 1] = static_cast<unsigned char>(i);
  }
  long steps = 0;
  gen_sort_stable(&steps, values.data(), count, size, byFirstByte, nullptr);
  for (std::size_t i = 1; i < count; ++i) {
    const auto &a = values[i - 1].bytes, &b = values[i].bytes;
    EXPECT_TRUE(a[0] < b[0] || (a[0] == b[0] && a[1] < b[1])) << size << " " << count << " " << i;
    EXPECT_EQ(b[1], b[size - 1]);
  }
}

TEST(Sort, StableKeepsTheOrderOfEqualOnes) {
  for (std::size_t count : {5u, 64u, 65u, 250u}) {
    expectStable<2>(count);
    expectStable<3>(count);
    expectStable<16>(count);
  }
}

TEST(Sort, UsesTheCallersSwap) {
  static int swaps = 0;
  int values[] = {3, 2, 1};
  long steps = 0;
  gen_sort(&steps, values, 3, sizeof(int), bySize, [](void* a, void* b, std::size_t) {
    ++swaps;
    std::swap(*static_cast<int*>(a), *static_cast<int*>(b));
  });
  EXPECT_TRUE(std::is_sorted(values, values + 3));
  EXPECT_EQ(swaps, 3);
}

TEST(Random, CrcEqualsTheDivisionBitByBit) {
  const char* text = "123456789";
  std::uint32_t expected = 0xFFFFFFFF;
  for (const char* at = text; *at; ++at)
    for (int bit = 7; bit >= 0; --bit) {
      const bool top = (expected >> 31) != ((static_cast<unsigned>(*at) >> bit) & 1u);
      expected = (expected << 1) ^ (top ? 0x10211021u : 0u);
    }
  EXPECT_EQ(gen_crc(text + 4, 5, gen_crc(text, 4, 0xFFFFFFFF)), expected);
}

TEST(Random, SequenceDependsOnTheSeedAlone) {
  gen_seed_random(1);
  EXPECT_EQ(gen_random(), 1016015u);
  EXPECT_EQ(gen_random(), (1016015u * std::uint64_t{15016} + 1000999u) % 2029052025u);
  gen_seed_random(0x80000001u);
  EXPECT_EQ(gen_random(), 1016015u);
  for (int i = 0; i < 10000; ++i) ASSERT_LT(gen_random(), 2029052025u);
}

}  // namespace
