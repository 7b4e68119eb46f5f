#include "api/error_reporting.h"

#include <cstdint>
#include <cstdio>
#include <new>

#include "api/error_descriptions.h"
#include "platform/system_message.h"
#include "platform/wide_string.h"

namespace qv {

namespace {

// Codes of the interface facility are the ones our table may describe.
constexpr uint32_t kFacilityInterface = 4;
// The range automation reports as dispatch errors when nothing else names a code.
constexpr uint32_t kDispatchErrorFirst = 0x80040200;
constexpr uint32_t kDispatchErrorLast = 0x8004FFFF;

uint32_t Facility(HRESULT code) {
  return (static_cast<uint32_t>(code) >> 16) & 0x1FFF;
}

std::u16string FallbackText(HRESULT code) {
  const auto value = static_cast<uint32_t>(code);
  char text[40];
  if (value >= kDispatchErrorFirst && value <= kDispatchErrorLast) {
    std::snprintf(text, sizeof text, "IDispatch error #%d",
                  static_cast<int>(value - kDispatchErrorFirst));
  } else {
    std::snprintf(text, sizeof text, "Unknown error 0x%0lX", static_cast<unsigned long>(value));
  }
  return platform::Utf8ToUtf16(text);
}

}  // namespace

std::u16string DescribeError(HRESULT code, std::u16string_view context) {
  std::u16string description;
  if (Facility(code) == kFacilityInterface) {
    if (auto text = ExpandedErrorDescription(code); text && !text->empty()) {
      description = std::move(*text);
    } else if (auto raw = LookupErrorDescription(code)) {
      description = *raw;  // the text as written when its expansion failed
    }
  }
  if (description.empty()) {
    description = platform::SystemMessageText(code).value_or(FallbackText(code));
  }
  if (!context.empty()) {
    description += u' ';
    description += context;
  }
  return description;
}

HRESULT ReportError(HRESULT code, std::u16string_view context) noexcept {
  if (code >= 0) return code;
  std::u16string description;
  try {
    description = DescribeError(code, context);
  } catch (const std::bad_alloc&) {
    return code;
  }
  ICreateErrorInfo* writer = nullptr;
  if (CreateErrorInfo(&writer) != S_OK || writer == nullptr) return code;
  writer->SetGUID(GUID_NULL);
  writer->SetDescription(platform::ToOleChars(description.data()));
  IErrorInfo* info = nullptr;
  if (writer->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&info)) == S_OK) {
    SetErrorInfo(0, info);
    info->Release();
  }
  writer->Release();
  return code;
}

HRESULT ReportNotAvailable(std::u16string_view method) noexcept {
  std::u16string context;
  try {
    context.append(method).append(u" is not available in this version of the library.");
  } catch (const std::bad_alloc&) {
    return ReportError(E_NOTIMPL);
  }
  return ReportError(E_NOTIMPL, context);
}

}  // namespace qv
