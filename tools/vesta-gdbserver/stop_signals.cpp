#include "stop_signals.h"

#include "vekxapi/vekxapi.h"

namespace vesta_gdb {
namespace {

// Rows are ranges of eStopNotificationReason, first match wins. The target's signal numbers 1 to
// 28 and 30, 31 are GDB's; the rest are named here.
struct Row {
  std::uint32_t first;
  std::uint32_t last;
  int gdb_signal;
  StopKind kind;
};

constexpr Row kRows[] = {
    {STOP_REASON_SIGHUP, STOP_REASON_SIGWINCH, 0, StopKind::kSignal},    // 0: the same number
    {STOP_REASON_SIGINFO, STOP_REASON_SIGINFO, 142, StopKind::kSignal},  // GDB_SIGNAL_INFO
    {STOP_REASON_SIGUSR1, STOP_REASON_SIGUSR2, 0, StopKind::kSignal},
    {STOP_REASON_SIGTHR, STOP_REASON_SIGTHR, 37, StopKind::kSignal},  // GDB_SIGNAL_LWP
    {STOP_REASON_SIGNONE, STOP_REASON_SIGNONE, kGdbSigTrap, StopKind::kSignal},
    {STOP_REASON_SIGSUSPEND_PROCESS, STOP_REASON_SIGSUSPEND_THREAD, kGdbSigInt,
     StopKind::kInterrupt},
    {STOP_REASON_SIGSWBRKPT, STOP_REASON_SIGSWBRKPT, kGdbSigTrap, StopKind::kSoftware},
    {STOP_REASON_DL_STOP_INIT, STOP_REASON_DL_STOP_INIT, kGdbSigTrap, StopKind::kSignal},
    {STOP_REASON_DL_START_UP_FAILED, STOP_REASON_DL_START_UP_FAILED, kGdbSigAbrt,
     StopKind::kSignal},
    {STOP_REASON_SIGHWBRKPT, STOP_REASON_SIGHWBRKPT, kGdbSigTrap, StopKind::kHardware},
    // The C library's exits stop the program where a debugger may look before it ends.
    {STOP_REASON_LIBC_RETURN_MAIN_SUCCESS, STOP_REASON_LIBC__EXIT_FAIL, kGdbSigTrap,
     StopKind::kSignal},
    {STOP_REASON_LIBC_QUICK_EXIT_SUCCESS, STOP_REASON_LIBC_QUICK_EXIT_FAIL, kGdbSigTrap,
     StopKind::kSignal},
    {STOP_REASON_LIBC_INTERNAL_RETURN_MAIN_SUCCESS, STOP_REASON_LIBC_INTERNAL__EXIT_FAIL,
     kGdbSigTrap, StopKind::kSignal},
    {STOP_REASON_LIBC_INTERNAL_QUICK_EXIT_SUCCESS, STOP_REASON_LIBC_INTERNAL_QUICK_EXIT_FAIL,
     kGdbSigTrap, StopKind::kSignal},
    // assert, terminate, abort, failed start-up: the program gives up.
    {STOP_REASON_LIBC_ASSERT, STOP_REASON_LIBC_INTERNAL_FAILED_TO_CREATE_SYSTEM_MEMORY, kGdbSigAbrt,
     StopKind::kSignal},
    {STOP_REASON_PRX_NOT_RESOLVED_FUNCTION, STOP_REASON_PRX_TLS_ALLOC_ERROR, kGdbSigAbrt,
     StopKind::kSignal},
    {STOP_REASON_SYSTEM_USER_DEBUG_REQUEST_ASYNC, STOP_REASON_SYSTEM_USER_DEBUG_REQUEST_ASYNC,
     kGdbSigInt, StopKind::kInterrupt},
    {STOP_REASON_SYSTEM_NKA_BREAK, STOP_REASON_SYSTEM_NKA_STOP, kGdbSigTrap, StopKind::kSignal},
    {STOP_REASON_SYSTEM_FATAL_LOAD_ERROR,
     STOP_REASON_KERNEL_EXCEPTION_SYSTEM_DEBUG_REQUEST_TIMEOUT_ASYNC, kGdbSigSegv,
     StopKind::kSignal},
    {STOP_REASON_GPU_HP3D_TIMEOUT_ASYNC, STOP_REASON_GPU_FAULT_IDLE_TIMEOUT_AFTER_SUBMITDONE_ASYNC,
     kGdbSigBus, StopKind::kSignal},
    // Synchronisation misuse is a bug the program may go on from, like a breakpoint.
    {STOP_REASON_SLV_MUTEX_UNLOCK_NOT_OWNED, STOP_REASON_SLV_POSIX_BARRIER_WAIT_DESTROYED,
     kGdbSigTrap, StopKind::kSignal},
};

}  // namespace

StopMeaning MeaningOf(std::uint32_t stop_reason) {
  for (const Row& row : kRows) {
    if (stop_reason < static_cast<std::uint32_t>(row.first) ||
        stop_reason > static_cast<std::uint32_t>(row.last)) {
      continue;
    }
    const int signal = row.gdb_signal == 0 ? static_cast<int>(stop_reason) : row.gdb_signal;
    return {signal, row.kind};
  }
  return {kGdbSigUnknown, StopKind::kSignal};
}

}  // namespace vesta_gdb
