#pragma once
// Registration of the component with the system: the class, its ProgIDs, its AppID and the type
// library carried in the module's resources. One table of keys serves registering and
// unregistering, so the two cannot drift apart.

#include <windows.h>

namespace qv::host {

// Where the keys go: HKEY_CLASSES_ROOT for every user of the machine, or the current user's
// HKEY_CURRENT_USER\Software\Classes (no administrator rights needed).
enum class RegistrationScope { kMachine, kUser };

// Writes the class, ProgID and AppID keys for `module`, then registers its type library. Stops at
// the first failure and returns it.
HRESULT RegisterServer(HMODULE module, RegistrationScope scope) noexcept;

// Removes what RegisterServer wrote, then the type library's registration. Keys and a type
// library that are already absent count as removed, so unregistering twice succeeds.
HRESULT UnregisterServer(HMODULE module, RegistrationScope scope) noexcept;

}  // namespace qv::host
