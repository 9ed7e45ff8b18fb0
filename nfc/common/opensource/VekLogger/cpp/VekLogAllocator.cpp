// Giving freed memory back to the system, the one thing this library asks of the allocator that
// differs between the C libraries.
#include <malloc.h>

#include "VekLogPlatform.h"

namespace vek {

void releaseFreeMemory() {
#if defined(__BIONIC__)
  // Scudo and jemalloc return freed pages on their own schedule; M_PURGE does it now.
  mallopt(M_PURGE, 0);
#else
  // glibc keeps freed pages in its arenas until malloc_trim gives them back.
  malloc_trim(0);
#endif
}

}  // namespace vek
