#include "libcxxutil/ut_retryhandler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>

#include "libcxxutil/ut_clock.h"
#include "libcxxutil/ut_wait.h"
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

// Each step of a wait as a letter: Start, Look, Ask, Wait or pass, Finish.
TEST(Wait, GoesRoundFromWhereItBegins) {
  std::string steps;
  struct Spelling : RetryHandler {
    explicit Spelling(std::string& text) : list(text) {}
    void start() override { list += 'S'; }
    bool shouldRetry() override { return list += 'A', patience-- > 0; }
    void wait() override { list += 'W'; }
    void finish() override { list += 'F'; }
    std::string& list;
    int patience = 1;
  };
  const auto spell = [&](WaitOrder order, bool hasHandler, std::ptrdiff_t looks, WaitState end) {
    steps.clear();
    Spelling handler(steps);
    const auto look = [&] {
      steps += 'L';
      return std::count(steps.begin(), steps.end(), 'L') < looks ? WaitState::waiting : end;
    };
    const WaitState state =
        waitUntil(hasHandler ? &handler : nullptr, order, look, [&] { steps += 'P'; });
    EXPECT_EQ(state, looks > 9 ? WaitState::gaveUp : end);
    return steps;
  };
  EXPECT_EQ(spell(WaitOrder::lookFirst, true, 1, WaitState::failed), "SLF");
  EXPECT_EQ(spell(WaitOrder::lookFirst, true, 99, WaitState::reached), "SLAWLAF");
  EXPECT_EQ(spell(WaitOrder::askFirst, true, 99, WaitState::reached), "SAWLAF");
  EXPECT_EQ(spell(WaitOrder::passFirst, true, 99, WaitState::reached), "SWLAWLAF");
  EXPECT_EQ(spell(WaitOrder::askBehind, true, 99, WaitState::reached), "SLWALWAF");
  EXPECT_EQ(spell(WaitOrder::askBehind, true, 2, WaitState::reached), "SLWALF");
  EXPECT_EQ(spell(WaitOrder::passFirst, false, 2, WaitState::reached), "PLPL");
}

}  // namespace
