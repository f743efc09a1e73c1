#include "stp_transport/child/stp_child_process.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>

#include "indgen/access.h"
#include "indgen/find.h"
#include "indgen/scratch.h"
#include "indgen/spawn.h"
#include "pair.h"
#include "platform/clock.h"
#include "platform/credentials.h"
#include "platform/file.h"
#include "platform/readiness.h"
#include "stp_transport/child/private_port.h"

namespace {

using testing::ElementsAre;
namespace fs = std::filesystem;

std::vector<std::string> wordsOf(const ArgumentVector& vector) {
  EXPECT_EQ(vector[vector.count()], nullptr);
  return {vector.data(), vector.data() + vector.count()};
}

TEST(ArgumentVector, IsCutFromATextAndChangesWithinItsBounds) {
  const auto split = [](const char* text) { return wordsOf(splitArguments(text, false)); };
  EXPECT_THAT(split("a \"b c\"\t d "), ElementsAre("a", "b c", "d"));
  const char* const more[] = {"x", "y", nullptr};
  ArgumentVector vector = copyArguments(more, 1);
  insertArgument(vector, 2, "no");
  insertArgument(vector, 0, "first");
  for (const int index : {-1, 1, 9}) insertArguments(vector, index, more);
  EXPECT_THAT(wordsOf(vector), ElementsAre("first", "x", "y", "x"));
  EXPECT_STREQ(removeArgument(vector, 2), "y");
  EXPECT_FALSE(removeArgument(vector, 3));
  EXPECT_THAT(wordsOf(std::move(vector)), ElementsAre("first", "x", "x"));
}

// Notes what is asked of it, and never allows a second try.
class NotingHandler : public RetryHandler {
 public:
  void start() override { calls += "start "; }
  void wait() override { calls += "wait "; }
  bool shouldRetry() override { return (calls += "no ").empty(); }
  void finish() override { calls += "finish"; }
  std::string calls;
};

TEST(PrivatePort, TakesOneClientByEitherRoad) {
  for (const bool byLocalRoad : {false, true}) {
    PrivatePort port;
    STPStatus status;
    port.open(&status);
    const auto waiting = makeCounted<STPTransport>(), client = makeCounted<STPTransport>();
    port.listenWith(waiting.get(), &status);
    EXPECT_FALSE(port.tryAccept(&status));
    client->connect("localhost", port.number(), &status, byLocalRoad);
    EXPECT_EQ(platform::localPort(client->fileDescriptor()) == 0, byLocalRoad);
    waiting->serviceOnce(STP_WAIT_STEP);
    EXPECT_TRUE(port.tryAccept(&status));
    EXPECT_STREQ(waiting->peerName(), "127.0.0.1");
    EXPECT_STREQ(client->localName(), "127.0.0.1");
    const auto late = makeCounted<STPTransport>();
    late->connect("localhost", port.number(), &status);
    EXPECT_STREQ(status.message, "[ConnectToServer]: connection refused");
  }
}

class ChildProcessTest : public testing::Test {
 protected:
  ChildProcessTest() { child.setTransport(transport.get()); }

  void setScript(const char* script) {
    const char* const arguments[] = {"bash", "-c", script};
    child.setArguments(arguments, 3);
    child.setPortIndex(3);
  }
  std::string launch(RetryHandler* retry = nullptr) {
    child.launch(retry, &status);
    return status.message;
  }
  // What the child has said: it is no packet, but it lies in the socket.
  std::string said() {
    char text[500] = "";
    bool failed = false;
    while (platform::receiveBytes(transport->fileDescriptor(), text, 499).wouldBlock)
      platform::readiness().wait(1000, failed);
    return text;
  }
  static std::ptrdiff_t openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  }

  // Connects, tells its directory and arguments, and lives until the link closes.
  static constexpr const char* kConnect =
      "exec 3<>/dev/tcp/localhost/${@: -1}; printf '%s,' \"$PWD\" \"$0\" \"$@\" >&3; read -u 3";
  static constexpr const char* kSilent = "exec sleep 60";

  Transport transport = makeCounted<STPTransport>();
  STPStatus status;
  STPChildProcess child{true};
};

TEST_F(ChildProcessTest, ConnectsBackToThePortAmongItsArguments) {
  setScript(kConnect);
  child.addArgument("tail");
  child.setPortIndex(4);
  child.setWorkingDirectory("/");
  const std::string before = gen_getcwd();
  ASSERT_EQ(launch(), "");
  EXPECT_TRUE(transport->isConnected() && child.pollLaunch());
  EXPECT_EQ(gen_getcwd(), before);
  EXPECT_THAT(said(), testing::MatchesRegex("/,tail,localhost,[0-9]+,"));
  EXPECT_EQ(launch(), "[launch]: Child is already launched.");
  transport->disconnect();
  const platform::ProcessId process = child.process();
  EXPECT_EQ(gen_wait_processes(nullptr, true, 10000, &process, 1), process);
}

TEST_F(ChildProcessTest, AStrangerAtThePortIsSentAway) {
  if (platform::currentUser() != platform::kRoot)
    GTEST_SKIP() << "becoming another user takes root";
  const std::string script =
      std::string(
          "setpriv --reuid=65534 --regid=65534 --clear-groups bash -c '"
          "exec 3<>/dev/tcp/localhost/$0; echo strange >&3; cat <&3' ${@: -1} 2>&1; ") +
      kConnect;
  setScript(script.c_str());
  ASSERT_EQ(launch(), "");
  EXPECT_THAT(said(), testing::MatchesRegex(".*,localhost,[0-9]+,"));
}

