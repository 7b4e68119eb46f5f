#pragma once
// Handlers for the debug operations: each goes to the target's debug backend.

#include "server/core/request_dispatcher.h"
#include "server/targets/target_registry.h"

namespace qv::server {

// Registers one handler per debug operation with `dispatcher`; they keep a reference to
// `registry`, which must outlive it.
void RegisterDebugHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry);

}  // namespace qv::server
