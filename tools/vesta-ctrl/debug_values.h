#pragma once
// What the debug commands share: numbers as the user types them, numbers and bytes as the
// output shows them, and the library's values (properties, arrays in VARIANTs) read into plain
// C++ values. Readers throw Failure when the library does; parsers throw UsageError.

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "failure.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/variant.h"
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

// The contents of library arrays: VT_EMPTY and VT_NULL read as empty.
std::vector<std::uint8_t> BytesOf(const VARIANT& value);     // VT_ARRAY | VT_UI1 (or VT_I1)
std::vector<std::uint64_t> WordsOf(const VARIANT& value);    // VT_ARRAY | VT_UI8 (or VT_I8)
std::vector<std::uint32_t> NumbersOf(const VARIANT& value);  // VT_ARRAY of 32-bit integers

// New arrays for the library's [in] arguments.
vekx::Variant ByteArray(const std::vector<std::uint8_t>& bytes);
vekx::Variant U32Array(const std::vector<std::uint32_t>& values);
vekx::Variant I32Array(const std::vector<std::uint32_t>& values);  // the bits as VT_I4
vekx::Variant U64Array(const std::vector<std::uint64_t>& values);
vekx::Variant BstrArray(const std::vector<std::string>& texts);

// The objects of a VT_ARRAY of dispatch pointers (or of VARIANTs holding them), each asked for
// `iid`.
template <class Interface>
std::vector<vekx::ComPtr<Interface>> ObjectsOf(const VARIANT& list, REFIID iid) {
  std::vector<vekx::ComPtr<Interface>> objects;
  if (list.vt == VT_EMPTY || list.vt == VT_NULL) return objects;
  std::vector<vekx::Variant> elements;
  Check(vekx::ArrayElements(list, elements));
  for (const vekx::Variant& element : elements) {
    if (element.Type() != VT_DISPATCH || element.Get().pdispVal == nullptr)
      Check(DISP_E_TYPEMISMATCH);
    vekx::ComPtr<Interface> object;
    Check(element.Get().pdispVal->QueryInterface(iid, reinterpret_cast<void**>(object.Put())));
    objects.push_back(std::move(object));
  }
  return objects;
}

// One property of an object. Enumerations come back as their 32 bits, since the library passes
// through values the enumeration does not name.
template <class Object, class Interface, class T>
auto Read(Object& object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(T*)) {
  static_assert(std::is_base_of_v<Interface, Object>);
  if constexpr (std::is_same_v<T, BSTR>) {
    vekx::Bstr text;
    Check((object.*getter)(text.Put()));
    return text.Utf8();
  } else if constexpr (std::is_same_v<T, VARIANT>) {
    vekx::Variant value;
    Check((object.*getter)(value.Put()));
    return value;
  } else if constexpr (std::is_pointer_v<T>) {
    vekx::ComPtr<std::remove_pointer_t<T>> result;
    Check((object.*getter)(result.Put()));
    return result;
  } else if constexpr (std::is_enum_v<T>) {
    static_assert(sizeof(T) == sizeof(std::uint32_t));
    T value{};
    Check((object.*getter)(&value));
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
  } else {
    static_assert(std::is_arithmetic_v<T>);
    T value{};
    Check((object.*getter)(&value));
    return value;
  }
}

}  // namespace vesta_ctrl
