#include "platform/environment.h"

#include <cstdlib>
#include <new>

#include "platform/wide_string.h"

namespace qv::platform {
namespace {

// The value of the variable `name`, or nullptr when there is none. A name that getenv would
// misread (empty, or holding '=' or a zero) names no variable.
const char* FindVariable(std::u16string_view name) {
  if (name.empty()) return nullptr;
  for (char16_t c : name) {
    if (c == u'=' || c == 0) return nullptr;
  }
  const std::string narrow = Utf16ToUtf8(name);
  if (narrow.empty()) return nullptr;
  return std::getenv(narrow.c_str());
}

}  // namespace

std::optional<std::u16string> ExpandEnvironment(std::u16string_view text) noexcept {
  try {
    if (const std::size_t end = text.find(u'\0'); end != std::u16string_view::npos) {
      text = text.substr(0, end);
    }
    std::u16string result;
    result.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
      const std::size_t open = text.find(u'%', pos);
      if (open == std::u16string_view::npos) {
        result.append(text.substr(pos));
        break;
      }
      result.append(text.substr(pos, open - pos));
      const std::size_t close = text.find(u'%', open + 1);
      if (close == std::u16string_view::npos) {
        result.append(text.substr(open));  // A lone '%' and the rest, as written.
        break;
      }
      if (const char* value = FindVariable(text.substr(open + 1, close - open - 1))) {
        result.append(Utf8ToUtf16(value));
        pos = close + 1;
      } else {
        // Unknown: keep "%NAME" and rescan from the closing '%', which may open a reference.
        result.append(text.substr(open, close - open));
        pos = close;
      }
    }
    return result;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace qv::platform
