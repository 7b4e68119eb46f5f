#pragma once
// Description texts and names of the library's result codes (vekxapi/result_codes.def).
//
// GetErrorDescription and the error-reporting routine of the public objects use the texts; logs
// and the command-line tool use the names. All lookups are exact: no masking of the facility, no
// ranges and no fallback text. A code that is not in the table (a standard platform code such as
// E_INVALIDARG, or an unassigned value of our own ranges) has neither text nor name, and the
// caller decides what to show instead.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qv {

// The fixed description of `code`, e.g. u"Target error - The entry does not exist." for
// KXAPI_COMMS_ERR_NO_ENTRY, or nullopt when the table has no row for it. Both names of an alias
// pair give the same text. The view points into static storage and never dangles.
// O(log n).
std::optional<std::u16string_view> LookupErrorDescription(int32_t code) noexcept;

// The name of `code` as it is spelled in eErrorCode ("KXAPI_TIMEOUT"), or nullopt when the table
// has no row for it. For an alias pair this is the first name (the DOKAN spelling). Static
// storage. O(log n).
std::optional<std::string_view> ErrorCodeName(int32_t code) noexcept;

// The code named `name` (case-sensitive, the exact eErrorCode spelling), or nullopt for an
// unknown name. Either name of an alias pair works. Linear in the table size: meant for the
// command line and configuration, not for hot paths.
std::optional<int32_t> ErrorCodeFromName(std::string_view name) noexcept;

// The description of `code` after platform::ExpandEnvironment, as GetErrorDescription returns it
// (the texts may name environment variables). nullopt when the table has no text for `code`; an
// empty string when the text exists but its expansion failed.
std::optional<std::u16string> ExpandedErrorDescription(int32_t code) noexcept;

}  // namespace qv
