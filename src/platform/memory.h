// What the process keeps of the memory that it has freed.
#pragma once

namespace platform {

/// Has large blocks go back to the system as soon as they are freed, instead of staying with the
/// allocator for the next burst (mallopt(3)). For a process that runs for days and is idle for most
/// of them.
void returnFreedMemory();

/// Gives what has been freed so far back to the system, also from between what is still in use
/// (malloc_trim(3)). Takes time: for the end of a burst.
void trimFreedMemory();

}  // namespace platform
