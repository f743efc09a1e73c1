#include "indgen/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "indgen/number.h"
#include "indgen/quote.h"

namespace {

// A text for comparison that keeps none and empty apart.
std::string shown(const char* text) {
  return text ? std::string("=") + text : "none";
}

TEST(Text, ComparesWithoutCase) {
  EXPECT_TRUE(gen_equal_nocase("aZ09[", "Az09["));
  EXPECT_FALSE(gen_equal_nocase("[", "{"));  // apart like letters in the two cases
  EXPECT_TRUE(gen_equal_nocase(nullptr, nullptr));
  EXPECT_FALSE(gen_equal_nocase("", nullptr));
  EXPECT_FALSE(gen_equal_nocase_n("ab", "abc", 3));
  EXPECT_EQ(gen_compare_nocase("\xE4", "z"), 1);
  EXPECT_EQ(gen_compare_nocase(nullptr, ""), -1);
  EXPECT_EQ(gen_compare_nocase_n("abc", "ABD", 3), -1);
}

TEST(Text, PrefixesAndSuffixes) {
  EXPECT_TRUE(gen_has_prefix("ab", "ab"));
  EXPECT_FALSE(gen_has_prefix("a", "ab"));
  EXPECT_FALSE(gen_has_prefix(nullptr, ""));
  EXPECT_TRUE(gen_has_prefix_n("abX", "abc", 2));
  EXPECT_FALSE(gen_has_prefix_n("abX", "abc", 9));
  EXPECT_TRUE(gen_has_prefix_nocase_n("ABX", "abc", 2));
  EXPECT_TRUE(gen_has_suffix("abc", "bc"));
  EXPECT_FALSE(gen_has_suffix("ab", "ab"));
}

TEST(Text, FindsFirstAndLast) {
  const char* text = "abcABCabc";
  EXPECT_EQ(gen_find(text, "BC"), text + 4);
  EXPECT_EQ(gen_find_nocase(text, "BC"), text + 1);
  EXPECT_EQ(gen_find_last_nocase(text, "BC"), text + 7);
  EXPECT_EQ(gen_find_last(text, ""), text + 9);
  EXPECT_EQ(gen_find_last("b", "abc"), nullptr);
}

TEST(Text, CopiesAndJoins) {
  EXPECT_STREQ(gen_lower("AbZ\xC4"), "abz\xC4");
  EXPECT_STREQ(gen_upper("aBz1"), "ABZ1");
  EXPECT_STREQ(gen_strndup("abc", 9), "abc");
  EXPECT_EQ(shown(gen_strndup("abc", -1)), "none");
  EXPECT_EQ(shown(gen_concat(nullptr, nullptr)), "=");
  EXPECT_STREQ(gen_concat9("1", "2", "3", nullptr, "5", "6", "7", "8", "9"), "12356789");
  EXPECT_STREQ(gen_concat_free(gen_strdup("a"), "b"), "ab");
  EXPECT_STREQ(gen_concat_char("a", 0, "b"), "ab");
}

TEST(Text, ReplacesWhatATextHolds) {
  gen_text text = gen_strdup("old text");
  const char* const before = text;
  gen_replace_n(text, text, 2);
  EXPECT_EQ(text.get(), before);
  EXPECT_STREQ(text, "old text");
  gen_replace_n(text, text + 4, 3);
  EXPECT_STREQ(text, "tex");
  gen_replace(text, nullptr);
  EXPECT_EQ(text.get(), nullptr);
}

TEST(Text, ReplacesAllBehindEachValue) {
  const auto all = [](const char* text, const char* pattern, const char* value) {
    return shown(gen_replace_all(gen_strdup(text), pattern, value));
  };
  EXPECT_EQ(all("aXbXX", "X", "XX"), "=aXXbXXXX");
  EXPECT_EQ(all("aaa", "aa", nullptr), "=a");
  EXPECT_EQ(all("abc", "", "x"), "=abc");
  EXPECT_EQ(all(nullptr, "a", "b"), "none");
}

TEST(Text, TokenizesInPlace) {
  gen_text text = gen_strdup(";;a,b;c;");
  std::vector<std::string> tokens;
  char* rest = text.data();
  while (char* token = gen_tokenize(rest, ";,", &rest)) tokens.push_back(token);
  EXPECT_EQ(tokens, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(rest, nullptr);
}

TEST(Number, FollowsTheRule) {
  struct Case {
    const char* text;
    std::uint32_t base, value, used;
    int error = 0;
  };
  constexpr std::uint32_t kMost = 0xFFFFFFFF;
  const Case cases[] = {{"0x10", 0, 16, 4},
                        {"010", 0, 8, 3},
                        {"-", 0, 0, 0},
                        {" \b\v+7x", 10, 7, 5},
                        {"-1", 10, kMost, 2},
                        {"0xfF", 16, 255, 4},
                        {"zZ", 36, 35 * 37, 2},
                        {"12", 2, 1, 1},
                        {"0x", 0, 0, 0},
                        {"4294967295", 10, kMost, 10},
                        {"09", 0, 0, 1},
                        {"4294967296", 10, kMost, 10, ERANGE},
                        {"  -5", 37, 0, 3},
                        {"0x10", 10, 0, 1},
                        {"-99999999999", 0, kMost, 12, ERANGE}};
  for (const Case& c : cases) {
    errno = 0;
    const char* end = nullptr;
    EXPECT_EQ(gen_strtoul(c.text, &end, static_cast<int>(c.base)), c.value) << c.text;
    EXPECT_EQ(end, c.text + c.used) << c.text;
    EXPECT_EQ(errno, c.error) << c.text;
  }
  EXPECT_STREQ(gen_hex("\x1f\xa0", 2), "f10a");
}

TEST(Quote, QuotesAndEscapes) {
  EXPECT_STREQ(gen_quote("a\"b\\'\n"), "\"a\\\"b\\\\\\'\n\"");
  EXPECT_STREQ(gen_single_quote(""), "''");
  EXPECT_STREQ(gen_escape("\n\r\t\1\2\3\4'"), "\\n\\r\\t\\1\\2\\3\4\\'");
  EXPECT_TRUE(gen_needs_quotes("a\tb"));
  EXPECT_FALSE(gen_needs_quotes("a'b\n"));
  EXPECT_STREQ(gen_quote_if_needed("a \"b", true), "\"a \\\"b\"");
  EXPECT_STREQ(gen_quote_if_needed("a 'b", false), "'a 'b'");
}

TEST(Quote, UnquoteResolvesEscapes) {
  const struct {
    const char *text, *result;
  } cases[] = {{"'a\\n\"b'", "a\\n\"b"},
               {"'", ""},
               {"a\\n\"", "a\\n\""},
               {"\"ab\"cd", "ab"},
               {"\"\\\"\\'\\?\\\\\"", "\"'?\\"},
               {"\"\\a\\b\\f\\n\\r\\t\\v\"", "\a\b\f\n\r\t\v"},
               {"\"\\1018\\39\\4\"", "A8\00394"},
               {"\"\\x414\\x4g\\q\"", "A4\004gq"},
               {"\"\\377\\xFf\"", "\xFF\xFF"},
               {"\"end\\", "end\\"}};
  for (const auto& c : cases) EXPECT_STREQ(gen_unquote(c.text), c.result) << c.text;

  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(gen_unquote(gen_quote(all.c_str())).get(), all);
}

}  // namespace
