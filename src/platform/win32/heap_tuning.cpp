#include "platform/heap_tuning.h"

namespace qv::platform {

// The Windows heap serves large blocks from virtual memory of their own, whatever is asked.
void KeepLargeBlocksOnHeap() noexcept {}

}  // namespace qv::platform
