// The clock of all measurements.
#pragma once

#include <cstdint>

#include "platform/clock.h"

/// Runs from its creation.
class Stopwatch {
 public:
  double microseconds() const {
    return static_cast<double>(platform::monotonicNanoseconds() - start_) / 1e3;
  }
  double milliseconds() const { return microseconds() / 1e3; }
  double seconds() const { return microseconds() / 1e6; }

 private:
  std::uint64_t start_ = platform::monotonicNanoseconds();
};
