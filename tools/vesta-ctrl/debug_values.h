#pragma once
// What the debug commands share: numbers as the user types them, numbers and bytes as the
// output shows them, and the library's values (properties, arrays in VARIANTs) read into plain
// C++ values. Readers throw Failure when the library does; parsers throw UsageError.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "vekxapi/checked.h"
#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

// A decimal number up to `max` (a PID, a TID); `what` names it in the complaint.
std::uint32_t ParseDecimal(std::string_view text, std::string_view what,
                           std::uint32_t max = UINT32_MAX);
// A decimal or 0x-hexadecimal number up to `max` (an address, a length, a size).
std::uint64_t ParseNumber(std::string_view text, std::string_view what,
                          std::uint64_t max = UINT64_MAX);
// A register value: decimal up to 64 bits or 0x-hexadecimal up to `width_bits`, as four 64-bit
// words, lowest first.
std::array<std::uint64_t, 4> ParseWideNumber(std::string_view text, std::string_view what,
                                             unsigned width_bits);
// Pairs of hexadecimal digits, optionally separated by blanks or colons: "de ad", "de:ad", "dead".
std::vector<std::uint8_t> ParseHexBytes(std::string_view text, std::string_view what);

// "0x401000": lower case, no leading zeros.
std::string Hex(std::uint64_t value);
// Four 64-bit words, lowest first, as one number: "0x1" or "0x20000000000000001".
std::string WideHex(const std::uint64_t* words, size_t count);
// "48656c6c6f": two lower-case digits per byte.
std::string HexBytes(const std::vector<std::uint8_t>& bytes);

// The library's arrays and properties as plain values, failures thrown as Failure.
using Library = vekx::Checked<&Check>;

// The contents of library arrays: VT_EMPTY and VT_NULL read as empty.
inline std::vector<std::uint8_t> BytesOf(const VARIANT& value) {  // VT_UI1 (or VT_I1)
  return Library::Values<std::uint8_t>(value);
}
inline std::vector<std::uint64_t> WordsOf(const VARIANT& value) {  // VT_UI8 (or VT_I8)
  return Library::Values<std::uint64_t>(value);
}
inline std::vector<std::uint32_t> NumbersOf(const VARIANT& value) {  // 32-bit integers
  return Library::Values<std::uint32_t>(value);
}

// New arrays for the library's [in] arguments.
inline vekx::Variant ByteArray(const std::vector<std::uint8_t>& bytes) {
  return Library::Array(VT_UI1, bytes.data(), bytes.size());
}
inline vekx::Variant U32Array(const std::vector<std::uint32_t>& values) {
  return Library::Array(VT_UI4, values.data(), values.size());
}
inline vekx::Variant I32Array(const std::vector<std::uint32_t>& values) {  // the bits as VT_I4
  return Library::Array(VT_I4, values.data(), values.size());
}
inline vekx::Variant U64Array(const std::vector<std::uint64_t>& values) {
  return Library::Array(VT_UI8, values.data(), values.size());
}
inline vekx::Variant BstrArray(const std::vector<std::string>& texts) {
  return Library::TextArray(texts);
}

// The objects of a list, each asked for `iid`; one property of an object (enumerations as their
// 32 bits, since the library passes through values the enumeration does not name).
template <class Interface>
std::vector<vekx::ComPtr<Interface>> ObjectsOf(const VARIANT& list, REFIID iid) {
  return Library::Objects<Interface>(list, iid);
}
template <class Object, class Interface, class T>
auto Read(Object& object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(T*)) {
  return Library::Read(object, getter);
}

}  // namespace vesta_ctrl
