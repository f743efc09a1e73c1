#include "platform/process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/clock.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/readiness.h"

namespace {

using namespace platform;
namespace fs = std::filesystem;

StartRequest shell(const std::string& script, const std::string& name = "sh") {
  StartRequest request;
  request.program = "sh";
  request.arguments = {"sh", "-c", script, name};
  return request;
}

int endOf(ProcessId child) {
  std::size_t ended = 0;
  waitForChildren(&child, 1, true, 10000, ended);
  const auto end = childEnd(child);
  EXPECT_TRUE(end);
  releaseChild(child);
  return end ? end->status() : -1;
}

ProcessId started(const StartRequest& request) {
  ProcessId child = 0;
  EXPECT_EQ(startProcess(request, child), 0);
  return child;
}

int run(const StartRequest& request) {
  return endOf(started(request));
}

TEST(Process, ChildInheritsNoDescriptor) {
  std::FILE* inheritable = std::fopen("/dev/null", "r");
  // The listing itself opens number 3.
  EXPECT_EQ(run(shell("test \"$(ls /proc/self/fd | tr -d '\\n')\" = 0123")), 0);
  std::fclose(inheritable);
}

TEST(Process, EnvironmentIsBoundedByWhatAChildCanGet) {
  const auto set = [](const std::string& name, std::size_t size) {
    return setEnvironmentVariable(name.c_str(), std::string(size, 'x').c_str());
  };
  EXPECT_EQ(set("A", 1), 0);
  EXPECT_EQ(set("A", 131070), -E2BIG);
  EXPECT_EQ(run(shell("test $A = x")), 0);
  EXPECT_EQ(set("A", 131069), 0);
  EXPECT_EQ(set("A", 131069), 0) << "in place of the old value";
  EXPECT_EQ(setEnvironmentVariable("A", environmentVariable("A")), 0);
  int count = 0;
  while (count < 100 && set("A" + std::to_string(count), 100000) == 0) ++count;
  EXPECT_LT(count, 100);
  EXPECT_EQ(set("A", 131069), 0) << "no more than before";
  EXPECT_EQ(run(shell("test ${#A} = 131069")), 0);
  unsetEnvironmentVariable("A");
  while (count-- > 0) unsetEnvironmentVariable(("A" + std::to_string(count)).c_str());
  EXPECT_EQ(environmentVariable("A0"), nullptr);
}

TEST(Process, RefusalsAreKnownAtTheCall) {
  ProcessId child = -7;
  StartRequest request = shell("exit 0");
  request.directory = "/no/such";
  EXPECT_EQ(startProcess(request, child), -ENOENT);
  request.directory.clear();
  request.program = "/no/such/program";
  EXPECT_EQ(startProcess(request, child), -ENOENT);
  EXPECT_EQ(child, -7);
}

TEST(Process, EndIsSeenByTheReadinessSetAndLeavesNoZombie) {
  const ProcessId child = started(shell("exit 7"));
  const std::string entry = "/proc/" + std::to_string(child);
  bool failed = false;
  for (int waits = 0; fs::exists(entry) && waits < 3; ++waits) {
    readiness().wait(5000, failed);
    collectChildren();
  }
  EXPECT_FALSE(fs::exists(entry) || processExists(child));
  EXPECT_EQ(terminateProcess(child), -ESRCH);
  const auto end = childEnd(child);
  ASSERT_TRUE(end);
  EXPECT_TRUE(!end->bySignal && end->number == 7);
}

TEST(Process, WaitsWithATimeLimit) {
  ProcessId children[] = {started(shell("exec sleep 30")), started(shell("exit 3"))};
  std::size_t ended = 9;
  EXPECT_EQ(waitForChildren(children, 1, false, 0, ended), WaitOutcome::timedOut);
  EXPECT_EQ(waitForChildren(children, 2, false, -1, ended), WaitOutcome::ended);
  EXPECT_EQ(ended, 1u);
  EXPECT_EQ(waitForChildren(children, 2, true, 30, ended), WaitOutcome::timedOut);
  EXPECT_TRUE(processExists(children[0]) && processExists(currentProcess()));
  EXPECT_FALSE(processExists(0) || processExists(-1));
  EXPECT_EQ(terminateProcess(children[0]), 0);
  EXPECT_EQ(waitForChildren(children, 2, true, 10000, ended), WaitOutcome::ended);
  EXPECT_EQ(endOf(children[0]), 128 + SIGTERM);
  EXPECT_EQ(endOf(children[1]), 3);
  EXPECT_EQ(waitForChildren(children, 2, true, -1, ended), WaitOutcome::failed) << "released";
}

TEST(Process, DetachedChildHasItsOwnSessionAndTheStartSignals) {
  ignoreBrokenPipe();
  StartRequest request =
      shell("test $(cut -d' ' -f6 /proc/self/stat) = $$ && kill -PIPE $$; exit 3");
  EXPECT_EQ(run(request), 3);
  request.detached = true;
  EXPECT_EQ(run(request), 128 + SIGPIPE);
}

// Run by the next test under a low soft limit.
TEST(Process, DISABLED_RaisedLimit) {
  raiseDescriptorLimit();
  std::vector<std::FILE*> files;
  for (int i = 0; i < 100; ++i) files.push_back(std::fopen("/dev/null", "r"));
  EXPECT_NE(files.back(), nullptr);
  EXPECT_EQ(run(shell("test $(ulimit -Sn) = 64")), 0);
}

TEST(Process, ChildGetsTheDescriptorLimitOfTheStart) {
  EXPECT_EQ(run(shell("ulimit -Sn 64; exec \"$0\" --gtest_also_run_disabled_tests "
                      "--gtest_filter=Process.DISABLED_RaisedLimit",
                      executablePath())),
            0);
}

TEST(StopSignals, FirstSetsTheFlagAndEndsAWaitSecondEndsTheProcess) {
  const auto stopped = [](int first, int second) {
    bool failed = false;
    std::signal(SIGHUP, SIG_DFL);
    installStopSignals();
    readiness().wait(0, failed);
    std::raise(first);
    const std::uint64_t start = monotonicMilliseconds();
    readiness().wait(5000, failed);
    if (!stopRequested() || monotonicMilliseconds() - start > 2000) std::_Exit(1);
    std::raise(second);
    std::_Exit(2);
  };
  for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    EXPECT_EXIT(stopped(signal, SIGTERM), testing::KilledBySignal(SIGTERM), "");
}

TEST(StandardDescriptors, ClosedOnesAreFilled) {
  const auto fill = [] {
    std::fclose(stdin);
    ensureStandardDescriptors();
    std::_Exit(openFile("/dev/null", openRead, 0) > 2 ? 0 : 1);
  };
  EXPECT_EXIT(fill(), testing::ExitedWithCode(0), "");
}

}  // namespace
