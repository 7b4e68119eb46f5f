#pragma once
// What a debug object needs to reach its target again: the private client, the target's handle
// and, below the target, the process it belongs to. Value objects carry one so that they can hand
// out live objects (a thread information object its thread, a process information object its
// process) for the same target.

#include <cstdint>

#include "api/server_call.h"

namespace qv {

struct DebugContext {
  SharedClient client;
  uint32_t target = 0;
  uint32_t pid = 0;
};

}  // namespace qv
