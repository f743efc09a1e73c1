// Damaged configuration files for some seconds, the same ones in every run.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include "../indgen/scratch.h"
#include "fuzz/options_input.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const char* const kPieces[] = {
    "%if ", "%else\n", "%endif\n", "%define A ", "${A}", "$A",  "%include \"self\"\n",
    "{",    "}",       "\"",       "\\",         "\n",   " = ", " += ",
    ".",    ",",       "(",        ")",          "#",    "-",   "0x",
    "\r"};

// The seeds with a few changes each: pieces of them left out and doubled, and others put in.
class Mutator {
 public:
  Mutator() {
    const fs::path seeds = fs::path(__FILE__).parent_path() / "../../fuzz/seeds/options";
    for (const auto& entry : fs::directory_iterator(seeds))
      files_.push_back(contents(entry.path().string()));
    std::sort(files_.begin(), files_.end());
  }

  std::string next() {
    std::string text = files_[below(files_.size())];
    for (std::size_t changes = 1 + below(8); changes > 0; --changes) {
      const std::size_t at = below(text.size() + 1), count = below(text.size() - at + 1);
      const std::string& other = files_[below(files_.size())];
      const std::string added[] = {std::string(1, static_cast<char>(below(256))),
                                   kPieces[below(std::size(kPieces))], "",
                                   text.substr(at, text.size() < 20000 ? count : 20),
                                   other.substr(below(other.size() + 1), 100)};
      const std::string& piece = added[below(std::size(added))];
      text.replace(at, piece.empty() ? count % 20 : 0, piece);
    }
    return text;
  }

 private:
  std::size_t below(std::size_t count) { return random_() % count; }

  std::mt19937 random_{20240229};  // NOLINT(cert-msc51-cpp): the same run every time
  std::vector<std::string> files_;
};

// The most memory that this process ever had, in KiB.
long peakMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;)
    if (word == "VmHWM:" && status >> word) return std::stol(word);
  return 0;
}

TEST(OptionsFuzz, DamagedFilesNeitherCrashNorLastNorSwell) {
  constexpr std::chrono::seconds kRun{3}, kPatience{10};
  constexpr long kMostMemory = 512 * 1024;
  const OptionsInput input;
  Mutator mutator;
  const long before = peakMemory();
  int count = 0;
  for (const auto start = Clock::now(); Clock::now() - start < kRun; ++count) {
    const std::string text = mutator.next();
    const auto began = Clock::now();
    ASSERT_TRUE(input.check(text.data(), text.size())) << text;
    ASSERT_LT(Clock::now() - began, kPatience) << text;
  }
  EXPECT_GT(count, 10);
  EXPECT_LT(peakMemory() - before, kMostMemory);
}

}  // namespace
