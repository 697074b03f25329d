#include "core/allocator_tuning.hpp"

#include <cstdlib>  // defines __GLIBC__ where it is the C library

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace quorel {

namespace {

// A year of history answers in a few megabytes and is mapped on its own; an hour or a day of it
// stays below this and is served from the heap.
constexpr int kMapThreshold = 1 << 20;
// Twice the largest block served from the heap, so that freeing one never trims.
constexpr int kTrimThreshold = 2 << 20;

}  // namespace

bool keepFreedMemoryForReuse() {
#if defined(__GLIBC__)
  // Setting either turns off the library's own adjustment of both, so both are set.
  return mallopt(M_MMAP_THRESHOLD, kMapThreshold) == 1 &&
         mallopt(M_TRIM_THRESHOLD, kTrimThreshold) == 1;
#else
  return false;
#endif
}

}  // namespace quorel
