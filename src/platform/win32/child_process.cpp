#include "platform/child_process.h"

#include <windows.h>

#include "platform/wide_string.h"

namespace qv::platform {

bool SetEnvironmentValue(const std::string& name, const std::string& value) noexcept {
  const std::u16string wide_name = Utf8ToUtf16(name);
  const std::u16string wide_value = Utf8ToUtf16(value);
  return SetEnvironmentVariableW(reinterpret_cast<const wchar_t*>(wide_name.c_str()),
                                 reinterpret_cast<const wchar_t*>(wide_value.c_str())) != FALSE;
}

}  // namespace qv::platform
