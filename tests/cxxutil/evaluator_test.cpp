#include "libcxxutil/ut_simple_integer_evaluator.h"

#include "cxxutil/reading.h"
#include "indgen/report.h"
#include "libcxxutil/simple_preprocessor.h"

namespace {

constexpr std::size_t kMostWork = 1 << 20;

struct EvaluatorCase {
  const char* expression;
  std::uint32_t value;
  std::string messages = "";
};

class EvaluatorTest : public testing::Test {
 protected:
  EvaluatorTest() {
    for (const char* text : {"zero 0", "two 2", "sum 1+2", "empty", "text A 1", "same text A 1",
                             "spaced  7 ", "loop loop", "twice twice+twice", "minus -1"})
      macros.define_macro_text(text);
  }

  void check(std::initializer_list<EvaluatorCase> cases, ut_evaluation mode = ut_evaluation::live) {
    for (const EvaluatorCase& test : cases) {
      std::uint32_t value = 0;
      const std::string messages =
          reported(scratch, [&] { value = evaluator.evaluate(test.expression, mode); });
      EXPECT_EQ(value, test.value) << test.expression;
      EXPECT_EQ(messages, test.messages) << test.expression;
    }
  }

  Scratch scratch;
  ut_work_budget budget{kMostWork};
  simple_preprocessor macros{'%', nullptr, nullptr, budget,
                             [](const char* message) { gen_error("%s", message); }};
  ut_simple_integer_evaluator evaluator{macros, budget};
};

std::string near(const std::string& text) {
  return "error: parse error: near: \"" + text + "\"\n";
}

TEST_F(EvaluatorTest, OperatorsGroupToTheRightByPrecedence) {
  check({{"10 - 3 - 2", 9}, {"1, 2", 2}, {"0x10 + 010 + 10", 34}, {"1 || 0 && 0", 1}});
  check({{"4 | 1 ^ 1 & 3", 4}, {"1 + 1 == 2", 1}, {"1 == 1 < 2", 1}, {"!zero", 1}, {"!two", 0}});
  check({{"2 <= 2 && 3 >= 4 || 1 != 1", 0}, {"1 << 33", 2}, {"-1 >> 28", 15}, {"- 2 + 3", 1}});
  check({{"99999999999", 0xFFFFFFFF}, {"0x", 0, near("0x")}, {"(1) 2", 0, near(") 2")}});
}

TEST_F(EvaluatorTest, MacrosGiveNumbersOrExpressions) {
  check({{"sum == 3", 1}, {"empty", 0}, {"spaced", 7}, {"minus", 0xFFFFFFFF}});
  check({{"missing", 0, "error: macro not defined(missing) ...\n"}});
  check({{"missing || streq(missing, a)", 0}}, ut_evaluation::skipping);
}

TEST_F(EvaluatorTest, FunctionsAskAboutMacros) {
  scratch.write("there", "");
  macros.define_macro("__DIR__", scratch.path().c_str());
  check({{"defined(empty) + defined(missing)", 1}, {"notempty(empty) || notempty(missing)", 0}});
  check({{"streq(two \"2\")", 1}, {"streq(two, \"1\", \"x\", \"2\")", 1}});
  check({{"streq(text, same)", 0}, {"env(HOME)", 0}, {"file_exists(missing)", 0}});
  check({{"streq(missing, \"\")", 0, "error: macro not defined(missing) ...\n"},
         {"other(two)", 0, "error: unknown function: other\n"},
         {"fileexists(\"${__DIR__}/there\")", 1}});
}

TEST_F(EvaluatorTest, SyntaxErrorsShowTheLastTokenTaken) {
  check({{"", 0, near("")}, {"${two}", 0, near("${two}")}, {"f(two,)", 0, near(")")}});
  check({{"1 = 1", 0, near("1 = 1")}, {"1 + (2", 1, near("")}, {"1 !", 0, near("1 !")}});
  check({{"f(a a a a a a a a a a a a a)", 0,
          "error: parse error: too many arguments\n" + near("a)")}});
}

TEST_F(EvaluatorTest, EndsWhateverItIsGiven) {
  const std::string recursion = "error: macro recursion detected for: \"loop\"\n";
  check({{"loop", 0, recursion}, {"loop + 1", 1, recursion}});
  const std::string deep = "error: parse error: expression nested too deeply\n";
  const std::string many(100000, '(');
  const std::string shown = near(many.substr(999));
  check({{many.c_str(), 0, deep + shown}});
  std::string terms = "1";
  for (int i = 0; i < 990; ++i) terms += "+1";
  check({{terms.c_str(), 991}});
  EXPECT_FALSE(budget.exhausted());
  check({{"twice", 0, "error: macro recursion detected for: \"twice\"\n"}});
  EXPECT_TRUE(budget.exhausted());
}

}  // namespace
