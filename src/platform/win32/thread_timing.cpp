#include "platform/thread_timing.h"

namespace qv::platform {

void UsePreciseTimedWaits() noexcept {}

}  // namespace qv::platform
