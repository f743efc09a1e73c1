#include "stp_transport/log/stp_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "libcxxutil/ut_clock.h"

namespace {

struct RecordingLog : STPLog {
  using STPLog::write;
  void write(const char* bytes, std::size_t length) override {
    text.append(bytes, length);
    ++writes;
  }
  std::string text;
  int writes = 0;
};

TEST(Log, FormatsIntoOneWrite) {
  RecordingLog log;
  log.write(static_cast<const char*>(nullptr));
  EXPECT_EQ(log.writes, 0);
  log.printf("%s=%d;", "a", 5);
  EXPECT_EQ(log.text, "a=5;");
  log.printf("%s", "");
  EXPECT_EQ(log.writes, 2);
}

TEST(Log, StampsLinesAndSharesItsStream) {
  std::FILE* file = std::tmpfile();
  TimestampedSTPFileLog log(file, true), nowhere(nullptr, true);
  nowhere.begin(nullptr, 1);
  const std::int64_t before = systemTimeMilliseconds();
  log.begin(nullptr, 1);
  std::fputs("RECV: ", file);
  log.write("x\n");
  log.end(nullptr, 1);
  char line[100] = "";
  std::rewind(file);
  EXPECT_GT(std::fread(line, 1, sizeof line - 1, file), 0U);
  EXPECT_THAT(line, testing::ContainsRegex("^[0-9]+\\.[0-9][0-9][0-9]: RECV: x\n$"));
  EXPECT_NEAR(std::stod(line), static_cast<double>(before) / 1000, 60);
}

}  // namespace
