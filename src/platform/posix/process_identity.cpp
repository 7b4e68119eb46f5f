#include "platform/process_identity.h"

#include <unistd.h>

#include "platform/pipe.h"

namespace qv::platform {

uint32_t CurrentProcessId() noexcept {
  return static_cast<uint32_t>(getpid());
}

std::optional<std::string> ServerRuntimeDirectory(std::string* problem) noexcept {
  return RuntimeDirectory(problem);
}

}  // namespace qv::platform
