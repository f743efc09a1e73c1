#include "platform/readiness.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/clock.h"
#include "platform/socket.h"

namespace {

using namespace platform;

// Whether it is busy or asleep, in time and not before.
TEST(ReadinessSet, WaitsForWhatComesAndForItsTime) {
  const std::string name = "readiness_test/" + std::to_string(monotonicNanoseconds());
  const Socket listener = listenOnName(name);
  const Socket near = connectToName(name);
  Transfer outcome;
  const Socket far = acceptFrom(listener, outcome);
  ReadinessSet set;
  set.watch(near);
  bool failed = false;
  char byte = 0;
  const auto answerAgain = [&] {
    sendBytes(far, "x", 1);
    set.forgetNews();
    EXPECT_TRUE(set.wait(10000, failed));
    EXPECT_TRUE(set.isReadable(near));
    receiveBytes(near, &byte, 1);
    set.clearReadable(near);
  };
  for (const bool busy : {false, true}) {
    set.setBusyPolling(busy);
    for (int i = 0; i < 6; ++i) answerAgain();
    for (const int limit : {0, 20, 150, 110}) {
      const std::uint64_t begin = monotonicMilliseconds();
      set.forgetNews();
      EXPECT_TRUE(set.wait(limit, failed));
      EXPECT_FALSE(set.hasNews());
      EXPECT_GE(monotonicMilliseconds() + 1 - begin, static_cast<std::uint64_t>(limit));
    }
    answerAgain();
  }
  EXPECT_TRUE(set.isWritable(near)) << "until a write hasn't fitted";
  const std::string much(1 << 20, 'x');
  while (!sendBytes(near, much.data(), 1 << 20).wouldBlock) {
  }
  set.clearWritable(near);
  EXPECT_TRUE(set.wait(0, failed));
  EXPECT_FALSE(set.isWritable(near));
  std::string read(1 << 20, '\0');
  while (receiveBytes(far, read.data(), 1 << 20).count > 0) {
  }
  EXPECT_TRUE(set.wait(10000, failed));
  EXPECT_TRUE(set.isWritable(near));
  for (const Socket socket : {listener, near, far}) closeStream(socket);
}

}  // namespace
