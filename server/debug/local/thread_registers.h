#pragma once
// The registers of one stopped thread of a local process, by register id (eRegisters), each as
// four 64-bit words, lowest first; a narrower register fills the first words and leaves the rest
// zero. General registers and FSBASE through PTRACE_GETREGS, the FP environment, x87 and YMM
// registers through the XSAVE area (PTRACE_GETREGSET NT_X86_XSTATE, the upper halves of YMM0 to
// YMM15 included; PTRACE_GETFPREGS where the CPU has no XSAVE), DR0 to DR7 through PEEKUSER.
//
// Must run on the thread that traces `tid`, while the thread is stopped.

#include <sys/types.h>

#include <cstdint>

#include "requests/wire_types.h"
#include "server/core/status.h"

namespace qv::server {

Status ReadRegisters(pid_t tid, const U32List& ids, U64List& values);
// Every id is checked before anything is written.
Status WriteRegisters(pid_t tid, const U32List& ids, const U64List& values);

// One debug register (0..7) of a stopped thread, or a failure.
Status ReadDebugRegister(pid_t tid, uint32_t index, uint64_t& value);
Status WriteDebugRegister(pid_t tid, uint32_t index, uint64_t value);

// The instruction pointer of a stopped thread, and setting it.
Status ReadInstructionPointer(pid_t tid, uint64_t& rip);
Status WriteInstructionPointer(pid_t tid, uint64_t rip);
// The instruction and stack pointers of a stopped thread, in one read of its registers.
Status ReadInstructionAndStackPointers(pid_t tid, uint64_t& rip, uint64_t& rsp);

}  // namespace qv::server
