// Whether those who send to a receiver wait for it: how it keeps up with what waits for it.
//
// As soon as more than `stpProcess().holdLimit` bytes wait, those who send to it are held up: what
// waits with them costs no copy here, and the wait travels back to where the bytes come from. That
// lasts as long as the receiver takes bytes quickly, until half of them have gone. One that doesn't
// take that half within kPatience is slow: for it bytes are read on and stored, so that it holds up
// nobody's other links, until it takes bytes quickly again. Up to the hard limit, that is: a full
// one stops them for good.
//
// The limit trades copies and memory against idling: with a larger one a short delay of the
// receiver costs more copies of bytes that leave the caches meanwhile, a smaller one runs out
// before the senders have their turn again. kPatience trades the other links of those who are held
// up, which a receiver that has just stopped delays by that much, against receivers that are only
// kept from the processor for a moment, for which everything would be stored.
#pragma once

#include <cstdint>

class STPBacklog {
 public:
  static constexpr std::uint64_t kPatience = 5;  ///< ms

  /// The senders wait.
  bool isHeld() const { return state_ == State::held; }
  bool isSlow() const { return state_ == State::slow; }
  /// Since when it hasn't kept up, in ms of the clock of `now`; 0 if it does.
  std::uint64_t slowSince() const { return wasSlow_ ? slowSince_ : 0; }
  /// Number of the latest hold: who waits for one isn't concerned by the next, so that each of many
  /// senders gets its turn between two.
  std::uint32_t turn() const { return turn_; }
  /// When expire() is due, of the clock of `now`; while held.
  std::uint64_t deadline() const { return windowEnd_; }

  /// Whether a hold begins when so many bytes wait after some have been added.
  bool isTooMuch(std::int64_t waiting) const;
  void hold(std::uint64_t now);
  /// Whether took() is to be told of what has gone.
  bool isWatched() const { return state_ != State::quick || releaseAt_ != 0; }
  void took(std::int64_t bytes, std::int64_t waiting, std::uint64_t now);
  /// Ends a hold that has lasted too long.
  void expire(std::uint64_t now);
  /// More waits than may, whoever takes it: that is the transport's to see, and those who send
  /// wait for as long as it says.
  bool isFull() const { return full_; }
  void setFull(bool flag) { full_ = flag; }
  /// Whether one who has come to wait in this turn waits still.
  bool stops(std::uint32_t turn) const { return full_ || (isHeld() && turn_ == turn); }
  /// Nothing waits any more.
  void reset();

 private:
  enum class State : std::uint8_t { quick, held, slow };

  void openWindow(std::uint64_t now);

  State state_ = State::quick;
  bool full_ = false;
  std::uint32_t turn_ = 0;
  std::uint64_t windowEnd_ = 0;  // of the time in which it must take half of the limit
  std::int64_t taken_ = 0;       // bytes within that time
  std::int64_t releaseAt_ = 0;   // bytes at which a hold ends; 0 for half of the limit
  std::uint64_t slowSince_ = 0;  // when the first hold of a row has begun
  bool wasSlow_ = false;         // since then
};
