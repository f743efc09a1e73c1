// When the hub stops by itself.
//
// A hub without a record stops on the first pass without a persistent plugin. A shared one counts
// such passes: the first starts the clock, the second confirms, the third can remove the record,
// and once the limit has passed the hub stops. A persistent plugin that comes back starts all anew,
// except that a record once removed stays removed. A hub that can take nobody any more gives its
// record up at once, so that tools start another one.
#pragma once

#include <cstdint>

class Hublink;

class IdleLogic {
 public:
  /// Milliseconds without a persistent plugin after which a shared hub stops.
  static constexpr std::int64_t kLimit = 4000;

  explicit IdleLogic(Hublink& hub) : hub_(hub) {}

  /// Called after each pass; false if the hub is to stop.
  bool afterPass();

 private:
  Hublink& hub_;
  bool idleSeen_ = false;
  bool idleConfirmed_ = false;
  std::int64_t idleSince_ = 0;  // ms of the wall clock
  bool recordRemoved_ = false;
};
