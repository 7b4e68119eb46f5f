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
                                    bool gather = false) {
  MessageBuffer out;
  if (gather) out.GatherLargeRuns();
  if (!WriteField(out, static_cast<uint32_t>(IncomingKind::kResponse)) ||
      !WriteField(out, type_number) || !response.Serialize(out)) {
    return std::nullopt;
  }
  return out;
}

}  // namespace

bool RequestDispatcher::MayWait(const uint8_t* body, size_t size) const {
  uint32_t type_number = 0;
  if (size < sizeof type_number) return false;
  std::memcpy(&type_number, body, sizeof type_number);
  return waiting_.count(type_number) != 0;
}

std::optional<MessageBuffer> RequestDispatcher::Dispatch(uint64_t client_id, uint32_t process_id,
                                                         const uint8_t* body, size_t size,
                                                         bool gather) const noexcept {
  try {
    MessageBuffer in(body, size);
    RequestContext context{client_id, process_id, 0, 0};
    uint32_t type_number = 0;
    if (!in.Valid() || !ReadField(in, type_number) || !ReadField(in, context.target) ||
        !ReadField(in, context.sequence)) {
      return std::nullopt;
    }
    std::shared_ptr<CRequest> request = RequestFactory().Create(type_number);
    std::shared_ptr<CResponse> response = ResponseFactory().Create(type_number);
    // The head alone for every failure before a handler ran.
    CResponse failure;
    failure.Sequence = context.sequence;
    auto fail = [&](eErrorCode code, std::u16string text) {
      failure.Result = static_cast<uint32_t>(code);
      failure.ResultText = std::move(text);
      if (observer) observer(context, request.get(), failure);
      return Encode(type_number, failure);
    };

    if (request == nullptr || response == nullptr) {
      return fail(KXAPI_SERVER_INVALID_REQUEST,
                  u"unknown operation type number " + Hex(type_number));
    }
    const std::u16string name(request->GetName());
    if (!request->Deserialize(in)) {
      return fail(KXAPI_SERVER_INVALID_REQUEST,
                  name + u": the request's fields are truncated or malformed");
    }
    if (in.Size() != 0) {
      return fail(KXAPI_SERVER_INVALID_REQUEST,
                  name + u": " + platform::Utf8ToUtf16(std::to_string(in.Size())) +
                      u" bytes follow the request's fields");
    }
    const auto handler = handlers_.find(type_number);
    if (handler == handlers_.end()) {
      return fail(KXAPI_SERVER_NOT_IMPLEMENTED, name + u" is not implemented by this server");
    }
    Status status;
    try {
      status = handler->second(context, *request, *response);
    } catch (const std::exception& error) {
      return fail(KXAPI_SERVER_EXCEPTION,
                  name + u" failed inside the server: " + platform::Utf8ToUtf16(error.what()));
    }
    if (!status.ok()) {
      failure.Result = status.code;
      failure.ResultText = std::move(status.text);
      if (observer) observer(context, request.get(), failure);
      return Encode(type_number, failure);
    }
    response->Sequence = context.sequence;
    if (observer) observer(context, request.get(), *response);
    if (auto encoded = Encode(type_number, *response, gather)) return encoded;
    return fail(KXAPI_SERVER_EXCEPTION, name + u": the response could not be encoded");
  } catch (const std::exception&) {
    // Out of memory while building an answer: there is nothing better to send.
    return std::nullopt;
  }
}

}  // namespace qv::server
