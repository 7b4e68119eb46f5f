#include "api/class_factory.h"

#include <new>

#include "api/object_count.h"
#include "api/root_object.h"
#include "vekxapi/vekxapi.h"

namespace qv {

RootClassFactory::RootClassFactory() noexcept {
  ObjectCreated();
}

RootClassFactory::~RootClassFactory() {
  ObjectDestroyed();
}

HRESULT RootClassFactory::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IClassFactory)) {
    *object = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

ULONG RootClassFactory::AddRef() {
  return references_.fetch_add(1, std::memory_order_relaxed) + 1;
}

ULONG RootClassFactory::Release() {
  const ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

HRESULT RootClassFactory::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (outer != nullptr) return CLASS_E_NOAGGREGATION;
  return CreateRootObject(iid, object);
}

HRESULT RootClassFactory::LockServer(BOOL lock) {
  if (lock) {
    ModuleLocked();
  } else {
    ModuleUnlocked();
  }
  return S_OK;
}

HRESULT GetRootClassObject(REFCLSID clsid, REFIID iid, void** object) noexcept {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (!IsEqualCLSID(clsid, CLSID_VEKXAPI)) return CLASS_E_CLASSNOTAVAILABLE;
  auto* factory = new (std::nothrow) RootClassFactory();
  if (factory == nullptr) return E_OUTOFMEMORY;
  const HRESULT hr = factory->QueryInterface(iid, object);
  factory->Release();
  return hr;
}

}  // namespace qv
