// When the hub stops by itself.
//
// A hub is needed as long as a plugin is persistent or is about to come, being started or connected
// to. One without a record stops on the first pass in which it isn't. A shared one counts such
// passes: the first starts the clock, the second confirms, the third can remove the record, and
// once the limit has passed the hub stops. Being needed again starts all anew, except that a record
// once removed stays removed. A hub that can take nobody any more gives its record up at once, so
// that tools start another one.
#pragma once

#include <cstdint>

class Hublink;

class IdleLogic {
 public:
  /// Milliseconds without being needed after which a shared hub stops.
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
