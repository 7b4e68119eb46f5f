#include "requests/private_api.h"

#include <new>
#include <utility>

#include "platform/pipe.h"
#include "platform/process_identity.h"
#include "requests/catalogue.h"
#include "serverlink/log.h"
#include "vekxapi/result_codes.h"

namespace qv {

namespace {

// How a group's subscribe or cancel message goes out.
enum class Delivery {
  kConnecting,  // connect first when the link is down
  kOnlyIfUp,    // on the connection that is up, or not at all
};

HRESULT ResultOf(LinkStatus status, const CResponse& response) {
  if (status != LinkStatus::kSuccess) return LinkStatusToResult(status);
  return static_cast<HRESULT>(response.Result);
}

template <class Request, class Response>
HRESULT SendGroupMessage(ServerLink& link, uint32_t key, Delivery delivery) {
  const Request request;
  Response response;
  uint32_t sequence = 0;
  const LinkStatus status = delivery == Delivery::kConnecting
                                ? link.SendAndWait(key, request, response, sequence)
                                : link.SendAndWaitIfConnected(key, request, response, sequence);
  return ResultOf(status, response);
}

// Each group's subscribe and cancel messages, in the order of EventGroup.
struct GroupMessages {
  HRESULT (*subscribe)(ServerLink&, uint32_t, Delivery);
  HRESULT (*cancel)(ServerLink&, uint32_t, Delivery);
};

constexpr std::array<GroupMessages, kEventGroupCount> kGroupMessages{
#define VEKX_GROUP_MESSAGES(Group)                                                        \
  GroupMessages{                                                                          \
      &SendGroupMessage<CRequest##Group##EventsRequest, CRequest##Group##EventsResponse>, \
      &SendGroupMessage<CCancel##Group##EventsRequest, CCancel##Group##EventsResponse>},
    VEKX_FOR_EACH_EVENT_GROUP(VEKX_GROUP_MESSAGES)
#undef VEKX_GROUP_MESSAGES
};

bool IsSinkGroup(EventGroup group) {
  return static_cast<size_t>(group) < kEventGroupCount;
}

}  // namespace

HRESULT CKXPrivateAPI::Call(uint32_t target_handle, const CRequest& request, CResponse& response,
                            std::shared_ptr<BulkLanding> landing) {
  return ResultOf(SendAndWait(target_handle, request, response, std::move(landing)), response);
}

std::shared_ptr<CKXVEPrivateAPI> CKXVEPrivateAPI::Create() {
  try {
    std::string problem;
    std::string run_dir = platform::ServerRuntimeDirectory(&problem).value_or("");
    return Create(ServerLink::ServerNames{platform::CurrentUserName(), std::move(run_dir),
                                          std::move(problem)});
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

std::shared_ptr<CKXVEPrivateAPI> CKXVEPrivateAPI::Create(ServerLink::ServerNames names) {
  std::shared_ptr<CKXVEPrivateAPI> api;
  try {
    api.reset(new CKXVEPrivateAPI(std::move(names)));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return api;
}

CKXVEPrivateAPI::CKXVEPrivateAPI(ServerLink::ServerNames names)
    : pump_(
          [this](const std::shared_ptr<CNotification>& notification) {
            // Held for the delivery: a sink may drop the last other reference to this object, which
            // then ends here, after the delivery, on the notification thread.
            if (auto self = weak_from_this().lock()) self->OnNotification(notification);
          },
          [this](const NotificationPump::Batch& batch) {
            if (auto self = weak_from_this().lock()) self->AcknowledgeConsoleOutput(batch);
          }),
      link_(ResponseFactory(), NotificationFactory(), std::move(names),
            ServerLink::Hooks{
                [this](std::shared_ptr<CNotification> notification) {
                  pump_.Push(std::move(notification));
                },
                [this] { OnConnected(); },
            }) {}

CKXVEPrivateAPI::~CKXVEPrivateAPI() {
  // The read thread first, so that nothing is queued while the notification thread stops.
  link_.Disconnect();
  pump_.Stop();
}

LinkStatus CKXVEPrivateAPI::SendAndWait(uint32_t target_handle, const CRequest& request,
                                        CResponse& response, std::shared_ptr<BulkLanding> landing) {
  uint32_t sequence = 0;
  return link_.SendAndWait(target_handle, request, response, sequence, std::move(landing));
}

HRESULT CKXVEPrivateAPI::Advise(EventGroup group, std::shared_ptr<IVEEventNotifyClient> client,
                                uint32_t key) {
  if (!IsSinkGroup(group)) return E_INVALIDARG;
  const auto index = static_cast<size_t>(group);
  return registries_[index].Register(std::move(client), key, [&] {
    return kGroupMessages[index].subscribe(link_, key, Delivery::kConnecting);
  });
}

HRESULT CKXVEPrivateAPI::Unadvise(EventGroup group, const IVEEventNotifyClient& client,
                                  uint32_t key) {
  if (!IsSinkGroup(group)) return E_INVALIDARG;
  const auto index = static_cast<size_t>(group);
  if (registries_[index].Unregister(client, key) != 0) return S_OK;
  // Outside the group's lock: a delivery of the group need not wait for the server's answer.
  return kGroupMessages[index].cancel(link_, key, Delivery::kConnecting);
}

void CKXVEPrivateAPI::Withdraw(EventGroup group, const IVEEventNotifyClient& client, uint32_t key) {
  if (IsSinkGroup(group)) registries_[static_cast<size_t>(group)].Unregister(client, key);
}

size_t CKXVEPrivateAPI::RegistrationCount(EventGroup group, uint32_t key) const {
  return IsSinkGroup(group) ? registries_[static_cast<size_t>(group)].Count(key) : 0;
}

bool CKXVEPrivateAPI::IsLinkUp() const {
  return link_.IsConnected();
}

void CKXVEPrivateAPI::ShutdownStep() {
  link_.Shutdown();
}

HRESULT CKXVEPrivateAPI::Disconnect() {
  link_.Disconnect();
  return S_OK;
}

void CKXVEPrivateAPI::OnNotification(const std::shared_ptr<CNotification>& notification) {
  if (notification == nullptr) return;
  const auto route = FindNotificationRoute(notification->GetTypeNumber());
  if (!route || !IsSinkGroup(route->group)) return;
  registries_[static_cast<size_t>(route->group)].Deliver(notification->GetTargetKey(), route->slot,
                                                         notification);
  if (notification->GetTypeNumber() == CTargetDeletedNotification::kTypeNumber) {
    // The target is gone: its sinks hear nothing more, even if its handle comes back, until they
    // advise again. Nothing is cancelled on the server, which has forgotten the target itself.
    const uint32_t handle = static_cast<const CTargetDeletedNotification&>(*notification).Handle;
    for (size_t group = 0; group < kEventGroupCount; ++group) {
      if (static_cast<EventGroup>(group) != EventGroup::Server) registries_[group].DropAll(handle);
    }
  }
}

void CKXVEPrivateAPI::AcknowledgeConsoleOutput(const NotificationPump::Batch& batch) {
  // Before the delivery and whether or not anyone listens: the acknowledgement is what lets the
  // server send the next piece. PostEach skips it while the link is down.
  constexpr size_t kOneWrite = ServerLink::kPostEachMax;
  std::array<uint32_t, kOneWrite> targets;
  size_t count = 0;
  const CAckConsoleOutputRequest ack;
  for (const std::shared_ptr<CNotification>& notification : batch) {
    if (notification == nullptr ||
        notification->GetTypeNumber() != CConsoleOutputNotification::kTypeNumber) {
      continue;
    }
    targets[count++] = notification->GetTargetKey();
    if (count == kOneWrite) {
      link_.PostEach(targets, ack);
      count = 0;
    }
  }
  link_.PostEach(std::span(targets.data(), count), ack);
}

void CKXVEPrivateAPI::OnConnected() {
  for (size_t group = 0; group < kEventGroupCount; ++group) {
    // The keys are copied under the group's lock and subscribed outside it.
    for (const uint32_t key : registries_[group].Keys()) {
      const HRESULT result = kGroupMessages[group].subscribe(link_, key, Delivery::kOnlyIfUp);
      if (result != S_OK && !link_.IsConnected()) {
        return;  // the connection is gone again; the next one replays from the start
      }
      if (result != S_OK) {
        LogApi(Log::kFailures, "Failed to renew event subscription, result 0x" +
                                   LogHex(static_cast<uint32_t>(result)));
      }
    }
  }
}

}  // namespace qv
