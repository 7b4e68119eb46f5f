#pragma once
// Turning a TARGET and a PID (and a TID) into the library's process and thread objects. The
// library makes those only from what the target lists, so a process is found in the target's
// process snapshot and a thread in its process's thread snapshot.

#include <cstdint>
#include <string>

#include "commands.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

struct ProcessRef {
  vekx::ComPtr<ITarget> target;
  vekx::ComPtr<IProcess> process;
  std::uint32_t pid = 0;
};

// The process `pid` of the target `spec` names. Throws Failure when the target lists no such
// process ("no process 7 on devkit-alpha ...") or when the library fails.
ProcessRef ResolveProcess(Context& context, const std::string& spec, std::uint32_t pid);

// The thread `tid` of `process`. Throws Failure when the process lists no such thread.
vekx::ComPtr<IThread> ResolveThread(const ProcessRef& process, std::uint32_t tid);

}  // namespace vesta_ctrl
