// When a blocking call gives up, and how it waits.
//
// A blocking operation calls start() once, then wait() and shouldRetry() in a loop, and finish() on
// every way out. A handler lives as long as its owner likes and can be used again: start() resets
// its clock. Conditions that are added to a handler stay the caller's.
#pragma once

#include <cstdint>
#include <vector>

/// One more reason to give up.
class RetryCondition {
 public:
  virtual ~RetryCondition() = default;
  /// False ends the wait, whatever its limit.
  virtual bool shouldRetry() = 0;
};

class RetryHandler {
 public:
  static constexpr int kNoLimit = -1;

  /// Without a limit.
  RetryHandler() = default;
  /// `spec` is -1 for the default limit, 1 to 1000000 for a multiple of the default, or a number of
  /// milliseconds plus 1000000. What has no meaning, or overflows 32 bits, gives the default.
  explicit RetryHandler(int spec);
  RetryHandler(const RetryHandler&) = delete;
  RetryHandler& operator=(const RetryHandler&) = delete;
  virtual ~RetryHandler() = default;

  /// Starts the clock of a limited handler.
  virtual void start();
  /// False if a condition says no, the limit is reached or the process's deadline has passed. The
  /// deadline is nothing to a handler without a limit.
  virtual bool shouldRetry();
  /// Called when the operation is over.
  virtual void finish() {}
  /// Lets time pass, serving whatever the operation waits for.
  virtual void wait() = 0;

  /// Adds a condition that must hold for the wait to go on; it must stay alive until it is removed.
  void addCondition(RetryCondition* condition);
  /// Removes the first entry of a condition; false if there is none.
  bool removeCondition(RetryCondition* condition);

  /// In milliseconds; kNoLimit if there is none.
  int limit() const { return limit_; }
  /// Value of the tick clock at start().
  std::uint32_t startTick() const { return startTick_; }

 protected:
  /// Sets the limit in milliseconds, which `spec` can't tell for all numbers.
  void setLimit(int milliseconds) { limit_ = milliseconds; }

 private:
  int limit_ = kNoLimit;
  std::uint32_t startTick_ = UINT32_MAX;
  std::vector<RetryCondition*> conditions_;
};

/// What all handlers of the process share.
struct RetryDefaults {
  int defaultRetryLimit = 15000;    ///< in milliseconds, the unit of a handler's `spec`
  std::int32_t retryDeadline = -1;  ///< tick after which limited handlers give up; -1 for none
};

RetryDefaults& retryDefaults();

/// Sets the tick after which every limited handler gives up; -1 takes it back.
void setRetryDeadline(std::int32_t tick);
/// Whether there is a deadline and it lies in the past.
bool retryDeadlinePassed();
