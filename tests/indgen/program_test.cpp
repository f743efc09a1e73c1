#include "indgen/program.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "indgen/find.h"
#include "indgen/report.h"
#include "scratch.h"

namespace {

namespace fs = std::filesystem;

// In a process of its own, since the values are worked out once.
void expectHome(const char* config, const char* home, const char* profile,
                const std::string& expected) {
  const auto ask = [&] {
    gen_setenv("XDG_CONFIG_HOME", config);
    gen_setenv("HOME", home);
    gen_setenv("USERPROFILE", profile);
    std::_Exit(expected == gen_user_home() && fs::is_directory(expected) ? 0 : 1);
  };
  EXPECT_EXIT(ask(), testing::ExitedWithCode(0), "") << expected;
}

TEST(Program, UserHomeIsTheFirstThatCanBeHad) {
  const Scratch scratch;
  const std::string file = scratch.write("file", ""), own = scratch.path();
  const std::string config = scratch / "deep/config";
  expectHome(config.c_str(), own.c_str(), nullptr, config);
  expectHome("relative", own.c_str(), nullptr, own + "/.config");
  expectHome(nullptr, file.c_str(), own.c_str(), own);
}

TEST(Program, StartTakesTheNamesFromTheExecutable) {
  const fs::path executable = fs::read_symlink("/proc/self/exe");
  EXPECT_EQ(gen_program_dir(), executable.parent_path());
  const auto start = [&] {
    gen_initialise();
    gen_exit_message(executable == program_path.get() ? 3 : 1, "started");
  };
  EXPECT_EXIT(start(), testing::ExitedWithCode(3),
              "^" + executable.stem().string() + ": fatal: started");
}

}  // namespace
