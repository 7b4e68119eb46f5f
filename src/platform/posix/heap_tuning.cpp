#include "platform/heap_tuning.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace qv::platform {

void KeepLargeBlocksOnHeap() noexcept {
#if defined(__GLIBC__)
  // glibc's largest accepted threshold on 64-bit systems.
  constexpr int kLargestKept = 32 << 20;
  mallopt(M_MMAP_THRESHOLD, kLargestKept);
  mallopt(M_TRIM_THRESHOLD, 2 * kLargestKept);
#endif
}

}  // namespace qv::platform
