#include "libcxxutil/ut_retryhandler.h"

#include <gtest/gtest.h>

#include <climits>

#include "libcxxutil/ut_clock.h"
#include "platform/clock.h"

namespace {

class Handler : public RetryHandler {
 public:
  using RetryHandler::RetryHandler;
  void wait() override {}
};

struct Condition : RetryCondition {
  bool answer = true;
  bool shouldRetry() override { return answer; }
};

TEST(RetryHandler, LimitByItsSpec) {
  EXPECT_EQ(Handler().limit(), -1);
  const std::pair<int, int> cases[] = {
      {-1, 15000},          {3, 45000},      {1000001, 1},     {0, 15000},
      {143165, 2147475000}, {143166, 15000}, {1000000, 15000}, {INT_MAX, INT_MAX - 1000000}};
  for (const auto& [spec, limit] : cases) EXPECT_EQ(Handler(spec).limit(), limit) << spec;
}

TEST(RetryHandler, GivesUpAtItsLimitOrByACondition) {
  Handler limited(1000000 + 20), handler;
  for (int again = 0; again < 2; ++again) {
    limited.start();
    EXPECT_TRUE(limited.shouldRetry());
    platform::sleepMilliseconds(25);
    EXPECT_FALSE(limited.shouldRetry());
  }
  Condition first, second;
  handler.addCondition(&first);
  handler.addCondition(&second);
  EXPECT_TRUE(handler.shouldRetry());
  first.answer = false;
  EXPECT_FALSE(handler.shouldRetry());
  EXPECT_TRUE(handler.removeCondition(&first) && !handler.removeCondition(&first));
  EXPECT_TRUE(handler.shouldRetry());
}

TEST(RetryHandler, DeadlineEndsLimitedHandlersOnly) {
  Handler limited(-1), unlimited;
  limited.start();
  setRetryDeadline(INT_MIN);
  EXPECT_TRUE(retryDeadlinePassed());
  EXPECT_FALSE(limited.shouldRetry());
  unlimited.start();
  EXPECT_EQ(unlimited.startTick(), UINT32_MAX);
  EXPECT_TRUE(unlimited.shouldRetry());
  setRetryDeadline(-1);
  EXPECT_FALSE(retryDeadlinePassed());
}

}  // namespace
