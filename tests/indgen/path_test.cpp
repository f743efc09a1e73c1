#include "indgen/path.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "indgen/text.h"

namespace {

// Cuts a table into its words; `none` is a null path and `''` an empty one.
std::vector<const char*> cells(std::string& table) {
  std::vector<const char*> result;
  char* rest = table.data();
  for (char* word; rest && (word = gen_tokenize(rest, " \n", &rest));) {
    const std::string_view text = word;
    result.push_back(text == "none" ? nullptr : text == "''" ? "" : word);
  }
  return result;
}

std::string cleaned(const char* path, bool host_form = true) {
  gen_text text = gen_strdup(path);
  gen_clean_path(text.data(), host_form);
  return text.get();
}

TEST(Path, CleaningTakesOutWhatLeadsNowhere) {
  std::string table = R"(
    a/b a/b   a\b a/b   a//b/./c/../d/ a/b/d/   '' ''   / /   // /   ///x//y /x/y   ./a a   a/. a
    a/.. ''   a/../ ''   /a/.. /   .. ..   ../../a/.. ../..   a/../../b ../b   a/b/c/../../d a/d
    a/b/../.. ''   a/b/.. a   a/b/../ a/   .h/..x/x.. .h/..x/x..
    c:a/../b C:b   c:\..\x C:/../x   //server/share/../x //server/x)";
  const auto rows = cells(table);
  for (std::size_t i = 0; i < rows.size(); i += 2) {
    EXPECT_EQ(cleaned(rows[i]), rows[i + 1]) << rows[i];
    EXPECT_EQ(cleaned(rows[i + 1]), rows[i + 1]) << "cleaning again";
  }
  EXPECT_EQ(cleaned("c:\\a/./b", false), "c:\\a/b");
  EXPECT_EQ(cleaned("//server/..//x", false), "/x");
}

TEST(Path, Joins) {
  // Directory, name, and what gen_join and gen_join_relative make of them.
  std::string table = R"(
    c: x C:x C:x   '' x x x   none x x x   a ~/b a/~/b ~/b   a ../.. .. ..   a .. . .
    a /b/../c /b/../c /b/../c   a d:x d:x d:x   a/ b a/b a/b   a\ b a/b a/b   a '' a/ a
    / b /b /b   a/./b none a/b/ a/./b)";
  const auto rows = cells(table);
  for (std::size_t i = 0; i < rows.size(); i += 4) {
    EXPECT_STREQ(gen_join(rows[i], rows[i + 1]), rows[i + 2]);
    EXPECT_STREQ(gen_join_relative(rows[i], rows[i + 1]), rows[i + 3]);
  }
}

TEST(Path, CutsNames) {
  // Path, directory and base name.
  std::string table = R"(
    x none x   /x / x   c:x c: x   c:\x c:\ x   a/b a b   a/b\c a/b c   a/ a ''   '' none '')";
  const auto rows = cells(table);
  for (std::size_t i = 0; i < rows.size(); i += 3) {
    EXPECT_STREQ(gen_directory_name(rows[i]), rows[i + 1]) << rows[i];
    EXPECT_STREQ(gen_base_name(rows[i]), rows[i + 2]) << rows[i];
  }
  EXPECT_STREQ(gen_first_component("//a\\b"), "a");
  EXPECT_STREQ(gen_rest_components("//a\\b"), "\\b");
  EXPECT_STREQ(gen_first_component("c:x/y"), "c:");
}

TEST(Path, Extensions) {
  std::string table = R"(
    x.tar.gz gz   dir.d/x none   x. ''   x none   libx.so.1.2 so   lib/libx.sa.10.22 sa   x.so.1.2 so
    .so.1.2 2   libx.so.1 1   libx.dll.1.2 2   libx.so.a.2 2   .profile profile)";
  const auto rows = cells(table);
  for (std::size_t i = 0; i < rows.size(); i += 2)
    EXPECT_STREQ(gen_extension(rows[i]), rows[i + 1]) << rows[i];
  EXPECT_TRUE(gen_has_extension("A.KVS", ".kvs") && gen_has_extension("a.b", nullptr));
  EXPECT_FALSE(gen_has_extension("a.d/b", nullptr) || gen_has_extension("a", ""));
  EXPECT_STREQ(gen_replace_extension("d.x/tool.a.b", ".cfg"), "d.x/tool.a.cfg");
  EXPECT_STREQ(gen_replace_extension("d.x/tool", "cfg"), "d.x/tool.cfg");
  EXPECT_STREQ(gen_replace_extension("d.x/tool.b", nullptr), "d.x/tool");
  for (const char* stem : {"x", "x."})
    for (const char* added : {"y", ".y"}) EXPECT_STREQ(gen_add_extension(stem, added), "x.y");
}

}  // namespace
