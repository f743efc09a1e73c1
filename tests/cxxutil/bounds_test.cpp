// Files that ask for more than they are worth.
#include <chrono>

#include "cxxutil/reading.h"
#include "libcxxutil/ut_options_database.h"

namespace {

std::string repeated(const std::string& text, int count) {
  std::string result;
  for (int i = 0; i < count; ++i) result += text;
  return result;
}

// A text for each number, one behind the other; `#` stands for the number, `+` for the next.
std::string numbered(const std::string& text, int count) {
  std::string result;
  for (int i = 0; i < count; ++i)
    for (const char c : text)
      result += c == '#' ? std::to_string(i) : c == '+' ? std::to_string(i + 1) : std::string(1, c);
  return result;
}

const std::string kWork = "macros and messages take too much work, giving up\n";

struct BoundsCase {
  const char* name;
  std::string text;
  std::string message;  // the last line, behind the position; empty if there is none
};

TEST(Bounds, AFileEndsInTimeWithAMessage) {
  const BoundsCase cases[] = {
      {"DeepBlocks", repeated("a{", 200000), ""},
      {"DeepPath", repeated("a.", 200000) + "b=1", ""},
      {"OpenAndClose", repeated("a.b{", 50000) + repeated("}", 50000), ""},
      {"TooManyBlocks", repeated("{}", 300000), "too many blocks\n"},
      {"ManyNames", numbered("a#=1 b#{} c=2\n", 30000), ""},
      {"TooManyAttributes", numbered("a#=1\n", 40000), "too many attributes\n"},
      {"LongList", "x={\"\"" + repeated(",\"\"", 300000) + "}", ""},
      {"LongAppend", repeated("x+=\"" + std::string(100, 'x') + "\"\n", 50000), ""},
      {"DeepConditions", repeated("%if 1\n", 100000), ""},
      {"UnclosedBraces", "x=\"" + repeated("${", 500000), ""},
      {"EmptyDoubling", numbered("%define a# a+ a+\n", 40) + "%define a40\nx=\"$a0\"", kWork},
      {"TokenDoubling", numbered("%define a# ${a+}${a+}\n", 60) + "%define a60 ;\n${a0}", kWork},
      {"ConditionDoubling", numbered("%define a# a+|a+\n", 60) + "%if a0\n%endif", kWork},
      {"LongChain", numbered("%define a# a+\n", 100000) + "x=\"$a0\"", kWork},
      {"ManyBlanks",
       "%define b '" + std::string(100000, ' ') + "'\n" + repeated("x=\"$b$b$b$b\"\n", 1000),
       kWork},
      {"LongMessages", repeated("%if ((((((((!" + std::string(1000, 'x') + "\n", 5000), kWork},
      {"WideCycle", repeated("%include \"self\"\n", 100),
       "includes are nested too deeply, giving up\n"},
      {"DoublingFiles", "%include \"f0\"\n", "too much input, giving up\n"},
      {"Huge", "%include \"huge\"\n", "too much input, giving up\n"},
  };
  constexpr std::chrono::seconds kPatience{20};  // a second at most without sanitizers
  const Scratch scratch;
  scratch.write("f30", "");
  std::filesystem::resize_file(scratch.write("huge", ""), 1 << 30);
  for (int i = 0; i < 30; ++i)
    scratch.write("f" + std::to_string(i),
                  repeated("%include \"f" + std::to_string(i + 1) + "\"\n", 2));
  for (const BoundsCase& test : cases) {
    SCOPED_TRACE(test.name);
    const std::string file = scratch.write("self", test.text);
    const auto start = std::chrono::steady_clock::now();
    const std::string said = reported(scratch, [&] {
      ut_options_database options("test");
      EXPECT_EQ(options.read(file.c_str()), test.message.empty());
    });
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience);
    EXPECT_TRUE(said.ends_with(test.message)) << said.substr(0, 1000);
    EXPECT_EQ(said.empty(), test.message.empty());
  }
}

}  // namespace
