#include "platform/environment.h"

#include <new>

#include "platform/automation.h"
#include "platform/wide_string.h"

namespace qv::platform {
namespace {

// Most expansions fit here; a longer one costs a second call with the size the first reported.
constexpr DWORD kFirstBufferChars = 128;

}  // namespace

std::optional<std::u16string> ExpandEnvironment(std::u16string_view text) noexcept {
  try {
    // The system wants a zero-terminated string, and stops at the first zero anyway.
    const std::u16string source(text.substr(0, text.find(u'\0')));
    std::u16string buffer(kFirstBufferChars, u'\0');
    const DWORD needed = ExpandEnvironmentStringsW(ToOleChars(source.c_str()),
                                                   ToOleChars(buffer.data()), kFirstBufferChars);
    if (needed == 0) return std::nullopt;
    if (needed > kFirstBufferChars) {
      buffer.assign(needed, u'\0');
      const DWORD second =
          ExpandEnvironmentStringsW(ToOleChars(source.c_str()), ToOleChars(buffer.data()), needed);
      // The environment may have grown in between; report that as a failure, not a cut string.
      if (second == 0 || second > needed) return std::nullopt;
    }
    // The terminator marks the end; the count is only an upper bound for it.
    if (const std::size_t end = buffer.find(u'\0'); end != std::u16string::npos) buffer.resize(end);
    return buffer;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace qv::platform
