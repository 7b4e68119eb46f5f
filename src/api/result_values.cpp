#include "api/result_values.h"

#include <cstring>

#include "platform/wide_string.h"

namespace qv {
namespace {

// Makes a one-dimensional array of `count` elements of `type`, fills it with `fill(data)` and
// hands it out as a VARIANT of VT_ARRAY | type.
template <class Fill>
HRESULT OutArray(VARTYPE type, size_t count, VARIANT* out, Fill&& fill) noexcept {
  if (out == nullptr) return E_POINTER;
  if (count > 0x7FFFFFFF) return E_OUTOFMEMORY;
  SAFEARRAY* array = SafeArrayCreateVector(type, 0, static_cast<ULONG>(count));
  if (array == nullptr) return E_OUTOFMEMORY;
  void* data = nullptr;
  HRESULT hr = SafeArrayAccessData(array, &data);
  if (SUCCEEDED(hr)) {
    hr = fill(data);
    SafeArrayUnaccessData(array);
  }
  if (FAILED(hr)) {
    SafeArrayDestroy(array);  // releases whatever elements were filled in
    return hr;
  }
  VariantInit(out);
  out->vt = static_cast<VARTYPE>(VT_ARRAY | type);
  out->parray = array;
  return S_OK;
}

}  // namespace

HRESULT OutString(std::u16string_view text, BSTR* out) noexcept {
  if (out == nullptr) return E_POINTER;
  BSTR made = platform::AllocBstr(text);
  if (made == nullptr) return E_OUTOFMEMORY;
  *out = made;
  return S_OK;
}

std::u16string_view InString(BSTR text) noexcept {
  return platform::BstrView(text);
}

HRESULT OutObjectArray(const std::vector<vekx::ComPtr<IDispatch>>& objects, VARIANT* out) noexcept {
  return OutArray(VT_VARIANT, objects.size(), out, [&](void* data) {
    auto* elements = static_cast<VARIANT*>(data);
    for (size_t i = 0; i < objects.size(); ++i) {
      elements[i].vt = VT_DISPATCH;
      elements[i].pdispVal = objects[i].Get();
      if (elements[i].pdispVal != nullptr) elements[i].pdispVal->AddRef();
    }
    return S_OK;
  });
}

HRESULT OutStringArray(const std::vector<std::u16string>& strings, VARIANT* out) noexcept {
  return OutArray(VT_BSTR, strings.size(), out, [&](void* data) {
    auto* elements = static_cast<BSTR*>(data);
    for (size_t i = 0; i < strings.size(); ++i) {
      elements[i] = platform::AllocBstr(strings[i]);
      if (elements[i] == nullptr) return E_OUTOFMEMORY;
    }
    return S_OK;
  });
}

HRESULT OutU32Array(const std::vector<uint32_t>& values, VARIANT* out) noexcept {
  return OutArray(VT_UI4, values.size(), out, [&](void* data) {
    if (!values.empty()) std::memcpy(data, values.data(), values.size() * sizeof(uint32_t));
    return S_OK;
  });
}

HRESULT OutU64Array(const std::vector<uint64_t>& values, VARIANT* out) noexcept {
  return OutArray(VT_UI8, values.size(), out, [&](void* data) {
    if (!values.empty()) std::memcpy(data, values.data(), values.size() * sizeof(uint64_t));
    return S_OK;
  });
}

HRESULT OutByteArray(std::span<const uint8_t> bytes, VARIANT* out) noexcept {
  return OutArray(VT_UI1, bytes.size(), out, [&](void* data) {
    if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
    return S_OK;
  });
}

HRESULT OutVariantArray(size_t count, VARIANT* out, HRESULT (*fill)(VARIANT*, const void*),
                        const void* context) noexcept {
  return OutArray(VT_VARIANT, count, out,
                  [&](void* data) { return fill(static_cast<VARIANT*>(data), context); });
}

}  // namespace qv
