// The two clocks of the program.
#pragma once

#include <cstdint>

/// Milliseconds of a clock that never goes back, in 32 bits: it wraps after about 49.7 days, and
/// only differences mean anything.
std::uint32_t tickCount();

/// The wall clock in milliseconds since the start of 1601 in UTC; 0 if it can't be read.
std::int64_t systemTimeMilliseconds();
