// What a plugin calls at a time.
#include "hublink_plugin/timed_calls.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/clock.h"

namespace {

TEST(TimedCallsTest, AreMadeOnceInTheOrderOfTheirTimes) {
  TimedCalls calls;
  std::string made;
  EXPECT_EQ(calls.next(), -1);
  const std::uint64_t begin = platform::monotonicNanoseconds();
  calls.add(20, [&] { made += 'd'; });
  calls.add(0, [&] {
    made += 'a';
    calls.add(-1, [&] { made += 'c'; });
    calls.callDue();
  });
  const TimedCallID dropped = calls.add(0, [&] { made += 'x'; });
  calls.add(0, [&] { made += 'b'; });
  EXPECT_TRUE(calls.cancel(dropped));
  EXPECT_FALSE(calls.cancel(dropped));
  EXPECT_FALSE(calls.cancel({}));
  EXPECT_EQ(calls.next(), 0);
  calls.callDue();
  EXPECT_EQ(made, "abc") << "a call that serves makes the others";
  while (made.size() < 4) {
    EXPECT_NE(calls.next(), -1);
    calls.callDue();
  }
  EXPECT_EQ(made, "abcd");
  EXPECT_GE(platform::monotonicNanoseconds() - begin, 20000000u);
  EXPECT_EQ(calls.next(), -1);
}

}  // namespace
