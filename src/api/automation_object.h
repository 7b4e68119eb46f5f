#pragma once
// What every public object shares: reference counting, QueryInterface over its interface family,
// IDispatch through the type library, and ISupportErrorInfo.
//
//   class CKXVETarget final : public AutomationObject<CKXVETarget, ITarget47> {
//     public:
//      static bool IsFamily(REFIID iid);      // ITarget .. ITarget47
//      static const IID& DispatchIid();       // the most-derived one, which scripts bind to
//      ...
//   };
//   ITarget* target = nullptr;
//   HRESULT hr = CreateObject<CKXVETarget>(IID_ITarget, reinterpret_cast<void**>(&target), ...);
//
// A family is a chain in which each generation derives from the one before, so one vtable serves
// every generation and QueryInterface hands out the same pointer for all of them. Objects are
// made with one reference that CreateObject exchanges for the interface asked for.

#include <atomic>
#include <new>
#include <utility>

#include "api/object_count.h"
#include "platform/automation.h"
#include "platform/dispatch.h"

namespace qv {

template <class Derived, class Interface>
class AutomationObject : public Interface, public ISupportErrorInfo {
 public:
  AutomationObject(const AutomationObject&) = delete;
  AutomationObject& operator=(const AutomationObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || Derived::IsFamily(iid)) {
      *object = static_cast<Interface*>(this);
    } else if (IsEqualIID(iid, IID_ISupportErrorInfo)) {
      *object = static_cast<ISupportErrorInfo*>(this);
    } else {
      *object = nullptr;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    return references_.fetch_add(1, std::memory_order_relaxed) + 1;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete static_cast<Derived*>(this);
    return left;
  }

  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = platform::HasDispatchTypeInfo(Derived::DispatchIid()) ? 1 : 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** info) override {
    if (info == nullptr) return E_POINTER;
    *info = nullptr;
    if (index != 0) return DISP_E_BADINDEX;
    return platform::DispatchTypeInfo(Derived::DispatchIid(), info);
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                                          DISPID* ids) override {
    return platform::DispatchIdsOfNames(Derived::DispatchIid(), names, count, ids);
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID member, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO* exception,
                                   UINT* bad_argument) override {
    return platform::DispatchInvoke(static_cast<Interface*>(this), Derived::DispatchIid(), member,
                                    flags, params, result, exception, bad_argument);
  }

  // Every interface of the family reports its failures through the thread's error object.
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID iid) override {
    return Derived::IsFamily(iid) ? S_OK : S_FALSE;
  }

 protected:
  AutomationObject() noexcept { ObjectCreated(); }
  virtual ~AutomationObject() { ObjectDestroyed(); }

 private:
  std::atomic<ULONG> references_{1};
};

// Makes a `T` from `args` and hands out its interface `iid` in `*object`: S_OK, E_POINTER for a
// null `object`, E_OUTOFMEMORY, or E_NOINTERFACE (and nothing is left behind). T's constructor
// must not throw.
template <class T, class... Args>
HRESULT CreateObject(REFIID iid, void** object, Args&&... args) noexcept {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  T* made = new (std::nothrow) T(std::forward<Args>(args)...);
  if (made == nullptr) return E_OUTOFMEMORY;
  const HRESULT hr = made->QueryInterface(iid, object);
  made->Release();
  return hr;
}

// The parameter type of a property getter, taken from the interface so that classes generated
// from tables cannot drift from the IDL: GetterOutT<&IThreadInfo::get_Name> is BSTR*.
template <class Getter>
struct GetterOut;
template <class Interface, class Out>
struct GetterOut<HRESULT (STDMETHODCALLTYPE Interface::*)(Out)> {
  using type = Out;
};
template <auto getter>
using GetterOutT = typename GetterOut<decltype(getter)>::type;

// Whether `iid` is one of `family`, a list of a family's interface identities.
template <size_t N>
bool IsOneOf(REFIID iid, const IID* const (&family)[N]) {
  for (const IID* member : family) {
    if (IsEqualIID(iid, *member)) return true;
  }
  return false;
}

}  // namespace qv
