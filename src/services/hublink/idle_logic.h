// When the hub stops by itself.
//
// A hub without a record stops on the first pass without a persistent plugin. A shared one counts
// such passes: the first starts the clock, the second confirms, the third can remove the record,
// and once the limit has passed the hub stops. A persistent plugin that comes back starts all anew,
// except that a record once removed stays removed. A hub that can take nobody any more gives its
// record up at once, so that tools start another one.
#pragma once

#include <cstdint>

/// What the decision is made of, and the one thing that it does.
class IdleSubject {
 public:
  virtual ~IdleSubject() = default;
  virtual bool hasPersistentPlugin() const = 0;
  virtual bool isShared() const = 0;
  /// It has no number left for another plugin.
  virtual bool isUsedUp() const = 0;
  /// Removes the record under its lock, if it is the hub's own; false if the lock can't be got.
  virtual bool removeRecord() = 0;
  /// The wall clock in milliseconds.
  virtual std::int64_t now() const = 0;
};

class IdleLogic {
 public:
  /// Milliseconds without a persistent plugin after which a shared hub stops.
  static constexpr std::int64_t kLimit = 4000;

  /// Called after each pass; false if the hub is to stop.
  bool afterPass(IdleSubject& subject);

 private:
  bool idleSeen_ = false;
  bool idleConfirmed_ = false;
  std::int64_t idleSince_ = 0;
  bool recordRemoved_ = false;
};
