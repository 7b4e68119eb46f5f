#include "server/debug/debug_backends.h"

#include "server/debug/virtual/virtual_debug_backend.h"
#ifdef __linux__
#include "server/debug/local/local_debug_backend.h"
#endif

namespace qv::server {

std::shared_ptr<DebugBackend> MakeDebugBackend(const Kit& kit,
                                               std::shared_ptr<DebugEvents> events) {
#ifdef __linux__
  if (kit.local) return std::make_shared<LocalDebugBackend>(std::move(events));
#endif
  if (kit.images.empty()) return std::make_shared<DebugBackend>();
  return std::make_shared<VirtualDebugBackend>(kit.images, kit.timings.step_ms, std::move(events));
}

}  // namespace qv::server
