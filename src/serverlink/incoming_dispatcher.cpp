#include "serverlink/incoming_dispatcher.h"

#include <string>

#include "platform/wide_string.h"
#include "serverlink/frame.h"
#include "serverlink/log.h"

namespace qv {
namespace {

// The rest of a body still in the pipe, and the landing that the caller of the response being
// decoded registered for its large byte field (found by the response's Sequence, which comes
// before any field of its own).
class LandingSource final : public MessageBuffer::Source {
 public:
  LandingSource(MessageBuffer::Source& rest, PendingResponseStore& store, const CResponse& response)
      : rest_(rest), store_(store), response_(response) {}
  size_t Unread() const override { return rest_.Unread(); }
  bool ReadInto(uint8_t* dest, size_t size) override { return rest_.ReadInto(dest, size); }
  std::shared_ptr<BulkLanding> TakeLanding() override {
    return store_.TakeLanding(response_.Sequence);
  }

 private:
  MessageBuffer::Source& rest_;
  PendingResponseStore& store_;
  const CResponse& response_;
};

}  // namespace

IncomingDispatcher::IncomingDispatcher(const MessageFactory<CResponse>& responses,
                                       const MessageFactory<CNotification>& notifications,
                                       PendingResponseStore& store,
                                       NotificationSink queue_notification)
    : responses_(responses),
      notifications_(notifications),
      store_(store),
      queue_notification_(std::move(queue_notification)) {}

IncomingDispatcher::Outcome IncomingDispatcher::Dispatch(MessageBuffer& body, uint32_t* delivered) {
  uint32_t kind = 0;
  if (!ReadField(body, kind)) return Outcome::kNoKind;
  switch (static_cast<IncomingKind>(kind)) {
    case IncomingKind::kResponse:
      return DispatchResponse(body, delivered);
    case IncomingKind::kNotification:
      return DispatchNotification(body);
  }
  return Outcome::kIgnoredKind;
}

IncomingDispatcher::Outcome IncomingDispatcher::DispatchResponse(MessageBuffer& body,
                                                                 uint32_t* delivered) {
  uint32_t type_number = 0;
  std::shared_ptr<CResponse> response;
  if (ReadField(body, type_number)) response = responses_.Create(type_number);
  if (response == nullptr) {
    LogApi(Log::kErrors, "Un-identified response type " + std::to_string(type_number));
    return Outcome::kUnknownResponseType;
  }
  bool decoded = false;
  if (MessageBuffer::Source* rest = body.GetSource()) {
    LandingSource landing(*rest, store_, *response);
    body.SetSource(&landing);
    decoded = response->Deserialize(body);
    body.SetSource(rest);
  } else {
    decoded = response->Deserialize(body);
  }
  if (!decoded) return Outcome::kUndecodableResponse;
  if (LibraryLog().Enabled(Log::kPackets)) {
    LogApi(Log::kPackets, "RECV: " + platform::Utf16ToUtf8(response->GetName()));
  }
  const uint32_t sequence = response->Sequence;
  if (!store_.Deliver(std::move(response))) return Outcome::kUnawaitedResponse;
  if (delivered != nullptr) *delivered = sequence;
  return Outcome::kResponseDelivered;
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
