// The clocks of the machine.
#pragma once

#include <cstdint>

namespace platform {

/// Milliseconds of a clock that never goes back; only differences mean anything.
std::uint64_t monotonicMilliseconds();

/// The same clock in nanoseconds.
std::uint64_t monotonicNanoseconds();

/// The wall clock: milliseconds since 1970 in UTC, or -1 if it can't be read.
std::int64_t unixMilliseconds();

/// Does nothing for that many milliseconds.
void sleepMilliseconds(int milliseconds);

}  // namespace platform
