// The DLL's registration entry points, which regsvr32 and installers call. DllGetClassObject and
// DllCanUnloadNow are portable and live with the object model.
//
// No proxy/stub code of our own: every interface is dual and oleautomation, so registering the
// type library gives each the system's automation marshaller, which builds proxies from the
// library at run time. Generated proxies would only duplicate that for every generation.

#include <windows.h>

#include <atomic>
#include <cwchar>

#include "host/registration.h"
#include "host/this_module.h"

namespace {

// The "user" switch of DllInstall holds for that call and every later registration call while
// the module stays loaded (regsvr32 /i:user calls DllInstall, an installer may go on to call
// DllRegisterServer). The one piece of module-wide state the registration contract asks for.
std::atomic<bool> per_user{false};

qv::host::RegistrationScope Scope() {
  return per_user.load() ? qv::host::RegistrationScope::kUser
                         : qv::host::RegistrationScope::kMachine;
}

}  // namespace

STDAPI DllRegisterServer() {
  return qv::host::RegisterServer(qv::host::ThisModule(), Scope());
}

STDAPI DllUnregisterServer() {
  return qv::host::UnregisterServer(qv::host::ThisModule(), Scope());
}

// `command_line` "user" (any case) switches to per-user registration; any other leaves the mode
// as it was. A failed install removes what it wrote and returns the failure.
STDAPI DllInstall(BOOL install, LPCWSTR command_line) {
  // Five characters: the terminator too, so "users" is not "user".
  if (command_line != nullptr && _wcsnicmp(command_line, L"user", 5) == 0) per_user = true;
  if (!install) return DllUnregisterServer();
  const HRESULT hr = DllRegisterServer();
  if (FAILED(hr)) DllUnregisterServer();
  return hr;
}
