#pragma once
// The outcome of a call to the library, with the description the library left for it in the
// thread's error object, so that a caller can report "what went wrong" in one line.
//
//   if (auto status = vekx::Status::Of(target->PowerOn()); !status.ok()) {
//     std::cerr << status.message() << '\n';   // "Target error - ... <the server's text>"
//   }

#include <cstdio>
#include <string>
#include <utility>

#include "vekxapi/automation.h"
#include "vekxapi/wide_string.h"

namespace vekx {

class Status {
 public:
  // `code`, and for a failure the description of the calling thread's error object, which it
  // takes; without one, the code in hexadecimal.
  static Status Of(HRESULT code) {
    Status status;
    status.code_ = code;
    if (SUCCEEDED(code)) return status;
    IErrorInfo* info = nullptr;
    if (GetErrorInfo(0, &info) == S_OK && info != nullptr) {
      BSTR description = nullptr;
      if (info->GetDescription(&description) == S_OK) {
        status.message_ = qv::platform::Utf16ToUtf8(qv::platform::BstrView(description));
        SysFreeString(description);
      }
      info->Release();
    }
    if (status.message_.empty()) {
      char text[32];
      std::snprintf(text, sizeof text, "error 0x%08X", static_cast<unsigned>(code));
      status.message_ = text;
    }
    return status;
  }

  bool ok() const noexcept { return SUCCEEDED(code_); }
  HRESULT code() const noexcept { return code_; }
  // UTF-8; empty on success.
  const std::string& message() const noexcept { return message_; }

 private:
  HRESULT code_ = S_OK;
  std::string message_;
};

}  // namespace vekx
