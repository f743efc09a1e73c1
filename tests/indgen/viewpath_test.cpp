#include "indgen/viewpath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/view_nodes.h"
#include "indgen/viewpath_locate.h"
#include "platform/process.h"
#include "scratch.h"

namespace {

namespace fs = std::filesystem;

// Two nodes, `one` with a second name for it, and the working directory in the first. Nodes are
// read once in a process, so that each view lives in one of its own.
class ViewpathTest : public testing::Test {
 protected:
  ViewpathTest() {
    for (const char* name : {"one", "two/sub/deep", "c:/a", "d:/b"})
      fs::create_directories(scratch / name);
    fs::create_directory_symlink(scratch / "one", scratch / "other");
    scratch.write("two/sub/deep/f", "lower");
    scratch.write("two/g", "lower");
    fs::permissions(scratch / "two/g", fs::perms(0440));
    fs::permissions(scratch / "two/sub", fs::perms(0750));
  }

  void inView(int mode, const std::string& nodes, const std::function<void()>& body,
              const std::string& said = "", const std::vector<const char*>& variables = {}) {
    const auto run = [&] {
      fs::current_path(scratch / "one");
      platform::setEnvironmentVariable("NVPATH", nodes.c_str());
      for (const char* name : variables) platform::setEnvironmentVariable(name, "1");
      gen_viewpathing(mode);
      body();
      const testing::TestResult& result =
          *testing::UnitTest::GetInstance()->current_test_info()->result();
      for (int i = 0; i < result.total_part_count(); ++i)
        std::fputs(result.GetTestPartResult(i).summary(), stderr);
      std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), said);
  }

  static std::string read(const char* path) {
    std::FILE* stream = V_fopen(path, "r");
    char text[32] = "";
    if (!stream || !std::fgets(text, sizeof text, stream)) return "(none)";
    std::fclose(stream);
    return text;
  }
  static void write(const char* path, const char* mode) {
    std::FILE* stream = V_fopen(path, mode);
    ASSERT_TRUE(stream && std::fputc('+', stream) == '+' && std::fclose(stream) == 0) << path;
  }

  Scratch scratch;
  const std::string both = scratch / "one:" + scratch.path() + "/two";
};
using ViewpathDeathTest = ViewpathTest;

TEST_F(ViewpathDeathTest, ModesAndSwitches) {
  inView(
      0, both,
      [&] {
        EXPECT_FALSE(gen_the_view.nodes_read);
        errno = EDOM;
        gen_viewpathing(2);
        EXPECT_EQ(errno, EDOM);
        platform::setEnvironmentVariable("NVPATH", (scratch / "two").c_str());
        gen_viewpathing(1);
        EXPECT_TRUE(gen_viewpath_active() && viewpath_slow);
        EXPECT_EQ(gen_the_view.root.get(), scratch / "one");
        gen_viewpathing(0);
        EXPECT_EQ(read("g"), "(none)");
      },
      "^$");
  const auto isOff = [] { EXPECT_FALSE(gen_viewpath_active()); };
  inView(1, both, isOff, "mode \n\tbecause.*\\(KVX_VP_OFF\\) is set.\n.*support is OFF.",
         {"KVX_VP_OFF", "KVX_VP_DEBUG"});
  inView(2, both, [] { EXPECT_TRUE(gen_viewpath_active()); }, "FAST.*ON \\(SLOW\\)",
         {"KVX_VP_SLOW", "KVX_VP_DEBUG"});
  inView(3, both, isOff, "error: Illegal viewpath option passed to gen_viewpathing");
  inView(2, "", isOff, "^$");
}

TEST_F(ViewpathDeathTest, Nodes) {
  inView(
      1, "../c:/a;../no/such:../d:/b",
      [&] { EXPECT_EQ(gen_the_view.node_count, 0) << "the drive is at the start of an item"; },
      "Cannot resolve vpath node '../no/such', error near '/.*/no'");
  inView(0, "c:/a;d:/b", [&] {
    fs::current_path(scratch.path());
    gen_viewpathing(1);
    EXPECT_EQ(gen_the_view.node_count, 2);
    EXPECT_EQ(gen_the_view.nodes[1].get(), scratch / "d:/b");
  });
  std::string many = scratch / "other";
  for (int i = 0; i < 128; ++i) many += ":" + scratch.path();
  inView(1, many,
         [&] {
           EXPECT_EQ(gen_the_view.node_count, 128);
           EXPECT_STREQ(V_relative_path((scratch / "other/x").c_str()), "x");
           EXPECT_STREQ(V_relative_path("a//../"), ".");
           EXPECT_STREQ(V_relative_path((scratch / "one2").c_str()), nullptr);
         },
         "node 1: .*/one\n.*Using alternate root: .*/other\n", {"KVX_VP_DEBUG"});
  inView(1, many, [&] { EXPECT_FALSE(V_relative_path((scratch / "other/x").c_str())); },
         "Ignoring alternate root", {"KVX_VP_DEBUG", "KVX_VP_XSW"});
}

