#pragma once
// What /proc says about a process and its threads, as the debug records carry it. The tracer adds
// what only it knows (stop reasons, instruction pointers).

#include <sys/types.h>

#include <optional>

#include "requests/debug_records.h"
#include "server/debug/record_codes.h"

namespace qv::server {

// The process information record of `pid`, or nullopt once it has gone: its name, path,
// parent, main thread (the pid), entry point, and its processor time in microseconds.
std::optional<ProcessInfoRecord> ProcessInfoOf(pid_t pid);
// The same with the name, path and entry point taken from `known` (an earlier record of the same
// program), only what changes while it runs read: parent and processor time.
std::optional<ProcessInfoRecord> ProcessInfoOf(pid_t pid, const ProcessInfoRecord& known);

// A thread's record from /proc: id, name, CPU, and its state as the kernel has it (running, or
// inhibited and sleeping). The tracer overwrites the state of a thread it holds stopped.
ThreadInfoRecord ThreadInfoOf(pid_t pid, pid_t tid);

}  // namespace qv::server
