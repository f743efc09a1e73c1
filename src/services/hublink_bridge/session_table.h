// The sessions with other machines: at most one that this bridge has opened with each, and those
// that others have opened with it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "services/hublink_bridge/session.h"

namespace bridge {

class SessionTable {
 public:
  /// Sends a message to a machine; false without a connection at present.
  using Transmit = std::function<bool(const std::string& machine, const unsigned char* message,
                                      std::size_t size)>;

  SessionTable(SessionHost& host, Transmit transmit)
      : host_(host), transmit_(std::move(transmit)) {}

  /// For those that are opened from now on. One whose messages the carrier no longer takes ends.
  void setOptions(const SessionOptions& options);
  /// The session that this bridge has opened with a machine, opened now if there is none.
  Session& ours(const std::string& machine, std::int64_t now);
  /// A message for a session, from a machine. Its bytes may be changed.
  void take(const std::string& machine, unsigned char* message, std::size_t size, std::int64_t now);
  /// The machine has sent something else.
  void heard(const std::string& machine, std::int64_t now);
  void carrierChanged(bool isUp, std::int64_t now);
  /// Ends all with a machine that has gone.
  void endAll(const std::string& machine, const std::string& why);
  /// The end of this bridge: the others are told.
  void endAll(const std::string& why);

  void flush(std::int64_t now);
  /// Does what is due, ends those that nobody has used for some time, and forgets those that have
  /// ended and that `isUsed` no longer names. Gives the milliseconds until there is more to do; -1:
  /// nothing by itself.
  std::int64_t step(std::int64_t now, const std::function<bool(const Session&)>& isUsed);

 private:
  /// How many may be there with one machine, those included whose links are still at their ends.
  static constexpr std::size_t kMostWithMachine = 8;
  /// How many that have ended are remembered.
  static constexpr std::size_t kMostEnded = 1024;
  /// Bytes that all sessions together may have under way to this bridge.
  static constexpr std::uint32_t kAllWindows = 32 << 20;

  using Key = std::pair<std::string, std::uint64_t>;

  Session* open(const std::string& machine, std::uint64_t id, bool isInitiator, std::int64_t now);
  void shareOutWindows();
  /// Calls `visit` with each session with the machine.
  template <class Visit>
  void eachWith(const std::string& machine, const Visit& visit) const {
    for (auto place = sessions_.lower_bound({machine, 0});
         place != sessions_.end() && place->first.first == machine; ++place)
      visit(*place->second);
  }
  std::size_t countWith(const std::string& machine) const;
  bool hasEnded(const std::string& machine, std::uint64_t id) const;

  SessionHost& host_;
  Transmit transmit_;
  SessionOptions options_;
  bool isUp_ = false;
  Key flushedFirst_;  // at the latest flush
  std::map<Key, std::unique_ptr<Session>> sessions_;
  std::deque<Key> ended_;  // whose first message, coming late, is not to open them again
};

}  // namespace bridge
