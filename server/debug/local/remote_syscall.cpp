#include "server/debug/local/remote_syscall.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "platform/wide_string.h"
#include "server/debug/local/tracer_thread.h"
#include "server/debug/reporting.h"

namespace qv::server {
namespace {

constexpr uint8_t kSyscall[2] = {0x0F, 0x05};

Status Failed(pid_t tid, const char* what, int error) {
  return Status::Fail(KXAPI_COMMS_ERR_STEP_FAILED,
                      u"thread " + Decimal(static_cast<uint64_t>(tid)) + u" could not " +
                          platform::Utf8ToUtf16(what) + u" (" +
                          platform::Utf8ToUtf16(std::strerror(error)) + u")");
}

}  // namespace

Status RemoteSyscall(pid_t tid, ProcessMemory& memory, long number,
                     const std::array<uint64_t, 6>& args,
                     const std::function<void(int status)>& on_other_stop, uint64_t& result) {
  user_regs_struct saved{};
  if (ptrace(PTRACE_GETREGS, tid, nullptr, &saved) != 0) {
    return Failed(tid, "give its registers", errno);
  }
  Bytes original;
  uint32_t bad = 0;
  memory.Read(saved.rip, sizeof kSyscall, original, bad);
  if (bad != 0) return Failed(tid, "have its code read", EFAULT);
  if (Status status = memory.Write(saved.rip, kSyscall, sizeof kSyscall); !status.ok()) {
    return status;
  }
  user_regs_struct call = saved;
  call.rax = static_cast<uint64_t>(number);
  // No system call of its own to restart on the way out of this stop.
  call.orig_rax = static_cast<unsigned long long>(-1);
  call.rdi = args[0];
  call.rsi = args[1];
  call.rdx = args[2];
  call.r10 = args[3];
  call.r8 = args[4];
  call.r9 = args[5];
  Status status = Status::Ok();
  if (ptrace(PTRACE_SETREGS, tid, nullptr, &call) != 0) {
    status = Failed(tid, "take the call's registers", errno);
  }
  while (status.ok()) {
    int wait_status = 0;
    if (ptrace(PTRACE_SINGLESTEP, tid, nullptr, nullptr) != 0 ||
        TracerThread::Wait(tid, wait_status, __WALL) != tid) {
      status = Failed(tid, "make the call", errno);
      break;
    }
    if (!WIFSTOPPED(wait_status)) {
      on_other_stop(wait_status);
      status = Failed(tid, "make the call: it ended", ESRCH);
      break;
    }
    if (WSTOPSIG(wait_status) == SIGTRAP && (wait_status >> 16) == 0) break;  // stepped
    on_other_stop(wait_status);
  }
  user_regs_struct after{};
  if (status.ok() && ptrace(PTRACE_GETREGS, tid, nullptr, &after) != 0) {
    status = Failed(tid, "give the call's result", errno);
  }
  memory.Write(saved.rip, original.data(), original.size());
  ptrace(PTRACE_SETREGS, tid, nullptr, &saved);
  if (!status.ok()) return status;
  result = after.rax;
  const auto value = static_cast<int64_t>(result);
  if (value < 0 && value >= -4095) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_VIRTUAL_MEM,
                        u"the system refused the call (" +
                            platform::Utf8ToUtf16(std::strerror(static_cast<int>(-value))) + u")");
  }
  return Status::Ok();
}

}  // namespace qv::server
