// Shares out the memory for packets that are too large for the credit of a link: on all links of a
// session together as much as one packet may have at most. A packet has its share, of its whole
// size, from early in its arrival until it has left; others wait for theirs in turn.
#pragma once

#include <cstdint>
#include <deque>

#include "stp_transport/wire/stp_wire.h"

namespace bridge {

class LargePackets {
 public:
  class Taker {
   public:
    virtual ~Taker() = default;
    /// What it waits for is there.
    virtual void largePacketGranted() = 0;
  };

  /// False: `taker`, which stays the caller's, waits and is called. `bytes` is at most
  /// STP_MAX_PACKET_SIZE.
  bool reserve(Taker& taker, std::int64_t bytes);
  /// Gives back, and grants what waited for it.
  void release(std::int64_t bytes);
  /// It doesn't wait any longer.
  void forget(const Taker& taker);

 private:
  struct Waiting {
    Taker* taker;
    std::int64_t bytes;
  };

  void grantWaiting();

  std::int64_t left_ = STP_MAX_PACKET_SIZE;
  std::deque<Waiting> waiting_;
};

}  // namespace bridge
