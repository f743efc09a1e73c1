// A limit in milliseconds that several waits, one behind the other, use up together.
#pragma once

#include <algorithm>
#include <cstdint>

#include "platform/clock.h"
#include "stp_transport/transport/stp_transport.h"

/// Counts down from a limit in milliseconds; a negative one never ends.
class Countdown {
 public:
  explicit Countdown(int milliseconds)
      : endless_(milliseconds < 0),
        end_(platform::monotonicMilliseconds() +
             static_cast<std::uint64_t>(std::max(milliseconds, 0))) {}
  /// Milliseconds that are left, negative without a limit.
  int left() const {
    if (endless_) return -1;
    const std::uint64_t now = platform::monotonicMilliseconds();
    return now >= end_ ? 0 : static_cast<int>(end_ - now);
  }
  /// The same for one step of a wait.
  int step() const { return endless_ ? STP_WAIT_STEP : std::min(left(), STP_WAIT_STEP); }

 private:
  bool endless_;
  std::uint64_t end_;
};
