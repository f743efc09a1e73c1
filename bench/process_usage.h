// What another process has used up so far, from /proc (proc(5)).
#pragma once

#include <optional>

#include "platform/process.h"

/// Milliseconds that its main thread has run; none if that can't be had.
std::optional<double> processorMilliseconds(platform::ProcessId process);
/// Bytes of memory that it has in RAM; none if that can't be had.
std::optional<double> residentBytes(platform::ProcessId process);
