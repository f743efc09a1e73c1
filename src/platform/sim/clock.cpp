// The clocks of the simulated machine, which stand still until the driver moves them.
#include "platform/clock.h"

#include "platform/sim/world.h"

namespace platform {

std::uint64_t monotonicMilliseconds() {
  return sim::World::current().now();
}

std::uint64_t monotonicNanoseconds() {
  return monotonicMilliseconds() * 1000000u;
}

std::int64_t unixMilliseconds() {
  sim::World& world = sim::World::current();
  return world.wallStart + static_cast<std::int64_t>(world.now());
}

void sleepMilliseconds(int milliseconds) {
  sim::World& world = sim::World::current();
  world.idle();
  if (milliseconds > 0 && !world.self().killed)
    world.waitUntil(world.now() + static_cast<std::uint64_t>(milliseconds), nullptr);
}

}  // namespace platform
