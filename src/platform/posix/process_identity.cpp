#include "platform/process_identity.h"

#include <unistd.h>

namespace qv::platform {

uint32_t CurrentProcessId() noexcept {
  return static_cast<uint32_t>(getpid());
}

}  // namespace qv::platform
