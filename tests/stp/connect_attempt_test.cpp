#include "stp_transport/transport/stp_connect_attempt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "indgen/scratch.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/process.h"
#include "platform/readiness.h"
#include "stp_transport/transport/stp_listener.h"
#include "stp_transport/transport/stp_socket.h"

namespace {

// The socket, once the readiness set has told of each step.
int finish(STPConnectAttempt& attempt, STPStatus& status) {
  bool failed = false;
  const std::uint64_t start = platform::monotonicMilliseconds();
  while (!attempt.poll()) platform::readiness().wait(attempt.timeLeft(), failed);
  EXPECT_LT(platform::monotonicMilliseconds() - start, 4000u) << "nothing was announced";
  EXPECT_EQ(attempt.timeLeft(), 0);
  status = attempt.status();
  return attempt.takeSocket();
}

TEST(ConnectAttempt, EndsAsAWaitingConnectDoes) {
  STPListener listener;
  STPStatus status;
  ASSERT_TRUE(listener.open(0, &status, true));
  for (const char* host : {"127.0.0.1", "localhost"})
    for (const bool byLocalRoad : {false, true}) {
      STPConnectAttempt attempt(host, listener.port(), byLocalRoad);
      const int socket = finish(attempt, status);
      EXPECT_GT(socket, 0) << status.message;
      EXPECT_EQ(platform::localPort(socket) == 0, byLocalRoad);
      closeSocket(socket);
    }
  listener.close();
  const auto failure = [&](const char* host) {
    STPConnectAttempt attempt(host, listener.port());
    EXPECT_EQ(finish(attempt, status), 0);
    return std::string(status.message);
  };
  EXPECT_EQ(failure("localhost"), "[ConnectToServer]: connection refused");
  EXPECT_EQ(failure("no-such-host.invalid"), "[connectToServer]: Unable to resolve host");
  EXPECT_EQ(failure(nullptr), "[connectToServer]: Unable to resolve host");
}

// Listens, and has its backlog full of connections that it doesn't take: further ones get no
// answer.
constexpr const char* kSilent =
    "use Socket; use Fcntl; sub make { socket(my $s, PF_INET, SOCK_STREAM, 0); $s }"
    "my $l = make(); bind($l, sockaddr_in(0, INADDR_LOOPBACK)); listen($l, 0);"
    "my @c; for (1..3) { push @c, make(); fcntl($c[-1], F_SETFL, O_NONBLOCK);"
    "connect($c[-1], getsockname($l)) }"
    "$| = 1; print +(sockaddr_in(getsockname($l)))[0], \"\\n\"; sleep 60";

TEST(ConnectAttempt, WaitsForNobodyAndIsGivenUpAtAnyTime) {
  const Scratch scratch;
  platform::StartRequest request;
  request.program = "perl";
  request.arguments = {"perl", "-e", kSilent};
  const std::string file = scratch / "port";
  request.output =
      platform::openFile(file.c_str(), platform::openWrite | platform::openCreate, 0600);
  platform::ProcessId silent = 0;
  ASSERT_EQ(platform::startProcess(request, silent), 0);
  platform::closeDescriptor(request.output);
  std::uint16_t port = 0;
  for (int i = 0; i < 1000 && !(std::ifstream(file) >> port); ++i) platform::sleepMilliseconds(10);
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  platform::readiness();
  const auto before = descriptors();
  std::uint64_t start = 0;
  {
    STPConnectAttempt attempt("127.0.0.1", port), byName("localhost", port);
    start = platform::monotonicMilliseconds();
    bool failed = false;
    while (platform::monotonicMilliseconds() - start < 100) {
      EXPECT_FALSE(attempt.poll() || byName.poll());
      platform::readiness().wait(20, failed);
    }
    EXPECT_EQ(attempt.takeSocket(), 0);
    EXPECT_TRUE(attempt.timeLeft() > 3000 && attempt.timeLeft() <= STP_CONNECT_LIMIT - 100);
  }
  EXPECT_LT(platform::monotonicMilliseconds() - start, 2000u);
  EXPECT_EQ(descriptors(), before);
  platform::killProcess(silent);
  platform::releaseChild(silent);
}

}  // namespace
