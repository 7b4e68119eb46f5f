// The operating system's text for a result code.
#ifndef VEKX_PLATFORM_SYSTEM_MESSAGE_H_
#define VEKX_PLATFORM_SYSTEM_MESSAGE_H_

#include <optional>
#include <string>

#include "platform/automation.h"

namespace qv::platform {

/// The system's description of `code`, without a trailing line break, or nullopt when the
/// system has none (codes of FACILITY_ITF, which each interface defines for itself, among them).
///
/// Windows asks FormatMessageW, in the user's language. POSIX answers from a table of the
/// standard codes in the wording English Windows uses: the common COM and automation codes and
/// the Win32 errors the library meets, whether given as HRESULT_FROM_WIN32(error) or as the
/// bare error number.
std::optional<std::u16string> SystemMessageText(HRESULT code) noexcept;

}  // namespace qv::platform

#endif  // VEKX_PLATFORM_SYSTEM_MESSAGE_H_
