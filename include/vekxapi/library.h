#pragma once
// Making the root object without the component system: on POSIX, or in a Windows host that loads
// the library by path. The object is the same one that CoCreateInstance(CLSID_VEKXAPI) makes.
//
//   vekx::ComPtr<IVEKXAPI> api;
//   HRESULT hr = VekxCreateRoot(IID_IVEKXAPI, reinterpret_cast<void**>(api.Put()));

#include "vekxapi/automation.h"

EXTERN_C HRESULT STDAPICALLTYPE VekxCreateRoot(REFIID iid, void** object);

// The component system's entry points, which a POSIX host that loads the library calls itself.
STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* object);
STDAPI DllCanUnloadNow(void);
