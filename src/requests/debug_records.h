#pragma once
// Records of the debug model: processes, threads, modules, memory, breakpoints and
// synchronisation objects, as they travel in the debug operations and debug notifications.

#include "requests/wire_types.h"
