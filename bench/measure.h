// The measurements. Each is one run on one path; the caller goes round the paths.
#pragma once

#include <cstdint>

#include "bench/packet_socket.h"

/// How much one run does.
struct RunSize {
  std::uint32_t roundTrips = 20000;
  std::uint32_t smallPackets = 1000000;
  std::uint32_t largePackets = 8000;
};

inline constexpr std::int32_t kSmallPayload = 64;
inline constexpr std::int32_t kLargePayload = 65536;

struct RoundTripTimes {
  double median = 0;  ///< microseconds
  double p99 = 0;     ///< microseconds
};

/// Sends a packet of 64 bytes and waits for the one that comes back, `count` times. False with the
/// failure in `socket`.
bool measureRoundTrips(PacketSocket& socket, std::uint32_t count, RoundTripTimes& times);

/// Sends a stream as fast as it goes, and stops the clock when the far end has told that all of it
/// has arrived. With `order.compare` set the far end has compared every byte, and the time means
/// nothing. False as above.
bool measureStream(PacketSocket& socket, const StreamOrder& order, double& seconds);

/// The two steps of it: the far end gets ready; then the stream goes, of which `batch` is a part
/// that makeBatch has made, and has arrived.
bool announceStream(PacketSocket& socket, const StreamOrder& order);
bool carryStream(PacketSocket& socket, const StreamOrder& order, const Bytes& batch);
