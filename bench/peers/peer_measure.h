// The measurements of bench/measure.h through a broker, and the far end that answers them. The
// payload of each message is one packet, so that orders and contents are those of the other paths.
//
// A stream is held back only by a window: so much may be under way without having been confirmed.
// Some brokers drop messages, or the receiver, when more waits than they like to keep.
#pragma once

#include "bench/measure.h"
#include "bench/peers/peer.h"

/// As the functions of bench/measure.h; `window` is in bytes of payload.
bool measureRoundTrips(PeerClient& client, std::uint32_t count, RoundTripTimes& times);
bool measureStream(PeerClient& client, const StreamOrder& order, std::int64_t window,
                   double& seconds);

/// Waits until the far end has told that it is ready.
bool awaitReady(PeerClient& client);
/// Serves as the far end until the path fails.
void serve(PeerClient& client, std::int64_t window);
