// Who is held up for whom, without a socket: a clock of the test's own, in milliseconds.
#include "stp_transport/transport/stp_backlog.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "stp_transport/transport/stp_process_state.h"

namespace {

const std::int64_t kLimit = STPProcessState().holdLimit;
constexpr std::uint64_t kPatience = STPBacklog::kPatience;

// A receiver with something waiting for it.
struct Receiver {
  void add(std::int64_t bytes) {
    waiting += bytes;
    if (backlog.isTooMuch(waiting)) backlog.hold(now);
  }
  void take(std::int64_t bytes) {
    waiting -= bytes;
    backlog.took(bytes, waiting, now);
  }
  void pass(std::uint64_t milliseconds) {
    now += milliseconds;
    backlog.expire(now);
  }
  STPBacklog backlog;
  std::int64_t waiting = 0;
  std::uint64_t now = 1000;
};

TEST(Backlog, IsHeldUntilHalfHasGone) {
  Receiver one;
  one.add(kLimit - 1);
  EXPECT_FALSE(one.backlog.isHeld());
  one.add(1);
  EXPECT_TRUE(one.backlog.isHeld());
  const std::uint32_t turn = one.backlog.turn();
  one.add(kLimit);  // another sender's
  EXPECT_EQ(one.backlog.turn(), turn);
  // Quick enough in each stretch of time, however long it takes.
  for (int i = 0; i < 3; ++i) {
    one.take(kLimit / 2);
    EXPECT_EQ(one.backlog.isHeld(), i < 2) << i;
    one.pass(kPatience);
  }
  EXPECT_FALSE(one.backlog.isSlow());
  one.add(kLimit);
  EXPECT_TRUE(one.backlog.isHeld());
  EXPECT_NE(one.backlog.turn(), turn);
}

TEST(Backlog, OfASlowOneHoldsNobodyUp) {
  Receiver one;
  one.add(kLimit);
  EXPECT_EQ(one.backlog.deadline(), one.now + kPatience);
  one.take(kLimit / 2 - 1);
  one.pass(kPatience - 1);
  EXPECT_TRUE(one.backlog.isHeld());
  one.pass(1);
  EXPECT_TRUE(one.backlog.isSlow());
  for (int i = 0; i < 100; ++i) {
    one.add(kLimit);
    one.take(kLimit / 2 - 1);
    one.pass(kPatience);
    EXPECT_TRUE(one.backlog.isSlow()) << i;
  }
  one.take(one.waiting - 1);
  one.add(kLimit / 2);
  EXPECT_FALSE(one.backlog.isSlow() || one.backlog.isHeld() || one.backlog.isWatched());
}

// With eight senders, each of which adds as much as a read brings in each of its turns.
TEST(Backlog, OfOneThatIsQuickAgainComesDown) {
  Receiver one;
  one.add(kLimit);
  one.pass(kPatience);
  one.add(100 * kLimit);
  one.take(kLimit / 2);
  EXPECT_FALSE(one.backlog.isSlow());
  int turns = 0;
  for (; one.backlog.isWatched() && turns < 1000; ++turns) {
    for (int sender = 0; sender < 8; ++sender) one.add(kLimit);
    EXPECT_TRUE(one.backlog.isHeld());
    const std::int64_t before = one.waiting;
    while (one.backlog.isHeld()) one.take(std::min(kLimit / 4, one.waiting));
    EXPECT_LT(before - one.waiting, 10 * kLimit) << "no hold is long";
  }
  EXPECT_GT(turns, 100);
  EXPECT_LT(turns, 300);
}

}  // namespace
