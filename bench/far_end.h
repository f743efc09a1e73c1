// The far end of a path: a process that does what the driver's packets tell it to, until the path
// is closed. It is the same code whatever lies between.
#pragma once

#include <cstdint>

/// Reaches the driver, or a relay before it, on `port`. The exit code of its process.
int runPlainFarEnd(std::uint16_t port);
/// Reaches the driver's plugin of that pair as a plugin of the hub on `port`.
int runHubFarEnd(std::uint16_t port, int pair);
