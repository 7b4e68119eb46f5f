#include "platform/process_identity.h"

#include <windows.h>

namespace qv::platform {

uint32_t CurrentProcessId() noexcept {
  return GetCurrentProcessId();
}

}  // namespace qv::platform
