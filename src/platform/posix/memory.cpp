#include "platform/memory.h"

#include <malloc.h>

namespace platform {

// Without a fixed bound the allocator raises it to the largest block that was ever freed, and keeps
// as much.
void returnFreedMemory() {
  constexpr int kLargeBlock = 1 << 20;
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, 2 * kLargeBlock);
}

void trimFreedMemory() {
  malloc_trim(0);
}

}  // namespace platform
