// The smallest program that can stand between two ends: it receives what one has sent and sends it
// to the other, and knows nothing of packets. What the hub costs more than this is the hub's own.
#pragma once

#include <cstdint>

#include "bench/loopback.h"

/// Connects `pairs` times to the driver on `port`, tells it on the first connection, in one 32-bit
/// word, the port on which it waits for as many far ends, and passes bytes on within each pair
/// until any end closes. All of it on `road`. The exit code of its process.
int runRelay(std::uint16_t port, int pairs, Road road);
