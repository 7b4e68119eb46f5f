#include "api/object_lists.h"

#include <new>
#include <string>
#include <utility>

#include "api/name_value_pair.h"
#include "api/result_values.h"
#include "api/target_object.h"

namespace qv {
namespace {

// Makes `count` objects with `make(index, IDispatch**)` and hands them out as one array.
template <class Make>
HRESULT OutObjects(size_t count, VARIANT* out, Make&& make) noexcept {
  if (out == nullptr) return E_POINTER;
  std::vector<vekx::ComPtr<IDispatch>> objects;
  try {
    objects.resize(count);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (size_t i = 0; i < count; ++i) {
    if (HRESULT hr = make(i, objects[i].Put()); FAILED(hr)) return hr;
  }
  return OutObjectArray(objects, out);
}

}  // namespace

HRESULT OutTargetArray(const SharedClient& client, const std::vector<uint32_t>& handles,
                       VARIANT* out) noexcept {
  return OutObjects(handles.size(), out, [&](size_t i, IDispatch** object) {
    return CreateTargetObject(client, handles[i], IID_IDispatch, reinterpret_cast<void**>(object));
  });
}

HRESULT OutNameValueArray(const NameValueList& pairs, VARIANT* out) noexcept {
  return OutObjects(pairs.size(), out, [&](size_t i, IDispatch** object) noexcept -> HRESULT {
    std::u16string name;
    std::u16string value;
    try {
      name = pairs[i].Name;
      value = pairs[i].Value;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    return CreateObject<CKXVENameValuePair>(IID_IDispatch, reinterpret_cast<void**>(object),
                                            std::move(name), std::move(value));
  });
}

}  // namespace qv
