#pragma once
// Which debug backend stands behind a kit. The registry makes one for each target when it
// registers it and keeps it for the target's lifetime.

#include <functional>
#include <memory>

#include "server/debug/debug_backend.h"
#include "server/kits/scenario.h"

namespace qv::server {

// Makes the backend of one kit; `events` carries what the backend reports to the kit's
// subscribers. Tests give the registry a factory of their own.
using DebugBackendFactory =
    std::function<std::shared_ptr<DebugBackend>(const Kit& kit, std::shared_ptr<DebugEvents>)>;

// The server's own choice: the local target has the ptrace backend (Linux); a kit with program
// images has the virtual process backend; one without has the base backend, which answers every
// debug operation with "not available on this target".
std::shared_ptr<DebugBackend> MakeDebugBackend(const Kit& kit, std::shared_ptr<DebugEvents> events);

}  // namespace qv::server
