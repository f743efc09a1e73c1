#include "indgen/config_dirs.h"

#include <gtest/gtest.h>

#include "indgen/find.h"
#include "indgen/program.h"
#include "indgen/text.h"
#include "platform/file.h"
#include "scratch.h"

namespace {

namespace fs = std::filesystem;

class ConfigDirs : public testing::Test {
 protected:
  // In a process of its own, since the program's directory is found once: `check` with a program in
  // `bin` of a tree with these directories.
  template <typename Check>
  void inTree(std::initializer_list<const char*> directories, Check check) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [&] {
      for (const char* directory : directories) fs::create_directories(scratch / directory);
      program_path = gen_strdup((scratch / "bin/tool").c_str());
      gen_setenv("XDG_CONFIG_HOME", scratch.path().c_str());
      check();
      std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  }
  std::string relative(const char* path) const {
    return path ? fs::path(path).lexically_relative(scratch.path()).string() : "(none)";
  }

  const Scratch scratch;
};

TEST_F(ConfigDirs, LayoutTellsWhereTheyAre) {
  const auto installed = [&] { EXPECT_EQ(relative(gen_defaults_dir()), "bin/defaults"); };
  inTree({"src/target", "src/configuration"}, [&] {
    EXPECT_STREQ(gen_defaults_dir(), (scratch / "src/configuration/defaults").c_str());
    EXPECT_EQ(relative(gen_config_dir()), "src/configuration/kvx_internal");
  });
  for (const char* own : {"bin/target", "bin/defaults"})
    inTree({"src/target", "src/configuration", own}, installed);
  for (const char* only : {"src/target", "src/configuration"}) inTree({only}, installed);
}

TEST_F(ConfigDirs, FileIsTheFirstThatCanBeUsed) {
  inTree({"KVX/a", "bin/config", "bin/defaults"}, [&] {
    const auto found = [&](const std::string& name, bool defaultsOnly) {
      return relative(gen_find_config_file(name.c_str(), platform::accessRead, defaultsOnly));
    };
    for (const char* file : {"bin/config/a", "bin/defaults/b", "KVX/b"}) scratch.write(file, "");
    EXPECT_EQ(found("a", false), "bin/config/a") << "a directory is no file";
    EXPECT_EQ(found("a", true), "(none)");
    EXPECT_EQ(found("b", false), "KVX/b");
    EXPECT_EQ(found("b", true), "bin/defaults/b");
    EXPECT_EQ(found(scratch / "KVX/a", false), "(none)");

    fs::remove_all(scratch / "KVX");
    gen_reset_config_dirs();
    EXPECT_TRUE(fs::is_directory(gen_user_config_dir(true, nullptr)));
  });
}

TEST_F(ConfigDirs, ToolsFileIsSelectedInOneDirectory) {
  const auto select = [&](bool useName, bool override) {
    return relative(gen_select_config_file(scratch.path().c_str(), "tool.x", useName, override));
  };
  EXPECT_EQ(select(true, true), "tool.cfg");
  EXPECT_EQ(select(false, true), "kvx.cfg");
  scratch.write("kvx.cfg", "");
  fs::create_directory(scratch / "override");
  scratch.write("override/tool.cfg", "");
  EXPECT_EQ(select(true, true), "override/tool.cfg");
}

}  // namespace
