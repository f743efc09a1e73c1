// What the thread that talks with the hub hands over to those that answer browsers: the latest
// snapshot and the latest events. They never touch the session; the session's thread never waits
// for them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "tools/hublinkctl/session.h"

namespace hublinkctl {

class Board {
 public:
  using Snapshot = std::shared_ptr<const Facts>;

  // --- The session's thread ---

  /// Whether somebody waits for a snapshot newer than the last.
  bool isWanted() const;
  void put(Facts snapshot);
  void add(Facts event);
  /// Whoever waits is let go, and finds nothing any more.
  void close();

  // --- Any other thread ---

  /// A snapshot that is hardly older than a second; waits for one. Null once closed, or if none
  /// comes in time.
  Snapshot read();

  struct Event {
    std::uint64_t number;  ///< 1, 2, ...
    std::shared_ptr<const Facts> facts;
  };
  /// The events with higher numbers, as far as they are still here; waits a second for the first.
  std::vector<Event> eventsAfter(std::uint64_t number);
  bool isClosed() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Snapshot snapshot_;
  std::uint64_t taken_ = 0;  // in ms of the monotonic clock
  std::uint64_t lastNumber_ = 0;
  std::deque<Event> events_;
  bool wanted_ = false;
  bool closed_ = false;
};

}  // namespace hublinkctl
