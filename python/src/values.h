#pragma once
// The library's values as Python and C++ values: arrays in VARIANTs, object lists, properties
// read through their getters with the GIL released. Every reader raises vekxapi.Error when the
// library fails.

#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "errors.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/variant.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

// A VARIANT as Python: numbers, str, bool; byte arrays as bytes, other arrays as lists; objects
// and empty values None.
pybind11::object ValueOf(const VARIANT& value);

// The elements of the library's arrays; VT_EMPTY and VT_NULL read as empty.
std::vector<std::uint8_t> BytesOf(const VARIANT& value);     // VT_ARRAY | VT_UI1
std::vector<std::uint64_t> WordsOf(const VARIANT& value);    // VT_ARRAY | VT_UI8
std::vector<std::uint32_t> NumbersOf(const VARIANT& value);  // VT_ARRAY of 32-bit integers

// New arrays for the library's [in] arguments.
vekx::Variant ByteArray(const std::uint8_t* bytes, size_t count);
vekx::Variant I32Array(const std::vector<std::uint32_t>& values);
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

// One property through its getter, with the GIL released while the library answers: text as
// UTF-8, enumerations as their 32 bits (the library passes through values they do not name),
// objects as owning pointers.
template <class Object, class Interface, class T>
auto Get(Object& object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(T*)) {
  static_assert(std::is_base_of_v<Interface, Object>);
  if constexpr (std::is_same_v<T, BSTR>) {
    vekx::Bstr text;
    Unlocked([&] { return (object.*getter)(text.Put()); });
    return text.Utf8();
  } else if constexpr (std::is_same_v<T, VARIANT>) {
    vekx::Variant value;
    Unlocked([&] { return (object.*getter)(value.Put()); });
    return value;
  } else if constexpr (std::is_pointer_v<T>) {
    vekx::ComPtr<std::remove_pointer_t<T>> result;
    Unlocked([&] { return (object.*getter)(result.Put()); });
    return result;
  } else if constexpr (std::is_enum_v<T>) {
    static_assert(sizeof(T) == sizeof(std::uint32_t));
    T value{};
    Unlocked([&] { return (object.*getter)(&value); });
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
  } else if constexpr (std::is_same_v<T, VARIANT_BOOL>) {
    VARIANT_BOOL value = VARIANT_FALSE;
    Unlocked([&] { return (object.*getter)(&value); });
    return value != VARIANT_FALSE;
  } else {
    static_assert(std::is_arithmetic_v<T>);
    T value{};
    Unlocked([&] { return (object.*getter)(&value); });
    return value;
  }
}

}  // namespace vekx_python
