#include "libcxxutil/ut_token_stream.h"

#include <cstring>
#include <map>

#include "cxxutil/reading.h"
#include "indgen/text.h"

namespace {

using testing::ExitedWithCode;

struct TokenCase {
  const char* text;
  std::string tokens;  // joined by `|`, with a line end in front of the first of each line
  std::string messages = "";
};

class TokenStreamTest : public testing::Test {
 public:
  // The tokens of a file named "main".
  std::string tokens(const std::string& text, bool filename_tokens = true) {
    ut_token_stream stream(false, filename_tokens, &parent, &callbacks);
    std::string result;
    EXPECT_TRUE(stream.open(scratch.write("main", text).c_str()));
    for (bool newLine = true; !stream.at_end_of_input(); newLine = stream.at_end_of_line()) {
      if (!result.empty()) result += newLine ? '\n' : '|';
      result += stream.next_token();
    }
    opened = stream.opened_files();
    return result;
  }

  void check(std::initializer_list<TokenCase> cases) {
    for (const TokenCase& test : cases) {
      std::string result;
      EXPECT_EQ(reported(scratch, [&] { result = tokens(test.text); }), test.messages) << test.text;
      EXPECT_EQ(result, test.tokens) << test.text;
    }
  }

  Scratch scratch;
  ut_macro_table parent;
  ut_preprocessor_callbacks callbacks;
  std::vector<std::string> opened;
};

TEST_F(TokenStreamTest, CutsLinesIntoTokens) {
  check({
      {"a.b=10k # c\n\n{x}", "a|.|b|=|10k\n{|x|}"},
      {"a/b+=c&&d||e++f--g%=h*= /=j^=k&=l-=m|=n==",
       "a/b|+=|c|&&|d||||e|++|f|--|g|%=|h|*=|/=|j|^=|k|&=|l|-=|m||=|n|=|="},
      {"a \\\nb\r\nc\\\r\nd\\", "a|b\ncd"},
      {" \"a # \\\" $\" b", "\"a # \\\" $\"|b"},
      {"\"open # \\", "\"open # "},
      {"\"joi\\\nned\"", "\"joined\""},
      {"a \\\\\n\nb", "a|\\\nb"},
      {"  %define X 1", "%|define|X|1"},
  });
  EXPECT_EQ(tokens("0x1Fg 08 0x a1", false), "0x1F|g|0|8|0|x|a1");
}

TEST_F(TokenStreamTest, ExpandsMacrosInAndOutOfStrings) {
  parent.set("P", "parent");
  check({
      {"%define A B = 2 # no\n${A} \"${A}\"\n%define B b\n\"$A.$P ${P}s\"",
       "B|=|2|\"B = 2\"\n\"b = 2.parent parents\""},
      {"%define Q 'a\"b' # c\n\"$Q\"", "\"\\'a\\\"b\\'\""},
      {"%define A x #y\n%define B x \"#\" y\n${A}z ${B}z", "x|z|x|\"#\"|y|z"},
      {"\"$X $5 ${\" $ ${", "\"$X $5 ${\"|$|$|{"},
      {"%define T a\tb\n\"$T\"", "\"a\\tb\""},
      {"\"${X}\" ${Y}", "\"X\"|Y",
       "error: macro not defined(X) ...\nerror: macro not defined(Y) ...\n"},
      {"%define P mine\n%undef P\n${P} ${__DIR__}", "parent|/|" + scratch.path().substr(1)},
  });
}

TEST_F(TokenStreamTest, CallbacksAddMacrosAndFilterIncludes) {
  callbacks.context = this;
  callbacks.has_macro = [](void*, const char* name) { return *name == 'c'; };
  callbacks.macro_value = [](void*, const char* name) { return *name == 'c' ? "12x" : nullptr; };
  callbacks.include_filter = [](void* context, const char* file, int depth) {
    auto& test = *static_cast<TokenStreamTest*>(context);
    return file != test.scratch / "no" && depth == 1;
  };
  scratch.write("yes", "inner");
  check({{"%include \"no\"\n%include \"yes\"\n${call} \"$dull\"\n%if env(c) == 12\na\n%endif",
          "inner\n12x|\"$dull\"\na"}});
  EXPECT_EQ(opened, (std::vector<std::string>{scratch / "main", scratch / "yes"}));
}

TEST_F(TokenStreamTest, ConditionsHideLines) {
  check({
      {"%if 0\na\n%if 1\nb\n%else\nc\n%endif\n%elif 1\nd\n%elsif 1\ne\n%else\nf\n%endif\ng",
       "d\ng"},
      {"%ifdef X\na\n%else\nb\n%endif\n% define X\n%ifdef  X \nc\n%endif", "b\nc"},
      {"%if 0\n%if MISSING\n%endif\n%define X 1\n%error no\n%include \"missing\"\n%endif\n\"$X\"",
       "\"$X\""},
      {"%if 0\n%else\na\n%else\nb\n%endif", "a\nb", "error: unexpected directive: else\n"},
      {"%info ready \n%echo\n%warning w\n%error e", "",
       "info:  ready\ninfo: \nwarning:  w\nerror:  e\n"},
  });
}

TEST_F(TokenStreamTest, IncludesComeFromTheFilesOwnDirectory) {
  std::filesystem::create_directory(scratch / "sub");
  scratch.write("sub/b", "%include \"c\"\n%if 0\n\"$__DIR__\"");
  scratch.write("sub/c", "c\n%if 1\nd");
  scratch.write("c", "outer");
  check({
      {"%include \"sub/b\"\nhidden\n%endif\n%endif\n%include \"${__DIR__}/c\"", "c\nd\nouter"},
      {"%include \"sub\"\nb", "",
       "error: could not open \"sub\" which was referenced at \"main\":2\n"},
  });
}

TEST_F(TokenStreamTest, MessagesNameTheFirstLineOfADelivery) {
  ut_token_stream stream(false, true, nullptr, nullptr);
  EXPECT_STREQ(stream.position(), "");
  const std::string main = scratch.write("m", "a\\\n b\n\n%if 1\n%endif\nc\n%include \"n\"\nd\n\n");
  scratch.write("n", "e");
  EXPECT_FALSE(stream.open(scratch.path().c_str()));
  ut_token_stream used(false, true, nullptr, nullptr);
  EXPECT_TRUE(used.open(main.c_str()));
  EXPECT_FALSE(used.open(main.c_str()));
  std::string places;
  while (const char* token = used.next_token())
    places += std::string(token) + std::strrchr(used.position(), '/') + "\n";
  EXPECT_EQ(places, "a/m\", line 1\nb/m\", line 1\nc/m\", line 4\ne/n\", line 1\nd/m\", line 8\n");
  EXPECT_STREQ(std::strrchr(used.position(), '/'), "/m\", line 9");
}

TEST_F(TokenStreamTest, TokensStayWhileTheirLineIsRead) {
  const std::string big(100000, 'b');
  const std::string file =
      scratch.write("m", "%define B " + big + "\nfirst \"$B\" ${B} \"\\x41\\\"\" ,x");
  ut_token_stream stream(false, true, nullptr, nullptr);
  ASSERT_TRUE(stream.open(file.c_str()));
  char* const first = stream.next_token();
  char* const text = stream.next_token();
  EXPECT_EQ(stream.next_token(), big);
  EXPECT_EQ(text, "\"" + big + "\"");
  EXPECT_STREQ(first, "first");
  EXPECT_EQ(stream.unescape_string(text), nullptr);
  EXPECT_STREQ(stream.unescape_string(stream.next_token()), "A\"");
  EXPECT_TRUE(stream.accept(","));
}

TEST_F(TokenStreamTest, FatalErrorsEndTheProcess) {
  program_name = gen_strdup("tool");
  const std::string file = scratch.write("m", "%define A ${A}\n${A}");
  EXPECT_EXIT(
      {
        ut_token_stream stream(true, true, nullptr, nullptr);
        stream.open(file.c_str());
        stream.next_token();
      },
      ExitedWithCode(1), "^\".*m\", line 1: error: macro recursion detected for: \"A\"\n$");
  program_name = gen_text();
}

TEST(MacroTable, KeepsWhatATableKeeps) {
  ut_macro_table table;
  std::map<std::string, std::string> model;
  std::uint32_t seed = 1;
  for (int i = 0; i < 20000; ++i) {
    seed = seed * 1664525 + 1013904223;
    const std::string name = std::to_string((seed >> 16) % 200), value = std::to_string(i);
    if (seed % 3 == 0) table.set(name.c_str(), value.c_str()), model[name] = value;
    ASSERT_TRUE(seed % 3 != 1 || table.remove(name.c_str()) == (model.erase(name) == 1));
    const ut_string* found = table.find(name.c_str());
    ASSERT_EQ(found ? found->c_str() : "none", model.count(name) ? model[name] : "none");
  }
  ut_macro_table other;
  other.set("own", nullptr);
  other.merge(table);
  for (const auto& [name, value] : model) EXPECT_EQ(*other.find(name.c_str()), value.c_str());
  EXPECT_FALSE(other.find("own")->is_null());
}

}  // namespace
