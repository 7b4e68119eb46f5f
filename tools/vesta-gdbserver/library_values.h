#pragma once
// Reading the library's answers into plain values. A failed call throws LibraryError with the
// library's description of it; the bridge turns that into an error reply for the one packet.

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/status.h"
#include "vekxapi/variant.h"
#include "vekxapi/vekxapi.h"

namespace vesta_gdb {

class LibraryError : public std::runtime_error {
 public:
  LibraryError(HRESULT code, const std::string& message)
      : std::runtime_error(message), code_(code) {}
  HRESULT code() const noexcept { return code_; }

 private:
  HRESULT code_;
};

inline void Check(HRESULT result) {
  if (SUCCEEDED(result)) return;
  throw LibraryError(result, vekx::Status::Of(result).message());
}

// The elements of a VT_ARRAY of numbers of T's size (VT_EMPTY and VT_NULL read as none).
template <class T>
std::vector<T> ValuesOf(const VARIANT& value) {
  if (value.vt == VT_EMPTY || value.vt == VT_NULL) return {};
  if ((value.vt & VT_ARRAY) == 0 || value.parray == nullptr || SafeArrayGetDim(value.parray) != 1 ||
      SafeArrayGetElemsize(value.parray) != sizeof(T)) {
    Check(DISP_E_TYPEMISMATCH);
  }
  LONG lower = 0;
  LONG upper = -1;
  Check(SafeArrayGetLBound(value.parray, 1, &lower));
  Check(SafeArrayGetUBound(value.parray, 1, &upper));
  void* data = nullptr;
  Check(SafeArrayAccessData(value.parray, &data));
  const auto* first = static_cast<const T*>(data);
  std::vector<T> values(first, first + (upper >= lower ? upper - lower + 1 : 0));
  SafeArrayUnaccessData(value.parray);
  return values;
}

// A new VT_ARRAY of `type` holding `values`.
template <class T>
vekx::Variant ArrayOf(VARTYPE type, const T* values, size_t count) {
  vekx::Variant result;
  SAFEARRAY* array = SafeArrayCreateVector(type, 0, static_cast<ULONG>(count));
  if (array == nullptr) Check(E_OUTOFMEMORY);
  VARIANT* slot = result.Put();
  slot->vt = static_cast<VARTYPE>(VT_ARRAY | type);
  slot->parray = array;
  void* data = nullptr;
  Check(SafeArrayAccessData(array, &data));
  if (count != 0) std::memcpy(data, values, count * sizeof(T));
  SafeArrayUnaccessData(array);
  return result;
}

// The objects of a VT_ARRAY of dispatch pointers, each asked for `iid`.
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

// One property. Enumerations come back as their 32 bits.
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
    T value{};
    Check((object.*getter)(&value));
    return value;
  }
}

}  // namespace vesta_gdb
