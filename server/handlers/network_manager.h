#pragma once
// The server's network manager: the part that carries requests to kits. Clients switch its
// diagnostic log on and off, keep a packet log of the traffic to kits alone (apart from the
// server's whole packet log), and read what it has done.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "server/core/packet_log.h"
#include "server/core/request_dispatcher.h"
#include "server/targets/target_registry.h"

namespace qv::server {

class NetworkManager {
 public:
  // Sees every request and its answer; only those addressed to a target are the manager's.
  void Observe(const RequestContext& context, const CRequest* request, const CResponse& response);

  void SetLogging(bool enabled) { logging_.store(enabled); }
  bool Logging() const { return logging_.load(); }
  Status StartPacketLog(const std::u16string& path);
  Status StopPacketLog();
  // "Targets", "Requests", "Failed", "Logging" and "PacketLog", as texts.
  NameValueList Info(const TargetRegistry& registry) const;

 private:
  std::atomic<bool> logging_{false};
  std::atomic<uint64_t> requests_{0};
  std::atomic<uint64_t> failed_{0};
  PacketLog packet_log_;
  mutable std::mutex path_mutex_;
  std::u16string packet_log_path_;  // guarded by path_mutex_; empty while no log is kept
};

// Registers the manager's operations and chains its observer after the dispatcher's present
// one; `manager` and `registry` must outlive the dispatcher.
void RegisterNetworkManagerHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry,
                                    NetworkManager& manager);

}  // namespace qv::server
