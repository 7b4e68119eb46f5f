#pragma once
// What a target's stop reason means to a debugger: the GDB signal number of the stop reply and
// whether it was a software breakpoint, a hardware breakpoint or watchpoint, or something else.
// One table (stop_signals.cpp) decides it; codes it does not list stop with GDB's "unknown
// signal".

#include <cstdint>

namespace vesta_gdb {

enum class StopKind {
  kSignal,     // a signal or a fault: "T<sig>"
  kSoftware,   // a software breakpoint: "swbreak:"
  kHardware,   // a hardware breakpoint or watchpoint: "hwbreak:" or "watch:"
  kInterrupt,  // suspended from outside (or at our request): SIGINT
};

struct StopMeaning {
  int gdb_signal;
  StopKind kind;
};

// GDB's own numbers (not the host's): the ones the table uses.
inline constexpr int kGdbSigInt = 2;
inline constexpr int kGdbSigTrap = 5;
inline constexpr int kGdbSigAbrt = 6;
inline constexpr int kGdbSigKill = 9;
inline constexpr int kGdbSigBus = 10;
inline constexpr int kGdbSigSegv = 11;
inline constexpr int kGdbSigUnknown = 143;

StopMeaning MeaningOf(std::uint32_t stop_reason);

}  // namespace vesta_gdb
