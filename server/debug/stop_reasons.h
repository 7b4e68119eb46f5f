#pragma once
// Why a thread of a Linux process stopped (a local one, or one in a core file), in the target's
// own numbering. Linux numbers its signals differently (SIGBUS is 7 on Linux, 10 here; SIGUSR1 10
// and 30), so signals are matched by name, in one table, and never passed through as Linux
// numbers. The table holds Linux's numbers as such, so that a Windows server reads cores too.

#include <cstdint>
#include <string>

namespace qv::server {

// eStopNotificationReason codes that every backend reports besides the signals.
// STOP_REASON_SIGTRAP: a single step done, or a trap of the program's own.
inline constexpr uint32_t kStopTrap = 5;
inline constexpr uint32_t kStopNoSignal = 128;
inline constexpr uint32_t kStopSuspendProcess = 129;
inline constexpr uint32_t kStopSuspendThread = 130;
inline constexpr uint32_t kStopSoftwareBreakpoint = 131;
inline constexpr uint32_t kStopEntry = 132;  // STOP_REASON_DL_STOP_INIT
inline constexpr uint32_t kStopHardwareBreakpoint = 134;

// The stop code of the Linux signal `signal`; STOP_REASON_SIGNONE (128) for one the target has no
// name for (SIGPWR, SIGSTKFLT, the real-time signals).
uint32_t StopReasonOfSignal(int signal);
// Whether a debugger stops the process when the signal arrives. Signals a program gets in its
// ordinary life (SIGCHLD, SIGWINCH, SIGALRM, ...) are handed on without stopping it.
bool SignalStops(int signal);
// "SIGSEGV", or "signal 40" for one without a name here.
std::string SignalName(int signal);

// What a debug trap stands for, from the debug status register DR6: a hardware breakpoint when
// any of B0..B3 is set, else a single step or a plain trap.
uint32_t StopReasonOfDr6(uint64_t dr6);

}  // namespace qv::server
