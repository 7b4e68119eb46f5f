#include "server/handlers/handlers.h"

#include <cstdio>
#include <string>

#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "server/core/server_log.h"
#include "server/handlers/debug_handlers.h"
#include "server/handlers/protocol_handlers.h"

namespace qv::server {
namespace {

using Context = RequestContext;

// REQUEST_<Group>_EVENTS and CANCEL_<Group>_EVENTS of one event group. The key is the request's
// target handle (the Server group's is always 0xFFFFFFFF). A cancel succeeds whether or not the
// subscription existed.
template <class Subscribe, class SubscribeResponse, class Cancel, class CancelResponse>
void RegisterGroup(RequestDispatcher& dispatcher, TargetRegistry& registry, EventGroup group) {
  dispatcher.Register<Subscribe, SubscribeResponse>(
      [&registry, group](const Context& context, Subscribe&, SubscribeResponse&) {
        return registry.Subscribe(context.client_id, group, context.target);
      });
  dispatcher.Register<Cancel, CancelResponse>(
      [&registry, group](const Context& context, Cancel&, CancelResponse&) {
        registry.Unsubscribe(context.client_id, group, context.target);
        return Status::Ok();
      });
}

void RegisterSubscriptions(RequestDispatcher& dispatcher, TargetRegistry& registry) {
#define VEKX_EVENT_GROUP(Group)                                                  \
  RegisterGroup<CRequest##Group##EventsRequest, CRequest##Group##EventsResponse, \
                CCancel##Group##EventsRequest, CCancel##Group##EventsResponse>(  \
      dispatcher, registry, EventGroup::Group);
  VEKX_FOR_EACH_EVENT_GROUP(VEKX_EVENT_GROUP)
#undef VEKX_EVENT_GROUP
}

void RegisterTargetList(RequestDispatcher& dispatcher, TargetRegistry& registry) {
  dispatcher.Register<CAddTargetRequest, CAddTargetResponse>(
      [&registry](const Context&, CAddTargetRequest& request, CAddTargetResponse& response) {
        return registry.AddTarget(request.TargetType, request.HostName, response.Handle);
      });
  dispatcher.Register<CDeleteTargetRequest, CDeleteTargetResponse>(
      [&registry](const Context& context, CDeleteTargetRequest&, CDeleteTargetResponse&) {
        return registry.DeleteTarget(context.target);
      });
  dispatcher.Register<CGetTargetListRequest, CGetTargetListResponse>(
      [&registry](const Context&, CGetTargetListRequest&, CGetTargetListResponse& response) {
        response.Targets = registry.TargetList();
        return Status::Ok();
      });
  dispatcher.Register<CGetTargetsByHostRequest, CGetTargetsByHostResponse>(
      [&registry](const Context&, CGetTargetsByHostRequest& request,
                  CGetTargetsByHostResponse& response) {
        if (request.HostName.empty()) {
          return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the host name is empty");
        }
        response.Targets = registry.TargetsByHost(request.HostName);
        return Status::Ok();
      });
  dispatcher.Register<CGetTargetsByNameRequest, CGetTargetsByNameResponse>(
      [&registry](const Context&, CGetTargetsByNameRequest& request,
                  CGetTargetsByNameResponse& response) {
        if (request.Name.empty()) {
          return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the target name is empty");
        }
        response.Targets = registry.TargetsByName(request.Name);
        return Status::Ok();
      });
  dispatcher.Register<CGetDefaultTargetRequest, CGetDefaultTargetResponse>(
      [&registry](const Context&, CGetDefaultTargetRequest&, CGetDefaultTargetResponse& response) {
        return registry.GetDefaultTarget(response.Handle);
      });
  dispatcher.Register<CSetDefaultTargetRequest, CSetDefaultTargetResponse>(
      [&registry](const Context&, CSetDefaultTargetRequest& request, CSetDefaultTargetResponse&) {
        return registry.SetDefaultTarget(request.Handle);
      });
  dispatcher.Register<CGetTargetSummaryRequest, CGetTargetSummaryResponse>(
      [&registry](const Context&, CGetTargetSummaryRequest& request,
                  CGetTargetSummaryResponse& response) {
        return registry.TargetSummary(request.Host, response.Summary);
      });
  dispatcher.Register<CDiscoverTargetsRequest, CDiscoverTargetsResponse>(
      [&registry](const Context&, CDiscoverTargetsRequest&, CDiscoverTargetsResponse& response) {
        response.Addresses = registry.Discover();
        return Status::Ok();
      });
  dispatcher.Register<CFindTargetsRequest, CFindTargetsResponse>(
      [&registry](const Context&, CFindTargetsRequest& request, CFindTargetsResponse&) {
        return registry.FindTargets(request.Rules);
      });
  // A search is over before FIND_TARGETS is answered: there is never one left to cancel.
  dispatcher.Register<CCancelFindTargetsRequest, CCancelFindTargetsResponse>(
      [](const Context&, CCancelFindTargetsRequest&, CCancelFindTargetsResponse&) {
        return Status::Ok();
      });
  dispatcher.Register<CFindMiradorTargetsRequest, CFindMiradorTargetsResponse>(
      [&registry](const Context&, CFindMiradorTargetsRequest& request,
                  CFindMiradorTargetsResponse&) {
        return registry.FindMiradorTargets(request.Rules);
      });
  dispatcher.Register<CCancelFindMiradorTargetsRequest, CCancelFindMiradorTargetsResponse>(
      [](const Context&, CCancelFindMiradorTargetsRequest&, CCancelFindMiradorTargetsResponse&) {
        return Status::Ok();
      });
}

void RegisterTargetProperties(RequestDispatcher& dispatcher, TargetRegistry& registry) {
  dispatcher.Register<CGetTargetInfoRequest, CGetTargetInfoResponse>(
      [&registry](const Context& context, CGetTargetInfoRequest&,
                  CGetTargetInfoResponse& response) {
        return registry.TargetInfo(context.target, response.Info);
      });
  dispatcher.Register<CGetHostNameRequest, CGetHostNameResponse>(
      [&registry](const Context& context, CGetHostNameRequest&, CGetHostNameResponse& response) {
        return registry.HostName(context.target, response.HostName);
      });
  dispatcher.Register<CGetTargetNameRequest, CGetTargetNameResponse>(
      [&registry](const Context& context, CGetTargetNameRequest&,
                  CGetTargetNameResponse& response) {
        return registry.TargetName(context.target, false, response.Name);
      });
  dispatcher.Register<CGetCachedTargetNameRequest, CGetCachedTargetNameResponse>(
      [&registry](const Context& context, CGetCachedTargetNameRequest&,
                  CGetCachedTargetNameResponse& response) {
        return registry.TargetName(context.target, true, response.Name);
      });
  dispatcher.Register<CSetTargetNameRequest, CSetTargetNameResponse>(
      [&registry](const Context& context, CSetTargetNameRequest& request, CSetTargetNameResponse&) {
        return registry.SetTargetName(context.target, request.Name);
      });
  dispatcher.Register<CGetMacAddressRequest, CGetMacAddressResponse>(
      [&registry](const Context& context, CGetMacAddressRequest&,
                  CGetMacAddressResponse& response) {
        return registry.MacAddress(context.target, response.MacAddress);
      });
  dispatcher.Register<CSetCachedMacAddressRequest, CSetCachedMacAddressResponse>(
      [&registry](const Context& context, CSetCachedMacAddressRequest& request,
                  CSetCachedMacAddressResponse&) {
        return registry.SetCachedMacAddress(context.target, request.MacAddress);
      });
  dispatcher.Register<CSetCachedSubnetMaskRequest, CSetCachedSubnetMaskResponse>(
      [&registry](const Context& context, CSetCachedSubnetMaskRequest& request,
                  CSetCachedSubnetMaskResponse&) {
        return registry.SetCachedSubnetMask(context.target, request.SubnetMask);
      });
  dispatcher.Register<CGetCachedSubnetMaskRequest, CGetCachedSubnetMaskResponse>(
      [&registry](const Context& context, CGetCachedSubnetMaskRequest&,
                  CGetCachedSubnetMaskResponse& response) {
        return registry.CachedSubnetMask(context.target, response.SubnetMask);
      });
  dispatcher.Register<CGetSdkVersionRequest, CGetSdkVersionResponse>(
      [&registry](const Context& context, CGetSdkVersionRequest&,
                  CGetSdkVersionResponse& response) {
        std::array<uint32_t, 4> version{};
        Status status = registry.SdkVersion(context.target, version);
        response.Major = version[0];
        response.Minor = version[1];
        response.Patch = version[2];
        response.Build = version[3];
        return status;
      });
  dispatcher.Register<CGetTargetBusyStateRequest, CGetTargetBusyStateResponse>(
      [&registry](const Context& context, CGetTargetBusyStateRequest&,
                  CGetTargetBusyStateResponse& response) {
        return registry.BusyCount(context.target, response.BusyCount);
      });
  dispatcher.Register<CGetConnectionInfoRequest, CGetConnectionInfoResponse>(
      [&registry](const Context& context, CGetConnectionInfoRequest&,
                  CGetConnectionInfoResponse& response) {
        return registry.ConnectionInfo(context.target, response.ConnectionInfo);
      });
}

void RegisterPowerAndConnection(RequestDispatcher& dispatcher, TargetRegistry& registry) {
  dispatcher.Register<CPowerStatusRequest, CPowerStatusResponse>(
      [&registry](const Context& context, CPowerStatusRequest&, CPowerStatusResponse& response) {
        PowerStatus status = PowerStatus::kUnknown;
        Status result = registry.PowerStatusOf(context.target, status);
        response.PowerStatus = static_cast<uint32_t>(status);
        return result;
      });
  dispatcher.Register<CPowerOnRequest, CPowerOnResponse>(
      [&registry](const Context& context, CPowerOnRequest&, CPowerOnResponse&) {
        return registry.PowerOn(context.client_id, context.target);
      },
      RequestDispatcher::Timing::kMayWait);
  dispatcher.Register<CPowerOffRequest, CPowerOffResponse>(
      [&registry](const Context& context, CPowerOffRequest&, CPowerOffResponse&) {
        return registry.PowerOff(context.client_id, context.target);
      },
      RequestDispatcher::Timing::kMayWait);
  dispatcher.Register<CForcePowerOffRequest, CForcePowerOffResponse>(
      [&registry](const Context& context, CForcePowerOffRequest&, CForcePowerOffResponse&) {
        return registry.ForcePowerOff(context.client_id, context.target);
      },
      RequestDispatcher::Timing::kMayWait);
  dispatcher.Register<CRebootRequest, CRebootResponse>(
      [&registry](const Context& context, CRebootRequest&, CRebootResponse&) {
        return registry.Reboot(context.client_id, context.target);
      },
      RequestDispatcher::Timing::kMayWait);
  dispatcher.Register<CTargetConnectRequest, CTargetConnectResponse>(
      [&registry](const Context& context, CTargetConnectRequest&, CTargetConnectResponse&) {
        return registry.Connect(context.client_id, context.target);
      },
      RequestDispatcher::Timing::kMayWait);
  dispatcher.Register<CCancelCurrentCommandRequest, CCancelCurrentCommandResponse>(
      [&registry](const Context& context, CCancelCurrentCommandRequest&,
                  CCancelCurrentCommandResponse&) {
        return registry.CancelCurrentCommand(context.client_id, context.target);
      });
  dispatcher.Register<CCancelMyCommandsRequest, CCancelMyCommandsResponse>(
      [&registry](const Context& context, CCancelMyCommandsRequest&, CCancelMyCommandsResponse&) {
        registry.CancelClientCommands(context.client_id);
        return Status::Ok();
      });
  dispatcher.Register<CTargetDisconnectRequest, CTargetDisconnectResponse>(
      [&registry](const Context& context, CTargetDisconnectRequest&, CTargetDisconnectResponse&) {
        return registry.Disconnect(context.client_id, context.target);
      });
  dispatcher.Register<CRequestConnectionRequest, CRequestConnectionResponse>(
      [&registry](const Context& context, CRequestConnectionRequest&, CRequestConnectionResponse&) {
        return registry.RequestConnection(context.client_id, context.target);
      },
      RequestDispatcher::Timing::kMayWait);
  // Gives the connection up; a client waiting in REQUEST_CONNECTION takes it.
  dispatcher.Register<CReleaseConnectionRequest, CReleaseConnectionResponse>(
      [&registry](const Context& context, CReleaseConnectionRequest&, CReleaseConnectionResponse&) {
        return registry.Disconnect(context.client_id, context.target);
      });
  dispatcher.Register<CForceDisconnectRequest, CForceDisconnectResponse>(
      [&registry](const Context& context, CForceDisconnectRequest&, CForceDisconnectResponse&) {
        return registry.ForceDisconnect(context.client_id, context.target);
      });
  dispatcher.Register<CConnectionStateRequest, CConnectionStateResponse>(
      [&registry](const Context& context, CConnectionStateRequest&,
                  CConnectionStateResponse& response) {
        ConnectionState state = ConnectionState::kAvailable;
        Status result = registry.ConnectionStateOf(context.client_id, context.target, state);
        response.State = static_cast<uint32_t>(state);
        return result;
      });
}

void RegisterNotificationsAndProtocols(RequestDispatcher& dispatcher, TargetRegistry& registry) {
  dispatcher.Register<CConnectForNotificationsRequest, CConnectForNotificationsResponse>(
      [&registry](const Context& context, CConnectForNotificationsRequest&,
                  CConnectForNotificationsResponse&) {
        return registry.ConnectForNotifications(context.client_id, context.target);
      });
  dispatcher.Register<CDisconnectFromNotificationsRequest, CDisconnectFromNotificationsResponse>(
      [&registry](const Context& context, CDisconnectFromNotificationsRequest&,
                  CDisconnectFromNotificationsResponse&) {
        return registry.DisconnectFromNotifications(context.client_id, context.target);
      });
  dispatcher.Register<CSetProtocolInUseRequest, CSetProtocolInUseResponse>(
      [&registry](const Context& context, CSetProtocolInUseRequest& request,
                  CSetProtocolInUseResponse&) {
        return registry.SetProtocolInUse(context.client_id, context.target, request.Protocol);
      });
  dispatcher.Register<CClearProtocolInUseRequest, CClearProtocolInUseResponse>(
      [&registry](const Context& context, CClearProtocolInUseRequest& request,
                  CClearProtocolInUseResponse&) {
        return registry.ClearProtocolInUse(context.client_id, context.target, request.Protocol);
      });
  dispatcher.Register<CQueryProtocolInUseRequest, CQueryProtocolInUseResponse>(
      [&registry](const Context& context, CQueryProtocolInUseRequest& request,
                  CQueryProtocolInUseResponse& response) {
        return registry.QueryProtocolInUse(context.target, request.Protocol, response.InUse);
      });
  dispatcher.Register<CProtocolRegistrationInfoRequest, CProtocolRegistrationInfoResponse>(
      [&registry](const Context& context, CProtocolRegistrationInfoRequest&,
                  CProtocolRegistrationInfoResponse& response) {
        return registry.ProtocolsHeldBy(context.client_id, context.target, response.Protocols);
      });
  dispatcher.Register<CGetProtocolInfoRequest, CGetProtocolInfoResponse>(
      [&registry](const Context& context, CGetProtocolInfoRequest& request,
                  CGetProtocolInfoResponse& response) {
        return registry.ProtocolInfo(context.client_id, context.target, request.Protocol,
                                     response.Info);
      });
}

void RegisterServerOperations(RequestDispatcher& dispatcher, TargetRegistry& registry,
                              PacketLog& packet_log) {
  dispatcher.Register<CGetClientPidsRequest, CGetClientPidsResponse>(
      [&registry](const Context&, CGetClientPidsRequest&, CGetClientPidsResponse& response) {
        response.ProcessIds = registry.ClientProcessIds();
        return Status::Ok();
      });
  dispatcher.Register<CGetServerVersionRequest, CGetServerVersionResponse>(
      [](const Context&, CGetServerVersionRequest&, CGetServerVersionResponse& response) {
        response.Major = kServerVersion[0];
        response.Minor = kServerVersion[1];
        response.Patch = kServerVersion[2];
        response.Build = kServerVersion[3];
        return Status::Ok();
      });
  dispatcher.Register<CStartPacketLoggingRequest, CStartPacketLoggingResponse>(
      [&packet_log](const Context&, CStartPacketLoggingRequest& request,
                    CStartPacketLoggingResponse&) { return packet_log.Start(request.FileName); });
  dispatcher.Register<CStartMultiFilePacketLoggingRequest, CStartMultiFilePacketLoggingResponse>(
      [&packet_log](const Context&, CStartMultiFilePacketLoggingRequest& request,
                    CStartMultiFilePacketLoggingResponse&) {
        return packet_log.StartAlternating(request.FileName1, request.FileName2, request.Size);
      });
  dispatcher.Register<CStopPacketLoggingRequest, CStopPacketLoggingResponse>(
      [&packet_log](const Context&, CStopPacketLoggingRequest&, CStopPacketLoggingResponse&) {
        return packet_log.Stop();
      });
}

// The console cache, console input and the acknowledgement that paces console output.
void RegisterConsole(RequestDispatcher& dispatcher, TargetRegistry& registry) {
  dispatcher.Register<CGetConsoleCacheSizeRequest, CGetConsoleCacheSizeResponse>(
      [&registry](const Context& context, CGetConsoleCacheSizeRequest&,
                  CGetConsoleCacheSizeResponse& response) {
        return registry.ConsoleCacheSize(context.target, response.Size);
      });
  dispatcher.Register<CSetConsoleCacheSizeRequest, CSetConsoleCacheSizeResponse>(
      [&registry](const Context& context, CSetConsoleCacheSizeRequest& request,
                  CSetConsoleCacheSizeResponse&) {
        return registry.SetConsoleCacheSize(context.target, request.Size);
      });
  dispatcher.Register<CGetConsoleCacheUBoundRequest, CGetConsoleCacheUBoundResponse>(
      [&registry](const Context& context, CGetConsoleCacheUBoundRequest&,
                  CGetConsoleCacheUBoundResponse& response) {
        return registry.ConsoleCacheUpperBound(context.target, response.UpperBound);
      });
  dispatcher.Register<CFetchConsoleCacheRequest, CFetchConsoleCacheResponse>(
      [&registry](const Context& context, CFetchConsoleCacheRequest& request,
                  CFetchConsoleCacheResponse& response) {
        return registry.FetchConsoleCache(context.target, request.StartIndex, response.NextIndex,
                                          response.Records);
      });
  dispatcher.Register<CClearConsoleCacheRequest, CClearConsoleCacheResponse>(
      [&registry](const Context& context, CClearConsoleCacheRequest&, CClearConsoleCacheResponse&) {
        return registry.ClearConsoleCache(context.target);
      });
  dispatcher.Register<CSendConsoleInputRequest, CSendConsoleInputResponse>(
      [&registry](const Context& context, CSendConsoleInputRequest& request,
                  CSendConsoleInputResponse&) {
        return registry.SendConsoleInput(
            context.target, {request.Port, request.Category, 0, request.ProcessId, 0, request.Text},
            false);
      });
  dispatcher.Register<CSendConsoleInputWithEchoRequest, CSendConsoleInputWithEchoResponse>(
      [&registry](const Context& context, CSendConsoleInputWithEchoRequest& request,
                  CSendConsoleInputWithEchoResponse&) {
        return registry.SendConsoleInput(
            context.target, {request.Port, request.Category, 0, request.ProcessId, 0, request.Text},
            true);
      });
  // Sent without waiting for an answer: one comes only when it is refused (a malformed one).
  dispatcher.Register<CAckConsoleOutputRequest, CAckConsoleOutputResponse>(
      [&registry](const Context& context, CAckConsoleOutputRequest&, CAckConsoleOutputResponse&) {
        registry.AcknowledgeConsoleOutput(context.client_id);
        return Status::Ok();
      },
      RequestDispatcher::Timing::kUnanswered);
}

void RegisterProcessLocks(RequestDispatcher& dispatcher, TargetRegistry& registry) {
  using Action = TargetRegistry::LockAction;
  dispatcher.Register<CRequestProcessLockRequest, CRequestProcessLockResponse>(
      [&registry](const Context& context, CRequestProcessLockRequest& request,
                  CRequestProcessLockResponse&) {
        return registry.ChangeProcessLock(context.client_id, context.target, request.ProcessId,
                                          Action::kRequest, request.Requester, 0);
      });
  dispatcher.Register<CReleaseProcessLockRequest, CReleaseProcessLockResponse>(
      [&registry](const Context& context, CReleaseProcessLockRequest& request,
                  CReleaseProcessLockResponse&) {
        return registry.ChangeProcessLock(context.client_id, context.target, request.ProcessId,
                                          Action::kRelease, {}, 0);
      });
  dispatcher.Register<CTransferProcessLockRequest, CTransferProcessLockResponse>(
      [&registry](const Context& context, CTransferProcessLockRequest& request,
                  CTransferProcessLockResponse&) {
        return registry.ChangeProcessLock(context.client_id, context.target, request.ProcessId,
                                          Action::kTransfer, {}, request.ClientPid);
      });
  dispatcher.Register<CReclaimProcessLockRequest, CReclaimProcessLockResponse>(
      [&registry](const Context& context, CReclaimProcessLockRequest& request,
                  CReclaimProcessLockResponse&) {
        return registry.ChangeProcessLock(context.client_id, context.target, request.ProcessId,
                                          Action::kReclaim, {}, 0);
      });
  dispatcher.Register<CIsProcessLockedRequest, CIsProcessLockedResponse>(
      [&registry](const Context& context, CIsProcessLockedRequest& request,
                  CIsProcessLockedResponse& response) {
        return registry.ProcessLockOwner(context.target, request.ProcessId, response.Locked,
                                         response.Owner);
      });
}

}  // namespace

void RegisterHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry,
                      PacketLog& packet_log) {
  RegisterSubscriptions(dispatcher, registry);
  RegisterTargetList(dispatcher, registry);
  RegisterTargetProperties(dispatcher, registry);
  RegisterPowerAndConnection(dispatcher, registry);
  RegisterNotificationsAndProtocols(dispatcher, registry);
  RegisterConsole(dispatcher, registry);
  RegisterServerOperations(dispatcher, registry, packet_log);
  RegisterDebugHandlers(dispatcher, registry);
  RegisterProtocolHandlers(dispatcher, registry);
  RegisterProcessLocks(dispatcher, registry);
  dispatcher.observer = [&packet_log](const Context& context, const CRequest* request,
                                      const CResponse& response) {
    packet_log.Record(context, request, response);
    if (LogEnabled(kLogRequests)) {
      char result[16];
      std::snprintf(result, sizeof result, "0x%08X", static_cast<unsigned>(response.Result));
      ServerLog(kLogRequests,
                "client " + std::to_string(context.client_id) + " " +
                    (request != nullptr ? platform::Utf16ToUtf8(request->GetName()) : "UNKNOWN") +
                    " target " + std::to_string(context.target) + " -> " + result);
    }
  };
}

}  // namespace qv::server
