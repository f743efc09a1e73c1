#include "indgen/report.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "indgen/text.h"

namespace {

using testing::ExitedWithCode;

class ReportTest : public testing::Test {
 protected:
  void SetUp() override { program_name = gen_strdup("tool"); }
  void TearDown() override { program_name = gen_text(); }
};

TEST_F(ReportTest, LinesAndCounts) {
  const int total = gen_error_total, errors = gen_error_count[3], raw = gen_error_count[6];
  testing::internal::CaptureStderr();
  errno = ENOENT;
  gen_errno_report("open\n");
  EXPECT_EQ(errno, 0);
  gen_errno_report("open");
  gen_error("bad %s", "thing");
  gen_warning("w\n");
  gen_raw("x");
  program_name = gen_strdup("");
  gen_info("i");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string("tool: fatal: open\n: ") + std::strerror(ENOENT) +
                "\ntool: fatal: open\ntool: error: bad thing\ntool: warning: w\nx\ninfo: i\n");
  EXPECT_EQ(gen_error_count[3] - errors, 1);
  EXPECT_EQ(gen_error_count[6] - raw, 1);
  EXPECT_EQ(gen_error_total - total, 3);
}

TEST_F(ReportTest, EndsOfTheProcess) {
  EXPECT_EXIT(gen_exit_message(0, "done"), ExitedWithCode(0), "^tool: done\n$");
  EXPECT_EXIT(gen_exit_message(9, "no"), ExitedWithCode(9), "^tool: fatal: no\n$");
  EXPECT_EXIT((errno = ENOENT, gen_fatal_errno(4, "f")), ExitedWithCode(4), "^tool: fatal: f: No");
  const auto exitFromCleanUp = [] {
    std::atexit([] { std::fputs("late clean-up", stderr); });
    std::atexit([] { gen_exit(7); });
    gen_exit(3);
  };
  EXPECT_EXIT(exitFromCleanUp(), ExitedWithCode(7), "^$");
  gen_assert(true, "e", "f", 1);
  EXPECT_EXIT(gen_assert(false, "a < b", "f.cpp", 12, 5), ExitedWithCode(1),
              "^Assertion \\(a < b\\) \\[5\\] failed in 'f.cpp' on line 12 in tool\n$");
}

TEST(Memory, WrappersTellNoneFromReal) {
  EXPECT_EQ(gen_alloc(0, 8), nullptr);
  auto* block = static_cast<char*>(gen_realloc(nullptr, 64));
  EXPECT_EQ(std::string(block, 64), std::string(64, '\0'));
  EXPECT_EQ(gen_realloc(block, 0), nullptr);
}

#ifndef HUBLINK_SANITIZE  // its allocator ends the process with a report of its own
TEST_F(ReportTest, ExhaustedMemoryEndsTheProcess) {
  volatile std::size_t huge = SIZE_MAX / 4;
  const char* const line = "^tool: fatal: Out of memory\n$";
  EXPECT_EXIT(gen_alloc(huge, 8), ExitedWithCode(3), line);
  EXPECT_EXIT((gen_install_new_handler(), (void)::operator new(huge)), ExitedWithCode(3), line);
}
#endif

}  // namespace
