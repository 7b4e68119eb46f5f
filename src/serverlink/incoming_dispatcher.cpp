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

IncomingDispatcher::Outcome IncomingDispatcher::Dispatch(MessageBuffer& body, OwnAnswer* own) {
  uint32_t kind = 0;
  if (!ReadField(body, kind)) return Outcome::kNoKind;
  switch (static_cast<IncomingKind>(kind)) {
    case IncomingKind::kResponse:
      return DispatchResponse(body, own);
    case IncomingKind::kNotification:
      return DispatchNotification(body);
  }
  return Outcome::kIgnoredKind;
}

bool IncomingDispatcher::Decode(MessageBuffer& body, CResponse& response) {
  MessageBuffer::Source* rest = body.GetSource();
  if (rest == nullptr) return response.Deserialize(body);
  LandingSource landing(*rest, store_, response);
  body.SetSource(&landing);
  const bool decoded = response.Deserialize(body);
  body.SetSource(rest);
  return decoded;
}

IncomingDispatcher::Outcome IncomingDispatcher::DispatchResponse(MessageBuffer& body,
                                                                 OwnAnswer* own) {
  uint32_t type_number = 0;
  std::shared_ptr<CResponse> response;
  CResponse* into = nullptr;
  if (ReadField(body, type_number)) {
    uint32_t own_type = 0;
    if (own != nullptr) own->response->GetTypeNumber(own_type);
    if (own_type != 0 && own_type == type_number) {
      into = own->response;
    } else {
      response = responses_.Create(type_number);
      into = response.get();
    }
  }
  if (into == nullptr) {
    LogApi(Log::kErrors, "Un-identified response type " + std::to_string(type_number));
    return Outcome::kUnknownResponseType;
  }
  const bool decoded = Decode(body, *into);
  if (decoded && LibraryLog().Enabled(Log::kPackets)) {
    LogApi(Log::kPackets, "RECV: " + platform::Utf16ToUtf8(into->GetName()));
  }
  if (response == nullptr) {
    if (decoded && into->Sequence == own->sequence) {
      own->taken = true;
      return Outcome::kResponseDelivered;
    }
    // Another caller's answer of the same class, or a frame that did not decode: it goes where
    // it would have gone, and the reading caller's object is emptied again for its own answer.
    response = responses_.Create(type_number);
    if (response == nullptr || !response->Assign(std::shared_ptr<CResponse>(response, into)) ||
        !into->Assign(responses_.Create(type_number))) {
      return Outcome::kUndecodableResponse;
    }
  }
  if (!decoded) return Outcome::kUndecodableResponse;
  const uint32_t sequence = response->Sequence;
  if (!store_.Deliver(std::move(response))) return Outcome::kUnawaitedResponse;
  if (own != nullptr && sequence == own->sequence) own->filed = true;
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
