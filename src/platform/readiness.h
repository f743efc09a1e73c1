// The one place where the program sleeps: which descriptors can be read or written.
//
// A descriptor is registered once, edge-triggered, and counts as writable until a write hasn't
// fitted: only from then on room is announced, since some sockets would announce it whenever the
// peer has read. What a wait has learnt is remembered here for each descriptor until somebody has
// used it up, so that a step on one connection loses nothing of what it sees for the others: a
// reader clears `readable` when a read has emptied the socket, a writer clears `writable` when a
// write no longer fits.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace platform {

class ReadinessSet {
 public:
  ReadinessSet();
  ~ReadinessSet();
  ReadinessSet(const ReadinessSet&) = delete;
  ReadinessSet& operator=(const ReadinessSet&) = delete;

  /// Registers a descriptor, once; a further call does nothing. One that can't be watched (a plain
  /// file) counts as always ready.
  void watch(int descriptor);
  /// The same for a descriptor that becomes readable when a process ends.
  void watchProcess(int descriptor);
  /// Forgets a descriptor; must be called before it is closed.
  void forget(int descriptor);

  /// Whether long waits may begin with a busy one (busy polling): on a machine with several
  /// processors it takes longer to fall asleep and be woken than most answers take. A wait looks
  /// again and again for 50 us at most, and only while those before it have ended as soon.
  void setBusyPolling(bool flag);
  /// Sleeps until something that wasn't known yet has become ready, or the time is up. Negative
  /// time: no limit. False if an interrupt ended the wait or the wait failed; `failed` tells which.
  bool wait(int milliseconds, bool& failed);

  /// Ends the wait that is under way, or else the next one. From any thread, as nothing else here.
  void wake();
  /// A descriptor that can be read when a wait would end before its time, for loops that wait by
  /// other means; -1 if there is none. It is the set's.
  int descriptor() const;

  /// The descriptors of which something has become known since forgetNews(), each at least once;
  /// some may have been closed since.
  const std::vector<int>& news() const { return news_; }
  bool hasNews() const { return !news_.empty(); }
  void forgetNews() { news_.clear(); }

  /// Whether a watched process has ended since the last call.
  bool takeProcessEnded() { return std::exchange(processEnded_, false); }

  bool isReadable(int descriptor) const { return (flags(descriptor) & kReadable) != 0; }
  bool isWritable(int descriptor) const { return (flags(descriptor) & kWritable) != 0; }
  /// The peer has closed, or the connection has failed.
  bool isHungUp(int descriptor) const { return (flags(descriptor) & kHungUp) != 0; }
  /// Has the descriptor read again although no event has announced anything.
  void markReadable(int descriptor) {
    if (!(flags(descriptor) & kWatched)) return;
    flags_[static_cast<std::size_t>(descriptor)] |= kReadable;
    news_.push_back(descriptor);
  }
  /// A read has taken all there was. Keeps the mark if the peer has hung up, since the end of the
  /// stream is still to be read and no further event would announce it.
  void clearReadable(int descriptor) {
    if (!(flags(descriptor) & kHungUp)) clear(descriptor, kReadable);
  }
  /// A read would have blocked: nothing is left, whatever was known.
  void drained(int descriptor) { clear(descriptor, kReadable); }
  void clearWritable(int descriptor);

 private:
  static constexpr std::uint8_t kWatched = 1, kReadable = 2, kWritable = 4, kHungUp = 8,
                                kAlways = 16, kProcess = 32, kArmed = 64;
  std::uint8_t flags(int descriptor) const {
    const auto index = static_cast<std::size_t>(descriptor);
    return index < flags_.size() ? flags_[index] : std::uint8_t{0};
  }
  void arm(int descriptor, bool room);
  void clear(int descriptor, std::uint8_t flag) {
    if ((flags(descriptor) & kWatched) && !(flags(descriptor) & kAlways))
      flags_[static_cast<std::size_t>(descriptor)] &= static_cast<std::uint8_t>(~flag);
  }

  int look(int milliseconds, bool& failed);
  int lookBusily(std::uint64_t begin, bool& failed);
  int sleepUntil(std::uint64_t end, int milliseconds, bool& failed);
  bool setAlarm(std::uint64_t latest);

  int set_;
  int alarm_ = -1;                   // a timer, or -1 if none is to be had
  int waker_ = -1;                   // what wake() writes to; the same
  std::uint64_t alarmAt_ = 0;        // ms of the steady clock; 0 if it isn't set
  std::vector<std::uint8_t> flags_;  // by descriptor
  std::vector<int> news_;
  bool processEnded_ = false;
  bool mayPoll_ = false;
  int quickWaits_ = 0;  // long waits in a row that have ended soon
};

/// The set of this process.
ReadinessSet& readiness();

}  // namespace platform
