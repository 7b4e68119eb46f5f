#include "server/debug/debug_backends.h"

namespace qv::server {

std::shared_ptr<DebugBackend> MakeDebugBackend(const Kit&, std::shared_ptr<DebugEvents>) {
  return std::make_shared<DebugBackend>();
}

}  // namespace qv::server
