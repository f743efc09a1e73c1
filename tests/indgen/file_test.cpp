#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/safe_file.h"
#include "indgen/whole_file.h"
#include "scratch.h"

namespace {

namespace fs = std::filesystem;

TEST(Access, ModesFollowTheCommitRule) {
  const char* rows[][3] = {
      {"r", "r", "r"}, {"wt", "wtc", "wt"}, {"wn", "wn", "w"}, {"atc", "atc", "at"}};
  for (const auto& [mode, ruled, library] : rows) {
    EXPECT_STREQ(V_open_mode(mode), ruled);
    EXPECT_STREQ(V_library_mode(V_open_mode(mode)), library);
  }
}

TEST(Access, FailuresAreLeftInErrno) {
  const Scratch scratch;
  const std::string path = scratch / "x";
  constexpr unsigned flags = platform::openWrite | platform::openCreate | platform::openExclusive;
  EXPECT_EQ(platform::writeDescriptor(V_open(path.c_str(), flags, 0600), "abcd", 4), 4);
  EXPECT_EQ(V_open(path.c_str(), flags), -1);
  EXPECT_EQ(errno, EEXIST);
  platform::FileStatus status;
  EXPECT_EQ(V_stat(path.c_str(), &status), 0);
  EXPECT_TRUE(status.size == 4 && status.mode == 0600);
  EXPECT_EQ(V_unlink(path.c_str()), 0);
  EXPECT_EQ(V_access(path.c_str(), 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Access, ChangingDirectoryForgetsTheRememberedOne) {
  const Scratch scratch;
  const std::string before = gen_getcwd();
  fs::current_path(scratch.path());
  EXPECT_EQ(gen_getcwd(), before);
  EXPECT_EQ(V_chdir(""), -1);
  EXPECT_EQ(gen_getcwd(), fs::current_path());
  EXPECT_EQ(V_chdir(before.c_str()), 0);
  EXPECT_EQ(gen_getcwd(), before);
}

TEST(Find, FullNames) {
  const std::string here = gen_getcwd();
  EXPECT_EQ(gen_full_path("a/../b/").get(), here + "/b/");
  EXPECT_STREQ(gen_full_path("//a/../../x"), "/x");
  EXPECT_STREQ(gen_full_path("/.."), "/");
  EXPECT_EQ(gen_full_path("~x").get(), here + "/~x");
  EXPECT_STREQ(gen_absolute_path(""), "");
  EXPECT_STREQ(gen_absolute_path_in("/d", "../x"), "/x");
  EXPECT_TRUE(gen_same_path("/Tmp/a/", "/tmp//b/../A"));
}

TEST(Find, ProgramsAlongThePath) {
  const Scratch scratch;
  fs::create_directories(scratch / "one/tool");
  fs::create_directories(scratch / "two");
  const std::string tool = scratch.write("two/tool", "");
  const std::string before = gen_getenv("PATH", "");
  ASSERT_TRUE(gen_setenv("PATH", (scratch / "one:" + scratch.path() + "/one/../two").c_str()));
  EXPECT_EQ(gen_find_program("tool", false, false).get(), tool);
  EXPECT_STREQ(gen_find_program("absent", true, false), nullptr);
  EXPECT_STREQ(gen_find_program((scratch / "one/tool").c_str(), false, false), nullptr);
  gen_setenv("PATH", before.c_str());
  EXPECT_FALSE(gen_is_mvfs(scratch.path().c_str()));
}

TEST(SafeFile, ReportsFailures) {
  const Scratch scratch;
  const std::string absent = scratch / "no/such", file = scratch.write("f", "abc");
  EXPECT_EXIT(gen_safe_fopen(absent.c_str(), "log", "at"), testing::ExitedWithCode(1),
              "Unable to open log '.*/no/such' for output: : ");
  std::FILE* stream = gen_safe_fopen(file.c_str(), nullptr, "a+");
  EXPECT_EQ(std::ftell(stream), 3);
  EXPECT_EXIT(gen_safe_fseek(nullptr, stream, -1, SEEK_SET), testing::ExitedWithCode(1),
              "seek failed to -1 in file: ");
  char buffer[8] = "";
  testing::internal::CaptureStderr();
  EXPECT_EQ(gen_safe_fread("f", nullptr, 1, 1, stream), -1);
  EXPECT_EQ(gen_safe_fread("f", buffer, 1, 1, stream), 0);
  EXPECT_EQ(gen_safe_fread_alloc(nullptr, stream, nullptr, 4), nullptr);
  EXPECT_EQ(gen_safe_fclose("f", nullptr, stream), 0);
  stream = std::fopen("/dev/full", "w");
  const std::string big(100000, 'x');
  EXPECT_LT(gen_safe_fwrite("full", big.data(), 1, big.size(), stream), 100000);
  std::fputc('x', stream);
  EXPECT_EQ(gen_safe_fclose("full", "device", stream), EOF);
  const std::string said = testing::internal::GetCapturedStderr();
  // The end of a file is no failure of the system and brings no error text.
  for (const char* line :
       {"error: internal: null buffer passed to gen_safe_fread\n", "Error reading from 'f'\n",
        "Error reading from file\n", "Error writing to 'full': No space",
        "Error closing device 'full': : No space"})
    EXPECT_THAT(said, testing::HasSubstr(line));
}

TEST(SafeFile, ReadsLinesAndWords) {
  const Scratch scratch;
  const std::string lines = scratch.write("lines", "one\n\ntwo\r\n" + std::string(600, 'x'));
  std::FILE* stream = std::fopen(lines.c_str(), "r");
  gen_text buffer;
  std::size_t size = 0;
  EXPECT_STREQ(gen_read_line(stream, buffer, size), "one");
  EXPECT_STREQ(gen_read_line(stream, buffer, size), "");
  EXPECT_STREQ(gen_read_line(stream, buffer, size), "two");
  EXPECT_EQ(size, 250u);
  EXPECT_EQ(gen_read_line(stream, buffer, size), std::string(600, 'x'));
  EXPECT_EQ(gen_read_line(stream, buffer, size), nullptr);
  std::rewind(stream);
  EXPECT_STREQ(gen_read_word(stream, buffer, size), "one");
  EXPECT_STREQ(gen_read_word(stream, buffer, size), "two");
  std::fclose(stream);
  EXPECT_EQ(gen_count_lines(lines.c_str()), 4);
  EXPECT_EQ(gen_count_lines((scratch / "absent").c_str()), -1);
}

TEST(WholeFile, CopiesRenamesAndRemoves) {
  const Scratch scratch;
  std::string text(1300, 'a');
  text[700] = '\0';
  const std::string a = scratch.write("a", text), b = scratch / "b", c = scratch / "c";
  fs::permissions(a, fs::perms(0751));
  ASSERT_EQ(gen_copy_file(a.c_str(), b.c_str()), 0);
  EXPECT_EQ(contents(b), text);
  EXPECT_EQ(fs::status(b).permissions(), fs::perms(0751));
  EXPECT_EQ(gen_copy_file(a.c_str(), a.c_str()), -1);
  gen_text read;
  std::size_t size = 0;
  ASSERT_EQ(gen_read_file(a.c_str(), read, size), 0);
  EXPECT_EQ(std::string(read, size), text);
  EXPECT_EQ(gen_files_differ(a.c_str(), b.c_str()), 0);
  text[1299] = 'b';
  scratch.write("b", text);
  EXPECT_EQ(gen_files_differ(a.c_str(), b.c_str()), 1);
  EXPECT_EQ(gen_append_text(b.c_str(), "%s", "x"), 0);
  EXPECT_EQ(contents(b), text + "x");
  testing::internal::CaptureStderr();
  EXPECT_EQ(gen_files_differ(a.c_str(), c.c_str()), -1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::EndsWith("error: Could not open file: " + c + "\n"));

  EXPECT_EQ(gen_rename(c.c_str(), b.c_str()), -1);
  EXPECT_TRUE(fs::exists(b)) << "a missing source costs the target nothing";
  EXPECT_EQ(gen_rename(a.c_str(), b.c_str()), 0);
  EXPECT_EQ(gen_move_file(b.c_str(), c.c_str()), 0);
  EXPECT_FALSE(fs::exists(b));
  EXPECT_EQ(gen_file_size(c.c_str()), 1300);
  EXPECT_EQ(gen_remove_file(c.c_str()), 0);
  EXPECT_EQ(gen_remove_file(scratch.path().c_str()), -1);
  EXPECT_GT(gen_free_disk_space(a.c_str()), 0);
}

TEST(WholeFile, TouchesAndChangesModes) {
  const Scratch scratch;
  const std::string made = scratch / "made", kept = scratch.write("kept", "text");
  EXPECT_EQ(gen_touch(made.c_str()), 0);
  for (const std::string& path : {made, kept}) {
    const auto old = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(path, old);
    EXPECT_EQ(gen_touch(path.c_str()), 0);
    EXPECT_GT(fs::last_write_time(path), old + std::chrono::minutes(50));
  }
  EXPECT_EQ(contents(kept), "text");
  fs::permissions(kept, fs::perms(0664));
  EXPECT_EQ(gen_make_read_only(kept.c_str()), 0664u);
  EXPECT_EQ(gen_make_writable(kept.c_str()), 0444u);
  EXPECT_EQ(gen_make_executable(kept.c_str()), 0644u);
  EXPECT_EQ(fs::status(kept).permissions(), fs::perms(0755));
}

}  // namespace
