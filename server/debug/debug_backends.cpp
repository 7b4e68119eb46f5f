#include "server/debug/debug_backends.h"

#include "server/debug/virtual/virtual_debug_backend.h"

namespace qv::server {

std::shared_ptr<DebugBackend> MakeDebugBackend(const Kit& kit,
                                               std::shared_ptr<DebugEvents> events) {
  if (kit.images.empty()) return std::make_shared<DebugBackend>();
  return std::make_shared<VirtualDebugBackend>(kit.images, kit.timings.step_ms, std::move(events));
}

}  // namespace qv::server
