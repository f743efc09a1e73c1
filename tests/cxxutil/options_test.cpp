#include "libcxxutil/ut_options_database.h"

#include "cxxutil/reading.h"

namespace {

using Settings = ut_options_database::Settings;

struct OptionsCase {
  const char* text;
  std::string tree;          // as it is written back
  std::string failure = "";  // line and message of the parse error
};

class OptionsTest : public testing::Test {
 protected:
  std::string written(const ut_options_database& options) {
    EXPECT_TRUE(options.write_to_file((scratch / "written").c_str()));
    return contents(scratch / "written");
  }

  // Reads each text into a database of its own, and what was written of it into another.
  void check(std::initializer_list<OptionsCase> cases, const Settings& settings = {}) {
    for (const OptionsCase& test : cases) {
      SCOPED_TRACE(test.text);
      ut_options_database options("test"), again("again");
      options.settings() = again.settings() = settings;
      const std::string file = scratch.write("main", test.text);
      bool read = false;
      const std::string messages = reported(scratch, [&] { read = options.read(file.c_str()); });
      EXPECT_EQ(messages,
                test.failure.empty() ? "" : "error: \"main\", line " + test.failure + "\n");
      EXPECT_EQ(read, test.failure.empty());
      EXPECT_EQ(options.had_errors(), !read);
      EXPECT_EQ(written(options), test.tree);
      if (settings.raw_values) continue;
      EXPECT_TRUE(again.read((scratch / "written").c_str()));
      EXPECT_EQ(written(again), test.tree);
    }
  }

