// Files that ask for more than they are worth.
#include <gmock/gmock.h>

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

struct Case {
  const char* name;
  std::string text;
  std::string message;  // the last line, behind the position; empty if there is none
};

void PrintTo(const Case& test, std::ostream* out) {
  *out << test.name;
}

class BoundsTest : public testing::TestWithParam<Case> {
 protected:
  Scratch scratch;
};

TEST_P(BoundsTest, EndsInTimeWithAMessage) {
  constexpr std::chrono::seconds kPatience{20};  // a second at most without sanitizers
  const std::string file = scratch.write("self", GetParam().text);
  const auto start = std::chrono::steady_clock::now();
  const std::string said = reported(scratch, [&] {
    ut_options_database options("test");
    EXPECT_EQ(options.read(file.c_str()), GetParam().message.empty());
  });
  EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience);
  const std::size_t last = said.rfind('\n', said.size() - 2);
  const std::string line = said.substr(last == std::string::npos ? 0 : last + 1);
  const std::size_t place = line.find(" error: ", line.find(", line "));
  EXPECT_EQ(line.substr(place == std::string::npos ? 0 : place + 8), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, BoundsTest,
    testing::Values(
        Case{"DeepBlocks", repeated("a{", 200000), ""},
        Case{"DeepPath", repeated("a.", 200000) + "b=1", ""},
        Case{"OpenAndClose", repeated("a.b{", 50000) + repeated("}", 50000), ""},
        Case{"TooManyBlocks", repeated("{}", 300000), "too many blocks\n"},
        Case{"ManyNames", numbered("a#=1 b#{} c=2\n", 30000), ""},
        Case{"TooManyAttributes", numbered("a#=1\n", 40000), "too many attributes\n"},
        Case{"LongList", "x={\"\"" + repeated(",\"\"", 300000) + "}", ""},
        Case{"LongAppend", repeated("x+=\"" + std::string(100, 'x') + "\"\n", 50000), ""},
        Case{"DeepConditions", repeated("%if 1\n", 100000), ""},
        Case{"UnclosedBraces", "x=\"" + repeated("${", 500000), ""},
        Case{"EmptyDoubling", numbered("%define a# a+ a+\n", 40) + "%define a40\nx=\"$a0\"", kWork},
        Case{"TokenDoubling", numbered("%define a# ${a+}${a+}\n", 60) + "%define a60 ;\n${a0}",
             kWork},
        Case{"ConditionDoubling", numbered("%define a# a+|a+\n", 60) + "%if a0\n%endif", kWork},
        Case{"LongChain", numbered("%define a# a+\n", 100000) + "x=\"$a0\"", kWork},
        Case{"ManyBlanks",
             "%define b '" + std::string(100000, ' ') + "'\n" + repeated("x=\"$b$b$b$b\"\n", 1000),
             kWork},
        Case{"LongMessages", repeated("%if ((((((((!" + std::string(1000, 'x') + "\n", 5000),
             kWork},
        Case{"WideCycle", repeated("%include \"self\"\n", 100),
             "includes are nested too deeply, giving up\n"},
        Case{"MuchInput", repeated("# " + std::string(1000, 'x') + "\n", 20000),
             "too much input, giving up\n"}),
    [](const auto& test) { return test.param.name; });

TEST_F(BoundsTest, FilesThatDoubleAndFilesWithoutEnd) {
  for (int i = 0; i < 30; ++i) {
    const std::string line = "%include \"f" + std::to_string(i + 1) + "\"\n";
    scratch.write("f" + std::to_string(i), line + line);
  }
  scratch.write("f30", "");
  ut_options_database options("test");
  const std::string refusal = "too much input, giving up\n";
  EXPECT_THAT(reported(scratch, [&] { EXPECT_FALSE(options.read((scratch / "f0").c_str())); }),
              testing::EndsWith(refusal));
  EXPECT_THAT(reported(scratch, [&] { EXPECT_FALSE(options.read("/dev/zero")); }),
              testing::EndsWith(refusal));
}

}  // namespace
