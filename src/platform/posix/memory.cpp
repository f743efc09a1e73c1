#include "platform/memory.h"

#include <malloc.h>

namespace platform {

// Without a fixed bound the allocator raises it to the largest block that was ever freed, and keeps
// as much.
void boundFreedMemory(int bytes) {
  mallopt(M_MMAP_THRESHOLD, bytes / 2);
  mallopt(M_TRIM_THRESHOLD, bytes);
}

void trimFreedMemory() {
  malloc_trim(0);
}

}  // namespace platform
