// What the process keeps of the memory that it has freed.
#pragma once

namespace platform {

/// How many bytes that are freed may stay with the allocator for the next burst; what is beyond
/// goes back to the system, and blocks of half of it always do (mallopt(3)). Less is for a process
/// that is idle for most of its days, more for one in a stream: fresh memory costs a page fault for
/// each 4 KiB.
void boundFreedMemory(int bytes);

/// Gives what has been freed so far back to the system, also from between what is still in use
/// (malloc_trim(3)). Takes time: for the end of a burst.
void trimFreedMemory();

}  // namespace platform
