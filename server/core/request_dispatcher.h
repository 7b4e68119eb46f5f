#pragma once
// Turns one request body into one response body. Each operation the server implements has one
// handler, registered under its type number; everything else is answered here:
//
//   no request header (fewer than 12 bytes)    -> no answer can be addressed: nullopt
//   unknown type number                        -> KXAPI_SERVER_INVALID_REQUEST
//   fields that do not decode, or extra bytes  -> KXAPI_SERVER_INVALID_REQUEST
//   known operation without a handler          -> KXAPI_SERVER_NOT_IMPLEMENTED, naming it
//   a handler that throws                      -> KXAPI_SERVER_EXCEPTION
//
// A failure answer carries only the response head (Result, ResultText, Sequence), which every
// response class shares, so one can be written even for a type number nobody knows. An operation
// its client sends without waiting for the answer (a console output's acknowledgement) is
// answered only when it is refused.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/core/status.h"
#include "serverlink/messages.h"

namespace qv::server {

// Who sent a request and what its header said.
struct RequestContext {
  uint64_t client_id = 0;
  uint32_t process_id = 0;
  uint32_t target = 0;
  uint32_t sequence = 0;
};

class RequestDispatcher {
 public:
  using Handler = std::function<Status(const RequestContext&, CRequest&, CResponse&)>;

  // Whether a handler answers at once or may wait for simulated time to pass, or answers at once
  // and its success goes unanswered (the client does not wait for it).
  enum class Timing { kImmediate, kMayWait, kUnanswered };

  // Registers the handler of the operation with request class Req and response class Resp;
  // `handler` takes (const RequestContext&, Req&, Resp&) and returns a Status. A kMayWait
  // handler is run off the client's reading thread, so that the client's other requests are
  // served meanwhile.
  template <class Req, class Resp, class Fn>
  void Register(Fn handler, Timing timing = Timing::kImmediate) {
    static_assert(Req::kTypeNumber == Resp::kTypeNumber, "request and response differ");
    Operation& operation = operations_[Req::kTypeNumber];
    operation.timing = timing;
    operation.handler = [handler](const RequestContext& context, CRequest& request,
                                  CResponse& response) {
      return handler(context, static_cast<Req&>(request), static_cast<Resp&>(response));
    };
  }
  // A kMayWait operation some of whose requests are answered at once (a small memory read):
  // `brief(const Req&)` says which, and those are answered on the reading thread.
  template <class Req, class Fn>
  void AnswerAtOnceWhen(Fn brief) {
    operations_[Req::kTypeNumber].brief = [brief](const CRequest& request) {
      return brief(static_cast<const Req&>(request));
    };
  }
  bool IsRegistered(uint32_t type_number) const {
    const auto it = operations_.find(type_number);
    return it != operations_.end() && it->second.handler != nullptr;
  }

  // One request taken apart and ready for its handler; or, refused before any handler ran,
  // already answered.
  struct Call {
    RequestContext context;
    uint32_t type_number = 0;
    std::shared_ptr<CRequest> request;
    std::shared_ptr<CResponse> response;
    const Handler* handler = nullptr;
    bool may_wait = false;                // its handler is kMayWait, and it is not brief
    bool unanswered = false;              // its handler is kUnanswered
    std::optional<MessageBuffer> answer;  // the refusal, when it has one
    std::shared_ptr<void> held;           // kept until the call ends (its owner's use)
  };

  // Takes the request in `body` apart where it lies: a large byte field comes straight from the
  // body's Source into the request. nullopt when the body is too short to hold a request header
  // (or memory ran out). Never throws.
  std::optional<Call> Decode(uint64_t client_id, uint32_t process_id,
                             MessageBuffer& body) const noexcept;
  // The response body (kind word, type number, response) for a decoded call: its handler's
  // answer, or its refusal. With `gather`, the answer refers to its large byte fields where they
  // lie instead of copying them (MessageBuffer::References), for a caller that writes it with
  // PipeChannel::WriteFrame. An empty buffer for a kUnanswered call that succeeded: nothing is
  // to be sent. nullopt only when memory ran out. Never throws. A handler's answer is written
  // into `into` (emptied first), so that a caller may hand back the block of its last answer.
  std::optional<MessageBuffer> Run(Call& call, bool gather = false,
                                   MessageBuffer&& into = MessageBuffer()) const noexcept;
  // Decode, then Run.
  std::optional<MessageBuffer> Dispatch(uint64_t client_id, uint32_t process_id,
                                        const uint8_t* body, size_t size,
                                        bool gather = false) const noexcept;

  // Called with every request and response when set (packet logging).
  std::function<void(const RequestContext&, const CRequest*, const CResponse&)> observer;

 private:
  // The answer that carries only the response head with `code` and `text`.
  std::optional<MessageBuffer> Refusal(const Call& call, uint32_t code, std::u16string text) const;

  // What the server knows of one operation, found with one lookup per request.
  struct Operation {
    Handler handler;
    Timing timing = Timing::kImmediate;
    std::function<bool(const CRequest&)> brief;  // for kMayWait: answered at once when true
  };
  std::unordered_map<uint32_t, Operation> operations_;
};

}  // namespace qv::server
