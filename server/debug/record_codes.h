#pragma once
// Values the backends put in records: thread and wait states (eThreadState, eThreadWaitState)
// and module types (eModuleTypes).

#include <cstdint>

namespace qv::server {

enum : uint32_t {
  kThreadInhibited = 1,  // TDS_INHIBITED: stopped or waiting
  kThreadRunning = 4,
  kWaitSuspended = 0x10000,  // TDS_WAIT_SUSPENDED: held by the debugger
  kWaitSleeping = 0x20000,
};

enum : uint32_t {
  kModuleExecutable = 0,     // MODULE_TYPE_EXECUTABLE
  kModuleSharedLibrary = 1,  // MODULE_TYPE_SHARED_LIBRARY
};

}  // namespace qv::server
