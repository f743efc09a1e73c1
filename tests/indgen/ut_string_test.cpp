#include "libcxxutil/ut_string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

namespace {

std::int32_t word(const ut_string& string) {
  std::int32_t value;
  std::memcpy(&value, string.c_str() - 4, 4);
  return value;
}

TEST(UtString, WordTellsFormAndReferences) {
  ut_string a("text");
  EXPECT_EQ(word(a), 20);
  a.append('s');
  EXPECT_EQ(word(a), 28);
  ut_string c;
  c = a;
  EXPECT_EQ(c.c_str(), a.c_str());
  c = *&c;
  EXPECT_EQ(word(a), 44);
  const char* const block = a.c_str();
  c = "other";
  a.append("more");
  EXPECT_EQ(a.c_str(), block);  // room for as much again, and no longer shared
  EXPECT_STREQ(a, "textsmore");
  const ut_string sharer(a);
  a.append("b", -1);
  a.append(nullptr, 5);
  a.append('\0');
  EXPECT_EQ(a.c_str(), block) << "nothing to append";
  a.append("bcd", 2);
  a.append("e\0f", 3);
  EXPECT_STREQ(a, "textsmorebce");
}

// Every change against std::string, with arguments inside and outside the text, with texts that lie
// within the string itself, and with a copy that no change may reach.
TEST(UtString, ChangesLikeAModel) {
  std::mt19937 generator(7);
  const auto pick = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(generator);
  };
  const auto size_of = [](int value) { return static_cast<std::size_t>(value); };
  ut_string string("start");
  std::string model = "start";
  ut_string sharer;
  std::string shared;
  for (int step = 0; step < 20000; ++step) {
    const int size = static_cast<int>(model.size());
    const int index = pick(-1, size + 1), count = pick(-1, size + 1);
    const bool own = pick(0, 3) == 0;
    const int from = pick(0, size);
    const std::string text =
        own ? model.substr(size_of(from)) : std::string("0123456789").substr(size_of(pick(0, 10)));
    const char* const argument = own ? string.c_str() + from : text.c_str();
    const bool within = index >= 0 && index < size;
    if (pick(0, 2) == 0) sharer = string, shared = model;
    const int change = pick(0, 6);
    if (change == 0) {
      string.append(argument), model += text;
    } else if (change == 1) {
      string.set_char(index, 'c');
      if (within) model[size_of(index)] = 'c';
    } else if (change == 2) {
      EXPECT_EQ(string.exchange_char(index, '\0'), within ? model[size_of(index)] : '\0');
      if (within) model.resize(size_of(index));
    } else if (change == 3) {
      string.erase(index, count);
      if (within && count > 0) model.erase(size_of(index), size_of(count));
    } else if (change == 4) {
      string.replace(index, count, argument);
      if (within || index == size) model.replace(size_of(index), size_of(std::max(count, 0)), text);
    } else if (change == 5) {
      string.assign("<", argument), model = "<" + text;
    } else {
      const ut_string part = string.substring(index, count);
      const bool good = within || index == size;
      EXPECT_EQ(part.is_null(), !good || (size == 0 && string.is_null()));
      EXPECT_EQ(part.c_str(), good ? model.substr(size_of(index), size_of(count)) : "");
    }
    if (model.size() > 200) string = (model.resize(20), model.c_str());
    ASSERT_EQ(string.c_str(), model) << step;
    ASSERT_EQ(string.length(), static_cast<int>(model.size()));
    ASSERT_EQ(sharer.c_str(), shared) << step;
  }
}

TEST(UtString, CopiesOutComparesAndHashes) {
  EXPECT_FALSE(ut_string("").is_null());
  const ut_string a("abcdef");
  EXPECT_EQ(a.substring(0, 99).c_str(), a.c_str());
  char buffer[8] = "#######";
  EXPECT_EQ(a.copy_out(buffer, 2, 1), 2);
  EXPECT_STREQ(buffer, "bc#####");
  EXPECT_EQ(a.copy_out(buffer, -1, 4), 2);
  EXPECT_STREQ(buffer, "ef");
  EXPECT_TRUE(ut_string("a") < "\xE4");
  EXPECT_TRUE("a" == ut_string("a"));
  EXPECT_EQ(ut_string::hash("ab", 1000), (97u * 16 + 98) % 1000);
  // The seventh letter makes it 0x67777771, whose top bits then fold down.
  EXPECT_EQ(ut_string::hash("aaaaaaa", 0xFFFFFFFF), 0x07777711u);
}

}  // namespace
