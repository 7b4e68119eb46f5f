#pragma once
// The receive path of the read thread: one incoming frame body in, one outcome out.
//
//   kind 0 (response)      factory -> Deserialize -> "RECV: " log -> awaited? -> pending store
//   kind 1 (notification)  factory -> Deserialize -> the notification queue
//   any other kind         ignored
//
// Every malformed or unexpected message is dropped here; the caller that waits for a dropped
// response keeps waiting until the connection closes.

#include <functional>
#include <memory>

#include "serverlink/message_buffer.h"
#include "serverlink/message_factory.h"
#include "serverlink/messages.h"
#include "serverlink/pending_responses.h"

namespace qv {

class IncomingDispatcher {
 public:
  using NotificationSink = std::function<void(std::shared_ptr<CNotification>)>;

  enum class Outcome {
    kResponseDelivered,
    kNotificationQueued,
    kNoKind,               // the body is too short for a kind word: ends the read loop
    kIgnoredKind,          // neither response nor notification
    kUnknownResponseType,  // logged as "Un-identified response type N"
    kUndecodableResponse,
    kUnawaitedResponse,  // nobody waits for its sequence number
    kUnknownNotificationType,
    kUndecodableNotification,
  };

  // The factories and the store must outlive the dispatcher.
  IncomingDispatcher(const MessageFactory<CResponse>& responses,
                     const MessageFactory<CNotification>& notifications,
                     PendingResponseStore& store, NotificationSink queue_notification);

  // A caller that reads the pipe for its own answer: the answer to `sequence` is decoded straight
  // into `response` when it has the answer's class (no object is made for it, nothing is filed in
  // the store, and `taken` is set); every other response goes to the store as usual, and `filed`
  // is set when the caller's own answer went there.
  struct OwnAnswer {
    uint32_t sequence = 0;
    CResponse* response = nullptr;
    bool taken = false;
    bool filed = false;
  };

  Outcome Dispatch(MessageBuffer& body, OwnAnswer* own = nullptr);

 private:
  Outcome DispatchResponse(MessageBuffer& body, OwnAnswer* own);
  // Decodes the rest of `body` into `response`, its landing found by its Sequence.
  bool Decode(MessageBuffer& body, CResponse& response);
  Outcome DispatchNotification(MessageBuffer& body);

  const MessageFactory<CResponse>& responses_;
  const MessageFactory<CNotification>& notifications_;
  PendingResponseStore& store_;
  NotificationSink queue_notification_;
};

}  // namespace qv
