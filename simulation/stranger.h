// Processes of another user on the hub's machine, who try to get in. What they must not reach the
// machine watches (platform::sim::World::guarded).
#pragma once

#include <cstdint>
#include <string>

namespace platform::sim {
class World;
}

/// A program that a stranger asks the hub to start.
inline constexpr const char* kBooty = "booty";

/// Starts one who comes to some port by either road, asks there for a program, and goes at once or
/// when he is sent away.
void startIntruder(platform::sim::World& world, std::uint32_t machine, std::uint64_t choice);
/// Starts one who holds the names that go with the ports which are given out next, and a port of
/// his own; the port.
std::uint16_t startSquatter(platform::sim::World& world, std::uint32_t machine);
