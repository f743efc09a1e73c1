#include "libcxxutil/ut_retryhandler.h"

#include <algorithm>

#include "libcxxutil/ut_clock.h"

namespace {

// A spec up to here is a multiple of the default limit, above it a number of milliseconds.
constexpr int kLargestMultiple = 1000000;

int limitFromSpec(int spec) {
  const int unit = retryDefaults().defaultRetryLimit;
  if (spec > kLargestMultiple) return spec - kLargestMultiple;
  if (spec < 1) return unit;
  const std::int64_t product = std::int64_t{spec} * unit;
  return product > INT32_MAX ? unit : static_cast<int>(product);
}

}  // namespace

RetryHandler::RetryHandler(int spec) : limit_(limitFromSpec(spec)) {}

void RetryHandler::start() {
  if (limit_ != kNoLimit) startTick_ = tickCount();
}

bool RetryHandler::shouldRetry() {
  for (RetryCondition* condition : conditions_)
    if (!condition->shouldRetry()) return false;
  if (limit_ == kNoLimit) return true;
  const std::uint32_t now = tickCount();
  const std::int32_t deadline = retryDefaults().retryDeadline;
  if (deadline != -1 && static_cast<std::int32_t>(now) > deadline) return false;
  return static_cast<std::int32_t>(now - startTick_) < limit_;
}

void RetryHandler::addCondition(RetryCondition* condition) {
  conditions_.push_back(condition);
}

bool RetryHandler::removeCondition(RetryCondition* condition) {
  const auto found = std::find(conditions_.begin(), conditions_.end(), condition);
  if (found == conditions_.end()) return false;
  conditions_.erase(found);
  return true;
}

RetryDefaults& retryDefaults() {
  static RetryDefaults defaults;
  return defaults;
}

void setRetryDeadline(std::int32_t tick) {
  retryDefaults().retryDeadline = tick;
}

bool retryDeadlinePassed() {
  const std::int32_t deadline = retryDefaults().retryDeadline;
  return deadline != -1 && static_cast<std::int32_t>(tickCount()) > deadline;
}
