#pragma once
// One property of a library object read into a plain C++ value: text as UTF-8, a VARIANT owned,
// an object as an owning pointer, an enumeration as its 32 bits (the library passes through
// values the enumeration does not name), numbers as they are.
//
//   vekx::PropertyValue<BSTR> host;                    // std::string
//   HRESULT hr = vekx::ReadProperty(*target, &ITarget::get_HostName, host);

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/variant.h"

namespace vekx {

namespace property_detail {
template <class T, class = void>
struct Value {
  static_assert(std::is_arithmetic_v<T>);
  using type = T;
};
template <>
struct Value<BSTR> {
  using type = std::string;
};
template <>
struct Value<VARIANT> {
  using type = Variant;
};
template <class T>
struct Value<T*> {
  using type = ComPtr<T>;
};
template <class T>
struct Value<T, std::enable_if_t<std::is_enum_v<T>>> {
  static_assert(sizeof(T) == sizeof(std::uint32_t));
  using type = std::uint32_t;
};
}  // namespace property_detail

// What a getter of T* reads into.
template <class T>
using PropertyValue = typename property_detail::Value<T>::type;

// Calls `getter` on `object` and stores what it returned in `value`; the getter's failure, or
// E_OUTOFMEMORY, otherwise.
template <class Object, class Interface, class T>
HRESULT ReadProperty(Object& object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(T*),
                     PropertyValue<T>& value) noexcept {
  static_assert(std::is_base_of_v<Interface, Object>);
  if constexpr (std::is_same_v<T, BSTR>) {
    Bstr text;
    if (HRESULT hr = (object.*getter)(text.Put()); FAILED(hr)) return hr;
    try {
      value = text.Utf8();
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    return S_OK;
  } else if constexpr (std::is_same_v<T, VARIANT>) {
    return (object.*getter)(value.Put());
  } else if constexpr (std::is_pointer_v<T>) {
    return (object.*getter)(value.Put());
  } else if constexpr (std::is_enum_v<T>) {
    T read{};
    if (HRESULT hr = (object.*getter)(&read); FAILED(hr)) return hr;
    std::memcpy(&value, &read, sizeof value);
    return S_OK;
  } else {
    value = T{};
    return (object.*getter)(&value);
  }
}

}  // namespace vekx
