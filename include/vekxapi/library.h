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

// How long the calls made on the calling thread wait for the server's answer, in milliseconds;
// 0 (the default) waits as long as the server takes. A call that reaches the limit returns
// KXAPI_TIMEOUT, its description saying so; the answer, should it come later, is dropped and the
// connection stays usable. Returns the thread's previous limit. Events and other threads' calls
// are not affected.
EXTERN_C ULONG STDAPICALLTYPE VekxSetAnswerTimeout(ULONG milliseconds);
