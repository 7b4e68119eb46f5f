#include "server/core/request_dispatcher.h"

#include <cstring>
#include <exception>
#include <memory>

#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "serverlink/frame.h"
#include "serverlink/wire_fields.h"

namespace qv::server {
namespace {

std::u16string Hex(uint32_t value) {
  static constexpr char16_t kDigits[] = u"0123456789ABCDEF";
  std::u16string text = u"0x";
  for (int shift = 28; shift >= 0; shift -= 4)
    text += kDigits[(value >> shift) & 15];
  return text;
}

std::optional<MessageBuffer> Encode(uint32_t type_number, const CResponse& response,
                                    bool gather = false, MessageBuffer&& out = MessageBuffer()) {
  out.Reset();
  if (gather) out.GatherLargeRuns();
  if (!WriteField(out, static_cast<uint32_t>(IncomingKind::kResponse)) ||
      !WriteField(out, type_number) || !response.Serialize(out)) {
    return std::nullopt;
  }
  return std::move(out);
}

}  // namespace

std::optional<RequestDispatcher::Call> RequestDispatcher::Decode(uint64_t client_id,
                                                                 uint32_t process_id,
                                                                 MessageBuffer& in) const noexcept {
  try {
    Call call;
    call.context = {client_id, process_id, 0, 0};
    if (!in.Valid() || !ReadField(in, call.type_number) || !ReadField(in, call.context.target) ||
        !ReadField(in, call.context.sequence)) {
      return std::nullopt;
    }
    call.request = RequestFactory().Create(call.type_number);
    call.response = ResponseFactory().Create(call.type_number);
    auto refuse = [&](eErrorCode code, std::u16string text) {
      call.answer = Refusal(call, static_cast<uint32_t>(code), std::move(text));
      return std::move(call);
    };
    if (call.request == nullptr || call.response == nullptr) {
      return refuse(KXAPI_SERVER_INVALID_REQUEST,
                    u"unknown operation type number " + Hex(call.type_number));
    }
    // Only a refusal names the operation.
    const auto name = [&call] { return std::u16string(call.request->GetName()); };
    if (!call.request->Deserialize(in)) {
      return refuse(KXAPI_SERVER_INVALID_REQUEST,
                    name() + u": the request's fields are truncated or malformed");
    }
    if (in.Available() != 0) {
      return refuse(KXAPI_SERVER_INVALID_REQUEST,
                    name() + u": " + platform::Utf8ToUtf16(std::to_string(in.Available())) +
                        u" bytes follow the request's fields");
    }
    const auto found = operations_.find(call.type_number);
    if (found == operations_.end() || found->second.handler == nullptr) {
      return refuse(KXAPI_SERVER_NOT_IMPLEMENTED, name() + u" is not implemented by this server");
    }
    const Operation& operation = found->second;
    call.handler = &operation.handler;
    call.may_wait = operation.timing == Timing::kMayWait &&
                    (operation.brief == nullptr || !operation.brief(*call.request));
    call.unanswered = operation.timing == Timing::kUnanswered;
    return call;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<MessageBuffer> RequestDispatcher::Run(Call& call, bool gather,
                                                    MessageBuffer&& into) const noexcept {
  try {
    if (call.answer.has_value() || call.handler == nullptr) return std::move(call.answer);
    // Only a refusal names the operation.
    const auto name = [&call] { return std::u16string(call.request->GetName()); };
    Status status;
    try {
      status = (*call.handler)(call.context, *call.request, *call.response);
    } catch (const std::exception& error) {
      return Refusal(call, KXAPI_SERVER_EXCEPTION,
                     name() + u" failed inside the server: " + platform::Utf8ToUtf16(error.what()));
    }
    if (!status.ok()) return Refusal(call, status.code, std::move(status.text));
    call.response->Sequence = call.context.sequence;
    // The packet log shows the result even when it is not sent.
    if (observer) observer(call.context, call.request.get(), *call.response);
    if (call.unanswered) return MessageBuffer();
    if (auto encoded = Encode(call.type_number, *call.response, gather, std::move(into)))
      return encoded;
    return Refusal(call, KXAPI_SERVER_EXCEPTION, name() + u": the response could not be encoded");
  } catch (const std::exception&) {
    // Out of memory while building an answer: there is nothing better to send.
    return std::nullopt;
  }
}

std::optional<MessageBuffer> RequestDispatcher::Dispatch(uint64_t client_id, uint32_t process_id,
                                                         const uint8_t* body, size_t size,
                                                         bool gather) const noexcept {
  try {
    MessageBuffer in(body, size);
    std::optional<Call> call = Decode(client_id, process_id, in);
    if (!call) return std::nullopt;
    return Run(*call, gather);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<MessageBuffer> RequestDispatcher::Refusal(const Call& call, uint32_t code,
                                                        std::u16string text) const {
  // The head alone: every response class shares it, so it can be written for any type number.
  CResponse failure;
  failure.Sequence = call.context.sequence;
  failure.Result = code;
  failure.ResultText = std::move(text);
  if (observer) observer(call.context, call.request.get(), failure);
  return Encode(call.type_number, failure);
}

}  // namespace qv::server