TEST_F(ViewpathDeathTest, FilesAreFoundAndBroughtUp) {
  inView(1, both, [&] {
    EXPECT_EQ(read("sub/deep/f"), "lower");
    EXPECT_EQ(read("^/g"), "lower");
    EXPECT_EQ(V_access("g", platform::accessWrite), 0);
    EXPECT_EQ(V_access("sub/no", platform::accessWrite), -1);
    EXPECT_EQ(V_stat("g", nullptr), 0);
    EXPECT_EQ(V_unlink("g"), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(fs::exists("g") || fs::exists("sub")) << "nothing is copied for reading";
    write("sub/deep/f", "a");
    EXPECT_EQ(contents("sub/deep/f"), "lower+");
    EXPECT_EQ(fs::status("sub").permissions(), fs::perms(0750));
    const int fd = V_open("g", platform::openWrite);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(fs::status("g").permissions() & fs::perms(0640), fs::perms(0640));
    EXPECT_EQ(contents(scratch / "two/sub/deep/f"), "lower");
    EXPECT_EQ(V_unlink("g"), 0);
    EXPECT_EQ(V_open("sub/new", platform::openRead | platform::openWrite), -1);
    EXPECT_FALSE(fs::exists("sub/new"));
  });
  fs::remove_all(scratch / "one/sub");
  inView(2, both, [&] {
    write("g", "w");
    EXPECT_EQ(contents("g"), "+");
    EXPECT_GE(V_creat("sub/deep/new", 0600), 0);
    EXPECT_EQ(V_creat("no/new", 0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(V_locate("sub/deep/f", V_UNCHANGED).get(), std::string("sub/deep/f"));
  });
}

TEST_F(ViewpathDeathTest, ChangingDirectoryStaysInTheView) {
  fs::create_directories(scratch / "far/away");
  fs::create_directory_symlink(scratch / "far/away", scratch / "one/link");
  inView(1, scratch / "other:" + scratch.path() + "/two", [&] {
    ASSERT_EQ(V_chdir((scratch / "other/sub/deep").c_str()), 0);
    EXPECT_EQ(gen_getcwd(), scratch / "one/sub/deep");
    EXPECT_EQ(gen_the_view.working_directory.get(), scratch / "other/sub/deep");
    EXPECT_EQ(read("f"), "lower");
    EXPECT_EQ(V_chdir("no"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(V_chdir("f"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    ASSERT_EQ(V_chdir("../.."), 0);
    EXPECT_EQ(read("g"), "lower");
    ASSERT_EQ(V_chdir("link/.."), 0);
    EXPECT_EQ(gen_the_view.working_directory.get(), scratch / "far");
    ASSERT_EQ(V_chdir("^/sub"), 0);
    EXPECT_EQ(read("deep/f"), "lower");
  });
}

std::string cleaned(void (*clean)(char*), const std::string& path) {
  std::string buffer = path + std::string(2, '\0');
  clean(buffer.data());
  return buffer.c_str();
}

TEST(ViewpathText, Cleaning) {
  const char* const pairs[][2] = {{"", "."},
                                  {"a/..", "."},
                                  {"./a//b/./../c/", "a/c"},
                                  {"/a/..", "/"},
                                  {"../a", "../a"},
                                  {"../../a/../..", "../../.."},
                                  {"/../a/./", "/../a"}};
  for (const auto& [path, expected] : pairs) EXPECT_EQ(cleaned(V_compath, path), expected);
  EXPECT_EQ(cleaned(V2_compath, "/a//b/../../c/./d"), "/c/./d");
  EXPECT_EQ(cleaned(V2_compath, "/a/./.."), "/");
  EXPECT_EXIT(cleaned(V2_compath, "a"), testing::ExitedWithCode(1),
              "libvp: chdir: compath2: \\(1\\) \\[a\\] not absolute path");
  std::string deep = "x";
  for (int i = 0; i < 127; ++i) deep += "/./x";
  testing::internal::CaptureStderr();
  EXPECT_EQ(cleaned(V_compath, deep).size(), 255u);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::IsEmpty());
  testing::internal::CaptureStderr();
  EXPECT_THAT(cleaned(V_compath, deep + "/y/./z"), testing::EndsWith("/x/y/./z"));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("[V_compath]: too many directory components for \"x/x"));
}

TEST_F(ViewpathTest, OwnListOfNodes) {
  const std::string list = scratch / "other/," + scratch.path() + "/two;" + scratch.path();
  ASSERT_EQ(gen_set_view_nodes(list.c_str()), 3);
  const gen_text *resolved, *written;
  gen_view_nodes(&resolved, &written);
  EXPECT_EQ(resolved[0].get(), scratch / "one");
  EXPECT_EQ(written[0].get(), scratch / "other");
  EXPECT_FALSE(written[1]);
  int index = 0;
  EXPECT_STREQ(gen_view_relative_path((scratch / "other//x").c_str(), &index), "x");
  EXPECT_EQ(index, 0);
  EXPECT_STREQ(gen_view_relative_path((scratch / "onex").c_str(), &index), "onex");
  EXPECT_EQ(index, 2);
  EXPECT_STREQ(gen_view_relative_path("/", &index), nullptr);
  EXPECT_EQ(index, -1);
  gen_set_view_nodes((std::string("no/such,") + gen_getcwd()).c_str());
  EXPECT_STREQ(gen_view_relative_path("no/such", nullptr), ".");
  EXPECT_FALSE(gen_view_relative_path("x", nullptr)) << "relative entries want relative names";
  gen_set_view_nodes(gen_getcwd());
  EXPECT_STREQ(gen_view_relative_path("a/../x", nullptr), "x");
  EXPECT_EQ(gen_set_view_nodes(nullptr), 0);
}

}  // namespace
