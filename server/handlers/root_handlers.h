#pragma once
// Handlers for the root object's server-wide operations: the host-exec switch, the server's log
// level, loading a core dump into its target and finding that target by its pseudo host, and
// the host drive's refusal.

#include <atomic>

#include "server/core/request_dispatcher.h"
#include "server/targets/target_registry.h"

namespace qv::server {

// Switches a client sets for the whole server; every client sees the same values, and they last
// as long as the server does.
struct ServerSwitches {
  std::atomic<bool> host_exec{false};
};

// Registers the handlers with `dispatcher`; they keep references to `registry` and `switches`,
// which must outlive it.
void RegisterRootHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry,
                          ServerSwitches& switches);

}  // namespace qv::server
