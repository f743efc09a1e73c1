// What the process keeps of the memory that it has freed.
#pragma once

namespace platform {

/// Has large blocks go back to the system as soon as they are freed, instead of staying with the
/// allocator for the next burst (mallopt(3)). For a process that runs for days and is idle for most
/// of them.
void returnFreedMemory();

}  // namespace platform
