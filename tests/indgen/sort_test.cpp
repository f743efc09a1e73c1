#include "indgen/sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "indgen/random.h"

namespace {

// Compares elements that start with an int, and counts.
int byInt(void* context, const void* a, const void* b) {
  ++*static_cast<long*>(context);
  const int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
  return x < y ? -1 : x > y;
}

TEST(Sort, SortsEveryLengthAndPatternInFewSteps) {
  std::mt19937 generator(1);
  for (int count : {0, 1, 2, 5, 6, 35, 36, 64, 65, 1000, 20000}) {
    for (int pattern = 0; pattern < 5; ++pattern) {
      std::vector<int> values;
      for (int i = 0; i < count; ++i)
        values.push_back(pattern == 1 ? -i : pattern == 3 ? 7 : pattern == 4 ? i % 3 : i);
      if (pattern == 2) std::shuffle(values.begin(), values.end(), generator);
      std::vector<int> expected = values;
      std::sort(expected.begin(), expected.end());
      long steps = 0;
      gen_sort(&steps, values.data(), values.size(), sizeof(int), byInt, nullptr);
      EXPECT_EQ(values, expected) << count << " " << pattern;
      EXPECT_LE(steps, 60L * count) << pattern;
    }
  }
}

TEST(Sort, StableKeepsTheOrderOfEqualOnes) {
  for (int count : {5, 64, 65, 1000}) {
    std::vector<std::pair<int, int>> values;
    for (int i = 0; i < count; ++i) values.emplace_back(i * 7 % 4, i);
    long steps = 0;
    gen_sort_stable(&steps, values.data(), values.size(), sizeof values[0], byInt, nullptr);
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end())) << count;
  }
}

TEST(Random, CrcAndSequenceDependOnTheirStartAlone) {
  EXPECT_EQ(gen_crc("56789", 5, gen_crc("1234", 4, 0xFFFFFFFF)), 0xa99f0b9eu);
  for (const std::uint32_t seed : {1u, 0x80000001u}) {
    gen_seed_random(seed);
    EXPECT_EQ(gen_random(), 1016015u);
    EXPECT_EQ(gen_random(), (1016015u * std::uint64_t{15016} + 1000999u) % 2029052025u);
  }
}

}  // namespace
