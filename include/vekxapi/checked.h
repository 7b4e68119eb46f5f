#pragma once
// The array and property readers for a host that reports failures as exceptions: `Check` is the
// host's own function that throws for a failed HRESULT, and every reader returns its value.
//
//   using Library = vekx::Checked<&MyCheck>;
//   std::string host = Library::Read(*target, &ITarget::get_HostName);
//   std::vector<std::uint8_t> bytes = Library::Values<std::uint8_t>(answer.Get());

#include <cstdint>
#include <string>
#include <vector>

#include "vekxapi/arrays.h"
#include "vekxapi/property.h"

namespace vekx {

template <auto Check>
struct Checked {
  template <class T>
  static std::vector<T> Values(const VARIANT& array) {
    std::vector<T> values;
    Check(ArrayValues(array, values));
    return values;
  }
  template <class T>
  static Variant Array(VARTYPE type, const T* values, size_t count) {
    Variant array;
    Check(MakeArray(type, values, count, array));
    return array;
  }
  static Variant TextArray(const std::vector<std::string>& texts) {
    Variant array;
    Check(MakeTextArray(texts, array));
    return array;
  }
  template <class Interface>
  static std::vector<ComPtr<Interface>> Objects(const VARIANT& list, REFIID iid) {
    std::vector<ComPtr<Interface>> objects;
    Check(ArrayObjects(list, iid, objects));
    return objects;
  }
  template <class Object, class Interface, class T>
  static PropertyValue<T> Read(Object& object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(T*)) {
    PropertyValue<T> value{};
    Check(ReadProperty(object, getter, value));
    return value;
  }
};

}  // namespace vekx
