#include "server/handlers/network_manager.h"

#include <cstdio>
#include <string>
#include <utility>

#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "server/core/server_log.h"
#include "serverlink/frame.h"

namespace qv::server {

void NetworkManager::Observe(const RequestContext& context, const CRequest* request,
                             const CResponse& response) {
  if (context.target == kNoTarget) return;
  requests_.fetch_add(1, std::memory_order_relaxed);
  if (response.Result != 0) failed_.fetch_add(1, std::memory_order_relaxed);
  packet_log_.Record(context, request, response);
  if (!logging_.load()) return;
  char result[16];
  std::snprintf(result, sizeof result, "0x%08X", static_cast<unsigned>(response.Result));
  ServerLog(kLogErrors,
            "network manager: client " + std::to_string(context.client_id) + " target " +
                std::to_string(context.target) + " " +
                (request != nullptr ? platform::Utf16ToUtf8(request->GetName()) : "UNKNOWN") +
                " -> " + result);
}

Status NetworkManager::StartPacketLog(const std::u16string& path) {
  Status status = packet_log_.Start(path);
  if (status.ok()) {
    std::lock_guard lock(path_mutex_);
    packet_log_path_ = path;
  }
  return status;
}

Status NetworkManager::StopPacketLog() {
  {
    std::lock_guard lock(path_mutex_);
    packet_log_path_.clear();
  }
  return packet_log_.Stop();
}

NameValueList NetworkManager::Info(const TargetRegistry& registry) const {
  const auto text = [](uint64_t value) { return platform::Utf8ToUtf16(std::to_string(value)); };
  NameValueList info;
  info.push_back({u"Targets", text(registry.TargetList().size())});
  info.push_back({u"Requests", text(requests_.load())});
  info.push_back({u"Failed", text(failed_.load())});
  info.push_back({u"Logging", logging_.load() ? u"On" : u"Off"});
  std::lock_guard lock(path_mutex_);
  info.push_back({u"PacketLog", packet_log_path_});
  return info;
}

void RegisterNetworkManagerHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry,
                                    NetworkManager& manager) {
  dispatcher.Register<CSetNetworkManagerLoggingRequest, CSetNetworkManagerLoggingResponse>(
      [&manager](const RequestContext&, CSetNetworkManagerLoggingRequest& request,
                 CSetNetworkManagerLoggingResponse&) {
        manager.SetLogging(request.Enable);
        return Status::Ok();
      });
  dispatcher.Register<CGetNetworkManagerLoggingRequest, CGetNetworkManagerLoggingResponse>(
      [&manager](const RequestContext&, CGetNetworkManagerLoggingRequest&,
                 CGetNetworkManagerLoggingResponse& response) {
        response.Enabled = manager.Logging();
        return Status::Ok();
      });
  dispatcher.Register<CStartNetMngrPacketLoggingRequest, CStartNetMngrPacketLoggingResponse>(
      [&manager](const RequestContext&, CStartNetMngrPacketLoggingRequest& request,
                 CStartNetMngrPacketLoggingResponse&) {
        return manager.StartPacketLog(request.FileName);
      });
  dispatcher.Register<CStopNetMngrPacketLoggingRequest, CStopNetMngrPacketLoggingResponse>(
      [&manager](const RequestContext&, CStopNetMngrPacketLoggingRequest&,
                 CStopNetMngrPacketLoggingResponse&) { return manager.StopPacketLog(); });
  dispatcher.Register<CGetNetworkManagerInfoRequest, CGetNetworkManagerInfoResponse>(
      [&manager, &registry](const RequestContext&, CGetNetworkManagerInfoRequest&,
                            CGetNetworkManagerInfoResponse& response) {
        response.Info = manager.Info(registry);
        return Status::Ok();
      });
  auto earlier = std::move(dispatcher.observer);
  dispatcher.observer = [earlier = std::move(earlier), &manager](const RequestContext& context,
                                                                 const CRequest* request,
                                                                 const CResponse& response) {
    if (earlier) earlier(context, request, response);
    manager.Observe(context, request, response);
  };
}

}  // namespace qv::server
