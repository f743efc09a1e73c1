#include "indgen/spawn.h"

#include <gtest/gtest.h>

#include "indgen/access.h"
#include "indgen/command_line.h"
#include "indgen/find.h"
#include "scratch.h"

namespace {

using Words = std::vector<const char*>;

std::string lineOf(Words words, const char* program = "tool") {
  words.push_back(nullptr);
  return gen_command_line(program, words.data()).get();
}

// "directory|command line", or "false".
std::string readCommand(const char* command) {
  gen_text directory, line;
  if (!gen_read_command(command, directory, line)) return "false";
  return std::string(directory ? directory.get() : "(none)") + "|" + line.get();
}

TEST(CommandLine, QuotingRuleAndItsInverse) {
  EXPECT_EQ(lineOf({"tool", "x", "a\"b"}), "\"tool\" x \"a\\\"b\"");
  EXPECT_EQ(lineOf({"tool", "dir with blank\\", "x&y"}), "\"tool\" \"dir with blank\\\\\" \"x&y\"");
  for (int number = 0; number < 5 * 5 * 5 * 5 * 5; ++number) {
    std::string argument = "x";
    for (int rest = number; rest > 0; rest /= 5) argument += "a\\\" &"[rest % 5];
    // Written like a `\` at an argument's end.
    if (argument.find("\\\" ") != std::string::npos) continue;
    const std::string line = lineOf({"c:\\my tool\\", argument.c_str(), "end"});
    ASSERT_EQ(gen_cut_command_line(line.c_str())[1], argument) << line;
  }
}

TEST(CommandLine, ReadsDirectoryProgramAndRest) {
  EXPECT_EQ(readCommand(" \tcd \"c:\\my dir\" ; tool -x"), "c:\\my dir|tool -x");
  EXPECT_EQ(readCommand("\"c:\\my dir\\tool\" -x"), "(none)|\"c:\\my dir\\tool\" -x");
  EXPECT_EQ(readCommand("CD x; tool"), "(none)|CD x; tool");
  for (const char* wrong : {"  ", "cd x", "cd x; ", "\"tool -x"})
    EXPECT_EQ(readCommand(wrong), "false") << wrong;
  gen_setenv("COMSPEC", "/bin/cmd");
  EXPECT_EQ(readCommand("run.bat a b"), "(none)|/bin/cmd /c run.bat a b");
  EXPECT_EQ(lineOf({"run.bat", "a"}, "run.BAT"), "/bin/cmd /c \"run.bat\" a ");
  gen_setenv("COMSPEC", nullptr);
}

class SpawnTest : public testing::Test {
 protected:
  // What a program writes; "(none)" if it doesn't start.
  std::string commandOutput(const char* command) {
    const int status = gen_run_to_file(command, output.c_str());
    return status == -1 ? "(none)" : contents(output);
  }
  std::string argvOutput(Words words, const char* directory = nullptr) {
    const int fd = V_creat(output.c_str(), 0600);
    platform::ProcessId child = 0;
    words.push_back(nullptr);
    gen_spawn_argv_in(words[0], words.data(), directory, &child, -1, fd, -1, GEN_NEW_CONSOLE);
    platform::closeDescriptor(fd);
    gen_wait_processes(nullptr, true, 10000, &child, 1);
    return child == 0 ? "(none)" : contents(output);
  }

  const Scratch scratch;
  const std::string output = scratch / "output";
};

TEST_F(SpawnTest, ProgramsGetWhatTheyWereGiven) {
  const std::string before = gen_getcwd();
  V_chdir(scratch.path().c_str());
  scratch.write("tool.bat", "pwd; printf '<%s>' \"$VALUE\" \"$@\"\n");
  gen_setenv("VALUE", "x y");
  EXPECT_EQ(gen_system("sh -c \"chmod +x tool.bat; mkdir in\\ side\"", "q"), 0);
  const std::string inside = (scratch / "in side") + "\n";
  EXPECT_EQ(commandOutput("cd 'in side'; ./tool.bat \"a b\" c\\"), inside + "<x y><a b><c\\>");
  EXPECT_EQ(commandOutput("tool.bat"), "(none)") << "PATH alone is searched";
  EXPECT_EQ(commandOutput("echo $HOME"), "$HOME\n") << "no shell but one that is asked for";
  EXPECT_EQ(argvOutput({"./tool.bat", "", "a\"b", "with blank\\", "\\\" ", "\t"}, "in side"),
            inside + "<x y><><a\"b><with blank\\><\\\" ><\t>");
  EXPECT_EQ(argvOutput({"no-such-tool"}), "(none)");
  gen_setenv("COMSPEC", "echo");
  EXPECT_EQ(argvOutput({"tool.bat", "a  b"}), "/c tool.bat a  b\n");
  gen_setenv("COMSPEC", nullptr);
  V_chdir(before.c_str());
}

TEST_F(SpawnTest, WaitsAndRunsToTheEnd) {
  platform::ProcessId child = 0;
  int status = 77;
  ASSERT_TRUE(gen_spawn_command("sleep 60", &child, -1, -1, -1, GEN_DETACHED_PROCESS));
  EXPECT_EQ(gen_wait_processes(&status, false, 0, &child, 1), 0);
  EXPECT_EQ(status, 77);
  platform::killProcess(child);
  EXPECT_EQ(gen_wait_processes(nullptr, true, 10000, &child, 1), child);
  EXPECT_EQ(gen_run_to_file("sh -c \"echo text; echo error >&2; exit 4\"", output.c_str()), 4);
  EXPECT_EQ(contents(output), "text\n");
}

}  // namespace
