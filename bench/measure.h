// The measurements. Each is one block on one path; the caller goes from path to path.
#pragma once

#include <cstdint>
#include <functional>

#include "bench/lane.h"

/// How much one block does.
struct BlockSize {
  std::uint32_t roundTrips = 3000;
  std::uint32_t smallPackets = 1000000;
  std::uint32_t largePackets = 2000;
};

inline constexpr std::int32_t kSmallPayload = 64;
inline constexpr std::int32_t kLargePayload = 65536;

struct RoundTripTimes {
  double median = 0;   ///< microseconds
  double p99 = 0;      ///< microseconds
  double longest = 0;  ///< microseconds
};

/// Sends a packet of 64 bytes on the first pair and waits for the one that comes back, `count`
/// times, with `before` ahead of each if it is given. False with the failure in the lane.
bool measureRoundTrips(Lane& lane, std::uint32_t count, RoundTripTimes& times,
                       const std::function<bool()>& before = {});

/// The same from a thread of its own, for as long as `work` runs on this one. Who waits for a
/// packet sends none, and so a link that stands still for a while would hardly be seen among
/// thousands that don't: one that takes longer than `usual` microseconds counts for each that would
/// have been begun in the meantime too.
bool measureRoundTripsBeside(Lane& lane, const std::function<void()>& work, double usual,
                             RoundTripTimes& times);

/// Sends a stream on every pair at once, each from a thread of its own and as fast as it goes. The
/// seconds from the first byte until the last far end has told that all of its stream has arrived.
/// With `order.compare` set every byte is compared, and the time means nothing. False as above.
bool measureStreams(Lane& lane, const StreamOrder& order, double& seconds);
