#pragma once
// The handlers of the operations the server implements, registered by type number.

#include "server/core/packet_log.h"
#include "server/core/request_dispatcher.h"
#include "server/targets/target_registry.h"

namespace qv::server {

// The server's own version, which GET_SERVER_VERSION reports.
inline constexpr uint32_t kServerVersion[4] = {5, 0, 10, 0};

// Registers every implemented operation with `dispatcher`; the handlers keep references to
// `registry` and `packet_log`, which must outlive it.
void RegisterHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry,
                      PacketLog& packet_log);

}  // namespace qv::server
