#pragma once
// The dynamic linker's hook. glibc's ld.so calls _dl_debug_state (the r_brk of its r_debug)
// before it changes the set of loaded objects and again once the set is consistent: an empty
// function that exists for debuggers to break on. With an int3 of ours there, a local process's
// modules are read when they change instead of at every stop.

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "server/core/status.h"
#include "server/debug/local/process_memory.h"

namespace qv::server {

// Where that function is in process `pid`, found through the interpreter's load address in the
// auxiliary vector (AT_BASE) and the interpreter's own symbols. nullopt for a program without an
// interpreter (static), an interpreter without the symbol, or a function that is more than a
// return: the hook returns from it in the thread's place, which only an empty function allows.
std::optional<uint64_t> LinkerHookAddress(pid_t pid, ProcessMemory& memory);

// Makes the stopped thread `tid`, which stands at the hook's int3, return from the function as
// its `ret` would: rip from the top of the stack, and the stack one word shorter.
Status ReturnFromHook(pid_t tid, ProcessMemory& memory);

}  // namespace qv::server
