#pragma once
// The class object of the root object's coclass: what DllGetClassObject hands to the component
// system (or to a POSIX host that loads the library itself), and what makes root objects.

#include <atomic>

#include "platform/automation.h"

namespace qv {

class RootClassFactory final : public IClassFactory {
 public:
  RootClassFactory() noexcept;
  RootClassFactory(const RootClassFactory&) = delete;
  RootClassFactory& operator=(const RootClassFactory&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  // Aggregation is not supported: an outer object gives CLASS_E_NOAGGREGATION.
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override;
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override;

 private:
  ~RootClassFactory();

  std::atomic<ULONG> references_{1};
};

// DllGetClassObject's work: the class object for `clsid` (only the root object's class).
HRESULT GetRootClassObject(REFCLSID clsid, REFIID iid, void** object) noexcept;

}  // namespace qv
