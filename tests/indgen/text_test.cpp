#include "indgen/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "indgen/number.h"
#include "indgen/quote.h"

namespace {

// A text for comparison that keeps none and empty apart.
std::string shown(const char* text) {
  return text ? std::string("=") + text : "none";
}

TEST(Text, ComparesAndFinds) {
  EXPECT_TRUE(gen_equal_nocase("aZ09[", "Az09[") && gen_equal_nocase(nullptr, nullptr));
  EXPECT_FALSE(gen_equal_nocase("[", "{"));  // apart like letters in the two cases
  EXPECT_FALSE(gen_equal_nocase("", nullptr) || gen_equal_nocase_n("ab", "abc", 3));
  EXPECT_EQ(gen_compare_nocase("\xE4", "z"), 1);
  EXPECT_EQ(gen_compare_nocase_n("abc", "ABD", 3), -1);
  EXPECT_TRUE(gen_has_prefix("ab", "ab") && gen_has_prefix_n("abX", "abc", 2));
  EXPECT_FALSE(gen_has_prefix("a", "ab") || gen_has_prefix_n("abX", "abc", 9));
  EXPECT_TRUE(gen_has_prefix_nocase_n("ABX", "abc", 2) && gen_has_suffix("abc", "bc"));
  EXPECT_FALSE(gen_has_suffix("ab", "ab"));
  const char* text = "abcABCabc";
  EXPECT_EQ(gen_find(text, "BC"), text + 4);
  EXPECT_EQ(gen_find_nocase(text, "BC"), text + 1);
  EXPECT_EQ(gen_find_last_nocase(text, "BC"), text + 7);
  EXPECT_EQ(gen_find_last(text, ""), text + 9);
  EXPECT_EQ(gen_find_last("b", "abc"), nullptr);
}

TEST(Text, CopiesJoinsAndReplaces) {
  EXPECT_EQ(shown(gen_lower("AbZ[")) + shown(gen_upper("aBz{\xE4")), "=abz[=ABZ{\xE4");
  EXPECT_EQ(shown(gen_strndup("abc", 9)) + shown(gen_strndup("abc", -1)), "=abcnone");
  EXPECT_EQ(shown(gen_concat(nullptr, nullptr)) + shown(gen_concat_char("a", 0, "b")), "==ab");
  EXPECT_STREQ(gen_concat9("1", "2", "3", nullptr, "5", "6", "7", "8", "9"), "12356789");
  gen_text text = gen_strdup("old text");
  const char* const before = text;
  gen_replace_n(text, text, 2);
  EXPECT_EQ(text.get(), before);
  gen_replace_n(text, text + 4, 3);
  EXPECT_STREQ(text, "tex");
  gen_replace(text, nullptr);
  EXPECT_EQ(text.get(), nullptr);
  const auto all = [](const char* from, const char* pattern, const char* value) {
    return shown(gen_replace_all(gen_strdup(from), pattern, value));
  };
  EXPECT_EQ(all("aXbXX", "X", "XX"), "=aXXbXXXX");
  EXPECT_EQ(all("aaa", "aa", nullptr), "=a");
  EXPECT_EQ(all("abc", "", "x"), "=abc");
  EXPECT_EQ(all(nullptr, "a", "b"), "none");
}

TEST(Number, FollowsTheRule) {
  // The value, how many characters were used, and whether it is out of range.
  const auto number = [](const char* text, int base) {
    errno = 0;
    const char* end = nullptr;
    const std::uint32_t value = gen_strtoul(text, &end, base);
    return std::to_string(value) + '/' + std::to_string(end - text) + (errno ? "! " : " ");
  };
  EXPECT_EQ(number("0x10", 0) + number("010", 0) + number("09", 0), "16/4 8/3 0/1 ");
  EXPECT_EQ(number("-", 0) + number("0x", 0) + number(" \b\v+7x", 10), "0/0 0/0 7/5 ");
  EXPECT_EQ(number("0xfF", 16) + number("zZ", 36) + number("12", 2), "255/4 1295/2 1/1 ");
  EXPECT_EQ(number("  -5", 37) + number("0x10", 10) + number("-1", 10), "0/3 0/1 4294967295/2 ");
  EXPECT_EQ(number("4294967295", 10) + number("4294967296", 10) + number("-99999999999", 0),
            "4294967295/10 4294967295/10! 4294967295/12! ");
  EXPECT_STREQ(gen_hex("\x1f\xa0", 2), "f10a");
}

TEST(Quote, QuotesEscapesAndResolvesThem) {
  EXPECT_STREQ(gen_quote("a\"b\\'\n"), "\"a\\\"b\\\\\\'\n\"");
  EXPECT_STREQ(gen_single_quote(""), "''");
  EXPECT_STREQ(gen_escape("\n\r\t\1\2\3\4'"), "\\n\\r\\t\\1\\2\\3\4\\'");
  EXPECT_TRUE(gen_needs_quotes("a\tb"));
  EXPECT_FALSE(gen_needs_quotes("a'b\n"));
  EXPECT_STREQ(gen_quote_if_needed("a \"b", true), "\"a \\\"b\"");
  EXPECT_STREQ(gen_quote_if_needed("a 'b", false), "'a 'b'");
  const auto unquoted = [](const char* text) { return gen_unquote(text).get() + std::string("|"); };
  EXPECT_EQ(unquoted("'a\\n\"b'") + unquoted("'") + unquoted("a\\n\""), "a\\n\"b||a\\n\"|");
  EXPECT_EQ(unquoted("\"ab\"cd") + unquoted("\"\\\"\\'\\?\\\\\""), "ab|\"'?\\|");
  EXPECT_EQ(unquoted("\"\\a\\b\\f\\n\\r\\t\\v\"") + unquoted("\"end\\"), "\a\b\f\n\r\t\v|end\\|");
  EXPECT_EQ(unquoted("\"\\1018\\39\\4\"") + unquoted("\"\\x414\\x4g\\q\""), "A8\00394|A4\004gq|");
  EXPECT_EQ(unquoted("\"\\377\\xFf\""), "\xFF\xFF|");
  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(gen_unquote(gen_quote(all.c_str())).get(), all);
}

}  // namespace
