#include "platform/wide_string.h"

#include <limits>
#include <new>

namespace qv::platform {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

// Decodes one scalar value starting at utf8[*pos] and advances *pos past it. Ill-formed input
// yields U+FFFD and advances past the maximal subpart: the longest prefix of a well-formed
// sequence (Unicode 15, section 3.9, "U+FFFD Substitution of Maximal Subparts").
char32_t DecodeOne(std::string_view utf8, std::size_t* pos) {
  const auto lead = static_cast<unsigned char>(utf8[*pos]);
  ++*pos;
  if (lead < 0x80) return lead;

  int continuation_bytes;
  char32_t value;
  // The permitted range of the second byte rules out overlong forms, surrogates and values
  // past U+10FFFF (Table 3-7, "Well-Formed UTF-8 Byte Sequences").
  unsigned char second_min = 0x80;
  unsigned char second_max = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    continuation_bytes = 1;
    value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    continuation_bytes = 2;
    value = lead & 0x0F;
    if (lead == 0xE0) second_min = 0xA0;
    if (lead == 0xED) second_max = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    continuation_bytes = 3;
    value = lead & 0x07;
    if (lead == 0xF0) second_min = 0x90;
    if (lead == 0xF4) second_max = 0x8F;
  } else {
    return kReplacement;  // A continuation byte, or a lead byte that is never valid.
  }

  for (int i = 0; i < continuation_bytes; ++i) {
    if (*pos >= utf8.size()) return kReplacement;
    const auto byte = static_cast<unsigned char>(utf8[*pos]);
    const unsigned char min = i == 0 ? second_min : 0x80;
    const unsigned char max = i == 0 ? second_max : 0xBF;
    if (byte < min || byte > max) return kReplacement;  // Not consumed: it starts the next.
    value = (value << 6) | (byte & 0x3F);
    ++*pos;
  }
  return value;
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view utf8) noexcept {
  try {
    std::u16string result;
    result.reserve(utf8.size());
    std::size_t pos = 0;
    while (pos < utf8.size()) {
      const char32_t c = DecodeOne(utf8, &pos);
      if (c < 0x10000) {
        result.push_back(static_cast<char16_t>(c));
      } else {
        result.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
        result.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
      }
    }
    return result;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::string Utf16ToUtf8(std::u16string_view utf16) noexcept {
  try {
    std::string result;
    result.reserve(utf16.size());
    for (std::size_t i = 0; i < utf16.size(); ++i) {
      char32_t c = utf16[i];
      if (c >= 0xD800 && c <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 &&
          utf16[i + 1] <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (utf16[i + 1] - 0xDC00);
        ++i;
      } else if (c >= 0xD800 && c <= 0xDFFF) {
        c = kReplacement;
      }
      if (c < 0x80) {
        result.push_back(static_cast<char>(c));
      } else if (c < 0x800) {
        result.push_back(static_cast<char>(0xC0 | (c >> 6)));
        result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else if (c < 0x10000) {
        result.push_back(static_cast<char>(0xE0 | (c >> 12)));
        result.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else {
        result.push_back(static_cast<char>(0xF0 | (c >> 18)));
        result.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        result.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      }
    }
    return result;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

BSTR AllocBstr(std::u16string_view text) noexcept {
  if (text.size() > std::numeric_limits<UINT>::max() / sizeof(OLECHAR)) return nullptr;
  // SysAllocStringLen would zero-fill from a null source, but an empty view may carry a null
  // data pointer and must still give an empty, non-null string.
  return SysAllocStringLen(text.empty() ? nullptr : ToOleChars(text.data()),
                           static_cast<UINT>(text.size()));
}

std::u16string_view BstrView(BSTR bstr) noexcept {
  if (bstr == nullptr) return {};
  return {ToChar16(bstr), SysStringLen(bstr)};
}

}  // namespace qv::platform
