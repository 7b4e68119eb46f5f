#pragma once
// Values the backends put in records: thread and wait states (eThreadState, eThreadWaitState)
// and module types (eModuleTypes).

#include <cstdint>

namespace qv::server {

inline constexpr uint32_t kThreadInhibited = 1;  // TDS_INHIBITED: stopped or waiting
inline constexpr uint32_t kThreadRunning = 4;
inline constexpr uint32_t kWaitSuspended = 0x10000;  // TDS_WAIT_SUSPENDED: held by the debugger
inline constexpr uint32_t kWaitSleeping = 0x20000;

inline constexpr uint32_t kModuleExecutable = 0;     // MODULE_TYPE_EXECUTABLE
inline constexpr uint32_t kModuleSharedLibrary = 1;  // MODULE_TYPE_SHARED_LIBRARY

}  // namespace qv::server
