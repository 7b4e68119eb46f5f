#include "platform/thread_timing.h"

#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace qv::platform {

void UsePreciseTimedWaits() noexcept {
#ifdef __linux__
  prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);  // nanoseconds
#endif
}

}  // namespace qv::platform
