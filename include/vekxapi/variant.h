#pragma once
// An owning VARIANT, cleared when it goes, and the elements of the one-dimensional arrays the
// library returns in VARIANTs (lists of objects, of strings, of numbers).
//
//   vekx::Variant list;
//   api->get_Targets(list.Put());
//   std::vector<vekx::Variant> targets;
//   HRESULT hr = vekx::ArrayElements(list.Get(), targets);   // each holds an ITarget's IDispatch

#include <new>
#include <utility>
#include <vector>

#include "vekxapi/automation.h"

namespace vekx {

class Variant {
 public:
  Variant() noexcept { VariantInit(&value_); }
  // Takes over `owned`, leaving it VT_EMPTY.
  static Variant Adopt(VARIANT& owned) noexcept {
    Variant result;
    result.value_ = owned;
    VariantInit(&owned);
    return result;
  }
  // A copy of `other`'s value; VT_EMPTY when it cannot be copied.
  Variant(const Variant& other) noexcept : Variant() {
    if (VariantCopy(&value_, const_cast<VARIANT*>(&other.value_)) != S_OK) VariantInit(&value_);
  }
  Variant(Variant&& other) noexcept : value_(other.value_) { VariantInit(&other.value_); }
  Variant& operator=(Variant other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~Variant() { VariantClear(&value_); }

  const VARIANT& Get() const noexcept { return value_; }
  // For an [out] argument: clears what it holds and hands out the slot.
  VARIANT* Put() noexcept {
    VariantClear(&value_);
    return &value_;
  }
  VARTYPE Type() const noexcept { return value_.vt; }

 private:
  VARIANT value_;
};

// Copies the elements of the one-dimensional array in `array` (VT_ARRAY with elements of VARIANT,
// BSTR, IDispatch, IUnknown or a 32-bit integer type) into `elements`, each as a Variant of the
// element's own type. DISP_E_TYPEMISMATCH for anything else; E_OUTOFMEMORY when memory runs out.
inline HRESULT ArrayElements(const VARIANT& array, std::vector<Variant>& elements) noexcept {
  elements.clear();
  if ((array.vt & VT_ARRAY) == 0 || (array.vt & VT_BYREF) != 0) return DISP_E_TYPEMISMATCH;
  SAFEARRAY* data = array.parray;
  if (data == nullptr || SafeArrayGetDim(data) != 1) return DISP_E_TYPEMISMATCH;
  const VARTYPE element_type = static_cast<VARTYPE>(array.vt & ~VT_ARRAY);
  switch (element_type) {
    case VT_VARIANT:
    case VT_BSTR:
    case VT_DISPATCH:
    case VT_UNKNOWN:
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_I8:
    case VT_UI8:
    case VT_BOOL:
      break;
    default:
      return DISP_E_TYPEMISMATCH;
  }
  LONG lower = 0;
  LONG upper = -1;
  if (HRESULT hr = SafeArrayGetLBound(data, 1, &lower); hr != S_OK) return hr;
  if (HRESULT hr = SafeArrayGetUBound(data, 1, &upper); hr != S_OK) return hr;
  try {
    elements.reserve(static_cast<size_t>(upper - lower + 1));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (LONG index = lower; index <= upper; ++index) {
    Variant element;
    VARIANT* slot = element.Put();
    slot->llVal = 0;  // a narrower element fills only its own bytes
    // SafeArrayGetElement hands out copies: a new BSTR, an AddRef'd pointer, a copied VARIANT.
    void* destination =
        element_type == VT_VARIANT ? static_cast<void*>(slot) : static_cast<void*>(&slot->llVal);
    if (HRESULT hr = SafeArrayGetElement(data, &index, destination); hr != S_OK) {
      elements.clear();
      return hr;
    }
    if (element_type != VT_VARIANT) slot->vt = element_type;
    elements.push_back(std::move(element));  // reserved above: does not allocate
  }
  return S_OK;
}

}  // namespace vekx
