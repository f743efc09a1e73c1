#include "indtime/pass_timing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

namespace {

std::string printed(void (*report)(std::FILE*)) {
  char text[4096] = "";
  std::FILE* stream = fmemopen(text, sizeof text, "w");
  report(stream);
  std::fclose(stream);
  return text;
}

void work(int milliseconds) {
  const std::clock_t end = std::clock() + milliseconds * (CLOCKS_PER_SEC / 1000);
  while (std::clock() < end) continue;
}

// The tables can't be emptied, so that each test fills those of a process of its own.
void inItsOwnProcess(const std::function<void()>& body) {
  EXPECT_EXIT((body(), std::fflush(stdout), std::_Exit(testing::Test::HasFailure())),
              testing::ExitedWithCode(0), "");
}

TEST(PassTimingDeathTest, TellsOwnFromNestedAndHidesNameless) {
  inItsOwnProcess([] {
    for (int bytes : {100, 50}) {
      gen_pass_start("outer");
      gen_pass_start("in");
      allocated_bytes += bytes;
      gen_pass_end("in");
      gen_pass_start("outer");
      allocated_bytes += 1000;
      gen_pass_end(nullptr);
      allocated_bytes += 25;
      gen_pass_end("outer");
    }
    EXPECT_EQ(printed(gen_pass_report_memory),
              "\nPass_memory_res  Mem______  Pct__  Mem_w/_subpasses  Entries\n"
              "Memory in in:          150    75%               150        2\n"
              "Memory in outer:        50    25%               200        2\n"
              "Total surveyed memory allocation: 200\n");
  });
}

TEST(PassTimingDeathTest, Time) {
  inItsOwnProcess([] {
    gen_pass_start("a");
    work(10);
    gen_pass_start("bb");
    work(60);
    gen_pass_end("bb");
    gen_pass_end("a");
    EXPECT_THAT(
        printed(gen_pass_report_time),
        testing::MatchesRegex("Pass_timing_ Time____  Pct__  Time_w/_subpasses  Entries\n"
                              "Time in bb:    0.0[67].s    8.%             0.0[67].s        1\n"
                              "Time in a:     0.01.s    1.%             0.0[78].s        1\n"
                              "Total surveyed time:   0.0[78].s\n"));
  });
}

TEST(PassTimingDeathTest, WrongUseFails) {
  const auto fails = [](const std::string& expression, const std::function<void()>& body) {
    EXPECT_EXIT(body(), testing::ExitedWithCode(1),
                "^Assertion \\(" + expression + "\\) failed in '...src.shared.indtime' on line");
  };
  fails("i < max_max_passes", [] {
    static std::string names[31];
    for (int i = 0; i < 31; ++i) gen_pass_start((names[i] = std::to_string(i)).c_str());
  });
  fails("top != NULL", [] { gen_pass_end("a"); });
  fails("\\(pass == NULL\\) == \\(top->name == NULL\\)",
        [] { gen_pass_start("a"), gen_pass_end(nullptr); });
  fails("!strcmp\\(top->name, pass\\)", [] { gen_pass_start("a"), gen_pass_end("b"); });
  fails("pass_stack == NULL", [] { gen_pass_start("a"), gen_pass_report_time(stdout); });
}

}  // namespace
