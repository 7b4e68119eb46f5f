#pragma once
// The module that holds this code: the DLL when the library is one, where its resources and its
// registration live.

#include <windows.h>

namespace qv::host {

HMODULE ThisModule() noexcept;

}  // namespace qv::host
