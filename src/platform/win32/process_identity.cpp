#include "platform/process_identity.h"

#include <windows.h>

namespace qv::platform {

uint32_t CurrentProcessId() noexcept {
  return GetCurrentProcessId();
}

std::optional<std::string> ServerRuntimeDirectory(std::string*) noexcept {
  return std::string();
}

}  // namespace qv::platform
