#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/safe_file.h"
#include "indgen/whole_file.h"
#include "scratch.h"

namespace {

namespace fs = std::filesystem;

TEST(Access, TellsTheErrorAndForgetsTheRememberedDirectory) {
  const Scratch scratch;
  EXPECT_EQ(V_open("/", platform::openWrite | platform::openCreate | platform::openExclusive), -1);
  EXPECT_EQ(errno, EEXIST);
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
}

TEST(SafeFile, ReportsFailures) {
  const Scratch scratch;
  const std::string absent = scratch / "no/such", file = scratch.write("f", "abc");
  EXPECT_EXIT(gen_safe_fopen(absent.c_str(), "log", "at"), testing::ExitedWithCode(1),
              "Unable to open log '.*/no/such' for output: : ");
  std::FILE* stream = gen_safe_fopen(file.c_str(), nullptr, "a+");
  EXPECT_EQ(std::ftell(stream), 3);
  char buffer[8] = "";
  testing::internal::CaptureStderr();
  EXPECT_EQ(gen_safe_fread("f", buffer, 1, 1, stream), 0);
  EXPECT_EQ(gen_safe_fclose("f", nullptr, stream), 0);
  stream = std::fopen("/dev/full", "w");
  std::fputc('x', stream);
  EXPECT_EQ(gen_safe_fclose("full", "device", stream), EOF);
  // The end of a file is no failure of the system and brings no error text.
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::StartsWith("fatal: Error reading from 'f'\n"
                                  "fatal: Error closing device 'full': : No space"));
}

TEST(SafeFile, ReadsLines) {
  const Scratch scratch;
  const std::string lines = scratch.write("lines", "one\n\ntwo\r\n" + std::string(600, 'x'));
  std::FILE* stream = std::fopen(lines.c_str(), "r");
  gen_text buffer;
  std::size_t size = 0;
  std::string read;
  while (gen_read_line(stream, buffer, size)) (read += buffer) += '|';
  EXPECT_EQ(read, "one||two|" + std::string(600, 'x') + "|");
  std::fclose(stream);
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
  for (const std::string& from : {b, scratch.path()})
    EXPECT_EQ(gen_copy_file(from.c_str(), b.c_str()), -1);
  EXPECT_EQ(gen_files_differ(a.c_str(), b.c_str()), 0);
  text[1299] = 'b';
  scratch.write("b", text);
  EXPECT_EQ(gen_files_differ(a.c_str(), b.c_str()), 1);
  EXPECT_EQ(gen_rename(c.c_str(), b.c_str()), -1);
  EXPECT_EQ(gen_rename((a + "/x").c_str(), b.c_str()), -1);
  EXPECT_TRUE(fs::exists(b)) << "a source that isn't there costs the target nothing";
  EXPECT_EQ(gen_rename(a.c_str(), b.c_str()), 0);
  EXPECT_EQ(gen_move_file(b.c_str(), c.c_str()), 0);
  EXPECT_FALSE(fs::exists(b));
  EXPECT_EQ(gen_remove_file(c.c_str()), 0);
  EXPECT_EQ(gen_remove_file(scratch.path().c_str()), -1);
}

TEST(WholeFile, IsReplacedWholeOrNotAtAll) {
  const Scratch scratch;
  const std::string file = scratch.write("file", "old"), link = scratch / "link";
  fs::create_symlink(file, link);
  const auto write = [&](const std::string& path, bool good) {
    return gen_replace_file(path.c_str(), [&](std::FILE* stream) {
      EXPECT_EQ(contents(path), "old") << "until the new one is ready";
      return std::fputs("new", stream) != EOF && good;
    });
  };
  EXPECT_EQ(write(file, false), -1);
  EXPECT_EQ(contents(file), "old");
  EXPECT_EQ(write(link, true), 0);
  EXPECT_EQ(contents(file), "old");
  EXPECT_FALSE(fs::is_symlink(link));
  EXPECT_EQ(contents(link), "new");
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch.path()), {}), 2) << "no draft is left";
}

TEST(WholeFile, ThatSomebodyElseHasPutThereIsntRemoved) {
  const Scratch scratch;
  const std::string file = scratch.write("file", "old");
  const auto isOld = [](const char* path) { return contents(path) == "old"; };
  int asked = 0;
  EXPECT_FALSE(gen_remove_file_if(file.c_str(), [&](const char* path) {
    const bool meant = isOld(path);
    if (++asked == 1) scratch.write("file", "new");
    return meant;
  }));
  EXPECT_EQ(contents(file), "new");
  EXPECT_FALSE(gen_remove_file_if(file.c_str(), isOld));
  scratch.write("file", "old");
  EXPECT_TRUE(gen_remove_file_if(file.c_str(), isOld));
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

}  // namespace