  Scratch scratch;
};

TEST_F(OptionsTest, StatementsBuildTheTree) {
  check({
      {"a.b.c = 1 d = 2\ne = 3;", "e = 3\na {\n    b {\n        c = 1\n        d = 2\n    }\n}\n"},
      {"{ a = 1 } { b = 2 }", " {\n    a = 1\n}\n {\n    b = 2\n}\n"},
      {"a.b { c = 1 }\nd = 2", "d = 2\na {\n    b {\n        c = 1\n    }\n}\n"},
      {"o { a.b { c.d = 1 } e = 2 } f = 3",
       "f = 3\no {\n    e = 2\n    a {\n        b {\n            c {\n                d = 1\n"
       "            }\n        }\n    }\n}\n"},
      {"x = 1 x = \"t\" y = 1 y += \"t\" y += \"u\"", "x = \"t\"\ny = \"tu\"\n"},
      {"\"a b\\\"\" = 1 \"c\" { }", "\"a b\\\"\" = 1\nc {\n}\n"},
      {"%define N n/a\n\"${N}\".x = 1", "\"n/a\" {\n    x = 1\n}\n"},
      {"x = \"\\x41\\101\\n\\$y $${ \\\\\"", "x = \"AA\\n\\$y $\\${ \\\\\"\n"},
      {"Arguments { { Arg = \"a\" } { Arg = \"b\" } }",
       "Arguments {\n     {\n        Arg = \"a\"\n    }\n     {\n        Arg = \"b\"\n    }\n}\n"},
  });
}

TEST_F(OptionsTest, ValuesFollowTheirFirstCharacters) {
  check({
      {"a = yes b = TRUE c = onward d = none e = Off f = FALSE g = yesterday",
       "a = 1\nb = 1\nc = 1\nd = 0\ne = 0\nf = 0\ng = 1\n"},
      {"a = 0x10 b = 010 c = - 7 d = 10k e = 4294967295 f = 5/6",
       "a = 16\nb = 8\nc = -7\nd = 10\ne = -1\nf = 5\n"},
      {"x =\n\n1", "x = 1\n"},
      {"x = { \"a\"\n, \"b\\\"\"\n} y += { \"c\" } y += { \"d\" }",
       "x = { \"a\", \"b\\\"\" }\ny = { \"c\", \"d\" }\n"},
      {"x = \"open", "x = \"open\"\n"},
  });
  Settings all;
  all.size_suffixes = all.integer_lists = true;
  check({{"a = 10k b = -1M c = { 1, -2, 3K } d += 1 d += yes e = { \"s\" }",
          "a = 10240\nb = -1048576\nc = { 1, -2, 3072 }\nd = { 1, 1 }\ne = { \"s\" }\n"}},
        all);
  Settings raw;
  raw.raw_values = true;
  check({{"a = yes b = { \nc.d = \"x y\" d += z\nc { { e = 1k } }",
          "a=\"yes\"\nb=\"{\"\nc.d=\"x yz\"\nc..e=\"1k\"\n"}},
        raw);
}

TEST_F(OptionsTest, TheFirstSyntaxErrorEndsTheReading) {
  check({
      {"ok = 1\nx = { }", "ok = 1\n", "2: parse error: "},
      {"x = -\n5", "", "1: parse error: unexpected end of line"},
      {"x = +5", "", "1: parse error: "},
      {"x += 1", "", "1: parse error: "},
      {"\"\" = 1", "", "1: parse error: empty attribute name"},
      {"a = 1\nb = { \"x\"\n", "a = 1\nb = { \"x\" }\n", "2: parse error: expected '}'"},
      {"%define E\n${E}=1", "", "1: parse error: empty attribute name"},
  });
}

// Each golden/NAME.cfg with what is said about it in golden/NAME.expected.
TEST_F(OptionsTest, SaysWhatIsWrongInBadFiles) {
  namespace fs = std::filesystem;
  const fs::path golden = fs::path(__FILE__).parent_path() / "golden";
  fs::copy(golden, scratch.path(), fs::copy_options::recursive);
  for (const auto& entry : fs::directory_iterator(golden)) {
    fs::path file = entry.path();
    if (file.extension() != ".cfg") continue;
    ut_options_database options("golden");
    const std::string copy = scratch / file.filename().string();
    bool read = false;
    std::string said = reported(scratch, [&] { read = options.read(copy.c_str()); });
    said += read ? "read\n" : "refused\n";
    EXPECT_EQ(said, contents(file.replace_extension(".expected").string())) << file;
  }
}

TEST_F(OptionsTest, ReadsIntoAnyNodeAndRemembersFiles) {
  ut_options_database options("test");
  EXPECT_FALSE(options.read((scratch / "missing").c_str()));
  EXPECT_TRUE(options.open_failed());
  EXPECT_FALSE(options.parse_failed());
  scratch.write("inc", "b { c = 1 }");
  const std::string file = scratch.write("main", "%include \"inc\"\nd = 2");
  ut_attribute_list* node = options.add_child("outer")->add_child("inner");
  EXPECT_TRUE(options.read(file.c_str(), *node));
  EXPECT_EQ(written(options),
            "outer {\n    inner {\n        d = 2\n        b {\n            c = 1\n        }\n"
            "    }\n}\n");
  EXPECT_EQ(options.files_read(), (std::vector<std::string>{file, scratch / "inc"}));
}

TEST_F(OptionsTest, MacrosComeFromTheProgramToo) {
  ut_options_database options("test"), other("other");
  EXPECT_STREQ(options.macro_value("__VESTREL_HOST__", true), "win32");
  options.define_macro_text("A=b=c");
  options.define_macro_text("BARE");
  options.define_macro_int("N", -5);
  other.add_str("FROM", "node");
  options.define_macros_from(other);
  other.copy_macros_from(options);
  const auto value = [&](const char* name) { return std::string(other.macro_value(name, false)); };
  EXPECT_EQ(value("A") + value("BARE") + value("N") + value("FROM"), "b=c-5node");
  EXPECT_EQ(reported(scratch, [&] { EXPECT_EQ(options.macro_value("X", true), nullptr); }),
            "error: macro not defined(X) ...\n");
  EXPECT_TRUE(options.read(scratch.write("main", "%if N == -5\n\"$A\" = 1\n%endif").c_str()));
  EXPECT_EQ(options.int32_value("b=c"), 1);
}

TEST_F(OptionsTest, CallbacksBelongToTheDatabaseIfItIsTold) {
  static int destroyed = 0;
  ut_preprocessor_callbacks callbacks;
  callbacks.destroy = [](void*) { ++destroyed; };
  callbacks.include_filter = [](void*, const char*, int depth) { return depth > 0; };
  for (const bool owns : {false, true}) {
    ut_options_database options("test", &callbacks, owns);
    EXPECT_TRUE(options.read((scratch / "missing").c_str()));
    EXPECT_FALSE(options.had_errors());
  }
  EXPECT_EQ(destroyed, 1);
}

TEST_F(OptionsTest, WritingTellsOfItsFailures) {
  ut_options_database options("test");
  options.add_str("a", std::string(100000, 'x').c_str());
  EXPECT_FALSE(options.write_to_file((scratch / "no/file").c_str()));
  EXPECT_EQ(reported(scratch, [&] { EXPECT_FALSE(options.write_to_file("/dev/full")); }),
            "error: failed when writing /dev/full\n");
}

}  // namespace
