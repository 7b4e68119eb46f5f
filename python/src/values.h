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
#include "vekxapi/checked.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

// A VARIANT as Python: numbers, str, bool; byte arrays as bytes, other arrays as lists; objects
// and empty values None.
pybind11::object ValueOf(const VARIANT& value);

// The library's arrays as plain values (Library::Values, Array, TextArray, Objects), failures
// raised as vekxapi.Error.
using Library = vekx::Checked<&Check>;

// One property through its getter, with the GIL released while the library answers: text as
// UTF-8, enumerations as their 32 bits (the library passes through values they do not name),
// objects as owning pointers.
template <class Object, class Interface, class T>
auto Get(Object& object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(T*)) {
  vekx::PropertyValue<T> value{};
  Unlocked([&] { return vekx::ReadProperty(object, getter, value); });
  if constexpr (std::is_same_v<T, VARIANT_BOOL>) {
    return value != VARIANT_FALSE;
  } else {
    return value;
  }
}

}  // namespace vekx_python
