#include "platform/memory.h"

#include <malloc.h>

namespace platform {

void TuneAllocator() {
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_TRIM_THRESHOLD, 1 << 20);
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
}

void TrimAllocator() { malloc_trim(0); }

}  // namespace platform
