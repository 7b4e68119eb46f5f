#pragma once
// Typed arrays in VARIANTs, as the library takes and returns them: the numbers of an array read
// into a vector, new arrays of numbers or of text for [in] arguments, and the objects of an
// object list asked for one interface. Each returns the failure it meets rather than throw, so a
// host turns it into its own kind of error.
//
//   std::vector<std::uint64_t> addresses;
//   HRESULT hr = vekx::ArrayValues(list.Get(), addresses);   // VT_ARRAY | VT_UI8 (or VT_I8)
//   vekx::Variant bytes;
//   hr = vekx::MakeArray(VT_UI1, data.data(), data.size(), bytes);

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/variant.h"

namespace vekx {

// Copies the numbers of the one-dimensional array in `array` into `values`: its elements must
// be T's width, signed or unsigned (VT_UI1/VT_I1, VT_UI2/VT_I2, VT_UI4/VT_I4, VT_UI8/VT_I8).
// VT_EMPTY and VT_NULL hold none; DISP_E_TYPEMISMATCH for anything else.
template <class T>
HRESULT ArrayValues(const VARIANT& array, std::vector<T>& values) noexcept {
  static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);
  values.clear();
  if (array.vt == VT_EMPTY || array.vt == VT_NULL) return S_OK;
  constexpr VARTYPE kUnsigned = sizeof(T) == 1   ? VT_UI1
                                : sizeof(T) == 2 ? VT_UI2
                                : sizeof(T) == 4 ? VT_UI4
                                                 : VT_UI8;
  constexpr VARTYPE kSigned = sizeof(T) == 1   ? VT_I1
                              : sizeof(T) == 2 ? VT_I2
                              : sizeof(T) == 4 ? VT_I4
                                               : VT_I8;
  if ((array.vt != (VT_ARRAY | kUnsigned) && array.vt != (VT_ARRAY | kSigned)) ||
      array.parray == nullptr || SafeArrayGetDim(array.parray) != 1) {
    return DISP_E_TYPEMISMATCH;
  }
  LONG lower = 0;
  LONG upper = -1;
  if (HRESULT hr = SafeArrayGetLBound(array.parray, 1, &lower); FAILED(hr)) return hr;
  if (HRESULT hr = SafeArrayGetUBound(array.parray, 1, &upper); FAILED(hr)) return hr;
  void* data = nullptr;
  if (HRESULT hr = SafeArrayAccessData(array.parray, &data); FAILED(hr)) return hr;
  HRESULT result = S_OK;
  try {
    const auto* first = static_cast<const T*>(data);
    values.assign(first, first + (upper >= lower ? upper - lower + 1 : 0));
  } catch (const std::bad_alloc&) {
    result = E_OUTOFMEMORY;
  }
  SafeArrayUnaccessData(array.parray);
  return result;
}

// A new one-dimensional array of `type` (VT_UI1, VT_I4, VT_UI8, ...: T's width) holding
// `count` values, in `array`.
template <class T>
HRESULT MakeArray(VARTYPE type, const T* values, size_t count, Variant& array) noexcept {
  SAFEARRAY* made = SafeArrayCreateVector(type, 0, static_cast<ULONG>(count));
  if (made == nullptr) return E_OUTOFMEMORY;
  VARIANT* slot = array.Put();
  slot->vt = static_cast<VARTYPE>(VT_ARRAY | type);
  slot->parray = made;  // owned by `array` from here
  if (count == 0) return S_OK;
  void* data = nullptr;
  if (HRESULT hr = SafeArrayAccessData(made, &data); FAILED(hr)) return hr;
  std::memcpy(data, values, count * sizeof(T));
  SafeArrayUnaccessData(made);
  return S_OK;
}

// A new VT_ARRAY | VT_BSTR of `texts` (UTF-8), in `array`.
inline HRESULT MakeTextArray(const std::vector<std::string>& texts, Variant& array) noexcept {
  SAFEARRAY* made = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
  if (made == nullptr) return E_OUTOFMEMORY;
  VARIANT* slot = array.Put();
  slot->vt = VT_ARRAY | VT_BSTR;
  slot->parray = made;  // owned by `array` from here
  for (LONG index = 0; index < static_cast<LONG>(texts.size()); ++index) {
    const Bstr text = Bstr::FromUtf8(texts[static_cast<size_t>(index)]);
    if (text.IsNull()) return E_OUTOFMEMORY;
    // Stores a copy of the string.
    if (HRESULT hr = SafeArrayPutElement(made, &index, text.Get()); FAILED(hr)) return hr;
  }
  return S_OK;
}

// The objects of a VT_ARRAY of dispatch pointers (or of VARIANTs holding them), each asked for
// `iid`, in `objects`. VT_EMPTY and VT_NULL hold none; DISP_E_TYPEMISMATCH for an element that is
// no object.
template <class Interface>
HRESULT ArrayObjects(const VARIANT& list, REFIID iid,
                     std::vector<ComPtr<Interface>>& objects) noexcept {
  objects.clear();
  if (list.vt == VT_EMPTY || list.vt == VT_NULL) return S_OK;
  std::vector<Variant> elements;
  if (HRESULT hr = ArrayElements(list, elements); FAILED(hr)) return hr;
  try {
    objects.reserve(elements.size());
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (const Variant& element : elements) {
    if (element.Type() != VT_DISPATCH || element.Get().pdispVal == nullptr) {
      objects.clear();
      return DISP_E_TYPEMISMATCH;
    }
    ComPtr<Interface> object;
    if (HRESULT hr =
            element.Get().pdispVal->QueryInterface(iid, reinterpret_cast<void**>(object.Put()));
        FAILED(hr)) {
      objects.clear();
      return hr;
    }
    objects.push_back(std::move(object));  // reserved above: does not allocate
  }
  return S_OK;
}

}  // namespace vekx
