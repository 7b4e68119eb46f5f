#pragma once
// One system call made by a stopped thread of a traced process, on the debugger's behalf (mmap
// and munmap of the pages a debugger allocates). The thread's registers are saved, the call's
// number and arguments put in its registers, a `syscall` instruction written where it stands and
// stepped once; then the two bytes and every register are put back, so that the thread goes on
// as if nothing had happened. Must run on the thread that traces `tid`.

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>

#include "server/core/status.h"
#include "server/debug/local/process_memory.h"

namespace qv::server {

// `on_other_stop(status)` gets any other stop the thread makes before the step ends (a signal
// that came meanwhile), to be dealt with later. `result` is the call's return value; a value of
// -4095 to -1 (an errno) fails with the system's text.
Status RemoteSyscall(pid_t tid, ProcessMemory& memory, long number,
                     const std::array<uint64_t, 6>& args,
                     const std::function<void(int status)>& on_other_stop, uint64_t& result);

}  // namespace qv::server
