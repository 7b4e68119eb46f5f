// The functions the library exports. On Windows the component system calls DllGetClassObject and
// DllCanUnloadNow (the DLL's export table lists them, with the registration functions of
// src/host); on POSIX a host loads the library and calls the same functions itself, or the plain
// creation function below.

#include "api/class_factory.h"
#include "api/object_count.h"
#include "api/root_object.h"
#include "serverlink/answer_limit.h"
#include "vekxapi/library.h"
#include "vekxapi/vekxapi.h"

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* object) {
  return qv::GetRootClassObject(clsid, iid, object);
}

STDAPI DllCanUnloadNow(void) {
  return qv::ModuleIsIdle() ? S_OK : S_FALSE;
}

// Makes a root object and hands out its interface `iid`: the same as asking the class object
// for one, without the component system.
EXTERN_C HRESULT STDAPICALLTYPE VekxCreateRoot(REFIID iid, void** object) {
  return qv::CreateRootObject(iid, object);
}

EXTERN_C ULONG STDAPICALLTYPE VekxSetAnswerTimeout(ULONG milliseconds) {
  const auto previous = qv::SetThisThreadsAnswerLimit(std::chrono::milliseconds(milliseconds));
  return static_cast<ULONG>(previous.count());
}