TEST_F(ChildProcessTest, FailedLaunchesLeaveNothingOpenAndCanBeRepeated) {
  platform::readiness();
  const std::ptrdiff_t before = openDescriptors();
  child.setCommandLine("/no/such/program");
  EXPECT_EQ(launch(), "[launch]: Program could not start (not found?).");
  EXPECT_EQ(child.startError(), ENOENT);
  setScript("exit 3");
  EXPECT_THAT(launch(), testing::StartsWith("[launch]: Program died "));
  EXPECT_EQ(status.code, STP_LAUNCH_FAILED);
  EXPECT_EQ(child.process(), 0);
  ASSERT_TRUE(child.childEnd());
  EXPECT_TRUE(!child.childEnd()->bySignal && child.childEnd()->number == 3);
  EXPECT_FALSE(platform::childEnd(last_process)) << "it was given up";
  EXPECT_LE(openDescriptors(), before);
  setScript(kConnect);
  child.setPassHost(false);
  EXPECT_EQ(launch(), "");
  EXPECT_THAT(said(), testing::MatchesRegex(std::string(gen_getcwd()) + ",[0-9]+,"));
}

TEST_F(ChildProcessTest, KeepsTheBeginningAndTheEndOfWhatAFailedChildHasWritten) {
  platform::readiness();
  const std::ptrdiff_t before = openDescriptors();
  child.setKeepsErrors(true);
  setScript("echo sad >&2; exit 1");
  launch();
  EXPECT_EQ(child.errorText(), "sad\n");
  std::string numbers;
  for (int i = 1; i <= 4000; ++i) numbers += std::to_string(i) + '\n';
  setScript("seq 4000 >&2; exit 1");
  launch();
  EXPECT_EQ(child.errorText(), numbers.substr(0, STP_FIRST_ERRORS) + "\n[...]\n" +
                                   numbers.substr(numbers.size() - STP_LAST_ERRORS));
  EXPECT_LE(openDescriptors(), before);
  child.setCommandLine("/no/such/program");
  launch();
  EXPECT_EQ(child.errorText(), "");
}

// Neither while it is caught nor when nobody listens any more.
TEST_F(ChildProcessTest, WhatAChildWritesNeverHoldsItUp) {
  const std::string much =
      "for i in {1..1000}; do echo line; done >&2 && "
      "head -c 10000000 /dev/zero >&2 && ";
  setScript((much + "exec 3<>/dev/tcp/localhost/${@: -1} && read -u 3; " + much +
             "echo fine >&3; read -u 3")
                .c_str());
  child.setKeepsErrors(true);
  ASSERT_EQ(launch(), "");
  EXPECT_THAT(child.errorText(), testing::StartsWith("line\nline\n"));
  platform::sendBytes(transport->fileDescriptor(), "\n", 1);
  EXPECT_EQ(said(), "fine\n");
}

TEST_F(ChildProcessTest, LeadsBackToADirectoryThatWasReplaced) {
  const std::string before = gen_getcwd();
  const auto inode = [] {
    platform::FileStatus here;
    EXPECT_EQ(platform::fileStatus(".", here), 0);
    return here.inode;
  };
  const Scratch scratch;
  fs::create_directory(scratch / "here");
  V_chdir((scratch / "here").c_str());
  const std::uint64_t here = inode();
  fs::remove(scratch / "here");
  for (const bool isReplaced : {false, true}) {
    if (isReplaced) fs::create_directory(scratch / "here");
    STPChildProcess other(true);
    const char* const arguments[] = {"true"};
    other.setArguments(arguments, 1);
    other.setTransport(transport.get());
    other.setWorkingDirectory("/");
    other.launch(nullptr);
    EXPECT_EQ(inode(), here);
  }
  V_chdir(before.c_str());
}

TEST_F(ChildProcessTest, DeathEndsTheWaitAtOnce) {
  setScript(kSilent);
  child.startLaunch();
  EXPECT_FALSE(child.pollLaunch(&status));
  ASSERT_TRUE(status.good() && transport->isListening());
  const platform::ProcessId process = child.process();
  platform::killProcess(process);
  const std::uint64_t start = platform::monotonicMilliseconds();
  while (!child.pollLaunch(&status) && status.good()) transport->serviceOnce(10000);
  EXPECT_LT(platform::monotonicMilliseconds() - start, 2000u);
  EXPECT_STREQ(status.message, "[launch]: Program died before connecting.");
  EXPECT_EQ(child.process(), 0);
  ASSERT_TRUE(child.childEnd());
  EXPECT_TRUE(child.childEnd()->bySignal && child.childEnd()->number == SIGKILL);
  EXPECT_FALSE(fs::exists("/proc/" + std::to_string(process))) << "a zombie";
}

TEST_F(ChildProcessTest, HandlerDecidesHowLongLaunchAndKillWait) {
  NotingHandler unused, launching, killing;
  EXPECT_EQ(launch(&unused), "[launch]: command required to launch STPChildProcess.");
  EXPECT_EQ(unused.calls, "");
  setScript(kSilent);
  EXPECT_EQ(launch(&launching), "[launch]: Timed out while waiting for child to connect.");
  EXPECT_EQ(launching.calls, "start wait no finish");
  const platform::ProcessId process = child.process();
  EXPECT_TRUE(transport->isClosed() && platform::processExists(process));
  child.kill(&killing);
  EXPECT_EQ(killing.calls, "start no finish");
  EXPECT_EQ(gen_wait_processes(nullptr, true, 10000, &process, 1), process);
  child.kill(&killing);
  EXPECT_EQ(killing.calls, "start no finishstart finish") << "it has ended";
}

}  // namespace
