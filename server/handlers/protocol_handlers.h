#pragma once
// Handlers for the generic protocol channels: each goes to the target's protocol endpoints.

#include "server/core/request_dispatcher.h"
#include "server/targets/target_registry.h"

namespace qv::server {

// Registers GENERIC_PROTOCOL_OPEN, _CLOSE, _READ, _WRITE and _STATUS with `dispatcher`; they keep
// a reference to `registry`, which must outlive it.
void RegisterProtocolHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry);

}  // namespace qv::server
