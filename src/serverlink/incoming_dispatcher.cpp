#include "serverlink/incoming_dispatcher.h"

#include <string>

#include "platform/wide_string.h"
#include "serverlink/frame.h"
#include "serverlink/log.h"

namespace qv {

IncomingDispatcher::IncomingDispatcher(const MessageFactory<CResponse>& responses,
                                       const MessageFactory<CNotification>& notifications,
                                       PendingResponseStore& store,
                                       NotificationSink queue_notification)
    : responses_(responses),
      notifications_(notifications),
      store_(store),
      queue_notification_(std::move(queue_notification)) {}

IncomingDispatcher::Outcome IncomingDispatcher::Dispatch(MessageBuffer& body) {
  uint32_t kind = 0;
  if (!ReadField(body, kind)) return Outcome::kNoKind;
  switch (static_cast<IncomingKind>(kind)) {
    case IncomingKind::kResponse:
      return DispatchResponse(body);
    case IncomingKind::kNotification:
      return DispatchNotification(body);
  }
  return Outcome::kIgnoredKind;
}

IncomingDispatcher::Outcome IncomingDispatcher::DispatchResponse(MessageBuffer& body) {
  uint32_t type_number = 0;
  std::shared_ptr<CResponse> response;
  if (ReadField(body, type_number)) response = responses_.Create(type_number);
  if (response == nullptr) {
    LogApi(Log::kErrors, "Un-identified response type " + std::to_string(type_number));
    return Outcome::kUnknownResponseType;
  }
  if (!response->Deserialize(body)) return Outcome::kUndecodableResponse;
  if (LibraryLog().Enabled(Log::kPackets)) {
    LogApi(Log::kPackets, "RECV: " + platform::Utf16ToUtf8(response->GetName()));
  }
  return store_.Deliver(std::move(response)) ? Outcome::kResponseDelivered
                                             : Outcome::kUnawaitedResponse;
}

IncomingDispatcher::Outcome IncomingDispatcher::DispatchNotification(MessageBuffer& body) {
  uint32_t type_number = 0;
  if (!ReadField(body, type_number)) return Outcome::kUnknownNotificationType;
  std::shared_ptr<CNotification> notification = notifications_.Create(type_number);
  if (notification == nullptr) return Outcome::kUnknownNotificationType;
  if (!notification->Deserialize(body)) return Outcome::kUndecodableNotification;
  queue_notification_(std::move(notification));
  return Outcome::kNotificationQueued;
}

}  // namespace qv
