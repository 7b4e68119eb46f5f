// UTF-16 strings on both platforms.
//
// Portable code keeps text as std::u16string (or UTF-8 std::string at the edges) and meets the
// automation world through BSTR. OLECHAR is wchar_t on Windows and char16_t on POSIX, both
// UTF-16 code units, so the two pointer types are converted with the casts below rather than by
// copying.
#ifndef VEKX_WIDE_STRING_H_
#define VEKX_WIDE_STRING_H_

#include <string>
#include <string_view>

#include "vekxapi/automation.h"

static_assert(sizeof(OLECHAR) == sizeof(char16_t), "OLECHAR must be a UTF-16 code unit");

namespace qv::platform {

/// UTF-8 to UTF-16. Each maximal ill-formed subsequence (a stray continuation byte, a truncated
/// or overlong sequence, an encoded surrogate, a value past U+10FFFF) becomes one U+FFFD.
/// Embedded zeros are kept. Returns an empty string only for empty input or when memory runs out.
std::u16string Utf8ToUtf16(std::string_view utf8) noexcept;

/// UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD. Embedded zeros are kept. Returns an
/// empty string only for empty input or when memory runs out.
std::string Utf16ToUtf8(std::u16string_view utf16) noexcept;

/// A new BSTR holding exactly `text`, embedded zeros included; the caller frees it with
/// SysFreeString. nullptr only when memory runs out (or `text` is longer than a BSTR can be).
BSTR AllocBstr(std::u16string_view text) noexcept;

/// The characters of `bstr`, by its length prefix, so embedded zeros survive. A null BSTR is
/// the empty string. The view lives as long as the BSTR.
std::u16string_view BstrView(BSTR bstr) noexcept;

// Reinterpreting casts between the two spellings of a UTF-16 code unit.
inline const OLECHAR* ToOleChars(const char16_t* text) noexcept {
  return reinterpret_cast<const OLECHAR*>(text);
}
inline OLECHAR* ToOleChars(char16_t* text) noexcept {
  return reinterpret_cast<OLECHAR*>(text);
}
inline const char16_t* ToChar16(const OLECHAR* text) noexcept {
  return reinterpret_cast<const char16_t*>(text);
}
inline char16_t* ToChar16(OLECHAR* text) noexcept {
  return reinterpret_cast<char16_t*>(text);
}

}  // namespace qv::platform

#endif  // VEKX_WIDE_STRING_H_
