#include "platform/system_message.h"

#include <memory>
#include <new>

#include "platform/wide_string.h"

namespace qv::platform {
namespace {

struct LocalFreeDeleter {
  void operator()(wchar_t* buffer) const noexcept { LocalFree(buffer); }
};

bool IsLineBreak(char16_t c) {
  return c == u'\r' || c == u'\n';
}

}  // namespace

std::optional<std::u16string> SystemMessageText(HRESULT code) noexcept {
  wchar_t* raw = nullptr;
  const DWORD length = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, static_cast<DWORD>(code), 0, reinterpret_cast<LPWSTR>(&raw), 0, nullptr);
  const std::unique_ptr<wchar_t, LocalFreeDeleter> buffer(raw);
  if (length == 0 || buffer == nullptr) return std::nullopt;
  std::u16string_view text(ToChar16(buffer.get()), length);
  while (!text.empty() && IsLineBreak(text.back()))
    text.remove_suffix(1);
  if (text.empty()) return std::nullopt;
  try {
    return std::u16string(text);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace qv::platform
