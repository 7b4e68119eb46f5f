#include "server/debug/local/traced_process.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "platform/pipe.h"
#include "platform/wide_string.h"
#include "requests/notifications.h"
#include "server/debug/local/core_file.h"
#include "server/debug/local/hardware_slots.h"
#include "server/debug/local/linker_hook.h"
#include "server/debug/local/page_block.h"
#include "server/debug/local/proc_files.h"
#include "server/debug/local/process_info.h"
#include "server/debug/local/process_modules.h"
#include "server/debug/local/remote_syscall.h"
#include "server/debug/local/thread_registers.h"
#include "server/debug/reporting.h"
#include "server/debug/stop_reasons.h"

namespace qv::server {
namespace {

constexpr uint8_t kInt3 = 0xCC;
// How long the end of a loaded process waits for its last console output to be posted.
constexpr auto kConsoleDrainWait = std::chrono::milliseconds(500);

// The Linux signal a core file gives a thread that stopped with `stop_code`: SIGTRAP for the
// debugger's own stops, SIGSTOP for a suspension, none for the rest.
int CoreSignal(uint32_t stop_code) {
  switch (stop_code) {
    case kStopTrap:  // a step
    case kStopSoftwareBreakpoint:
    case kStopEntry:
    case kStopHardwareBreakpoint:
      return SIGTRAP;
    case kStopSuspendProcess:
    case kStopSuspendThread:
      return SIGSTOP;
    default:
      return 0;
  }
}

std::u16string Number(int64_t value) {
  return Decimal(static_cast<uint64_t>(value));
}

long SignalArgument(int signal) {
  return static_cast<long>(signal);
}

Status NoThread(uint32_t tid, pid_t pid) {
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_TID,
                      u"process " + Number(pid) + u" has no thread " + Decimal(tid));
}

// Why the kernel refused to let us trace `pid`, in words a user can act on.
std::u16string RefusalReason(pid_t pid, int error) {
  const std::u16string prefix =
      u"the kernel refused to let vesta-kx trace process " + Number(pid) + u": ";
  if (error == ESRCH) return u"process " + Number(pid) + u" does not exist";
  if (error != EPERM) return prefix + platform::Utf8ToUtf16(std::strerror(error));
  const std::optional<uid_t> owner = OwnerOf(pid);
  if (owner && *owner != geteuid()) {
    return prefix + u"it belongs to user " + Decimal(*owner) + u", not to the server's user";
  }
  const std::string scope = ReadLine("/proc/sys/kernel/yama/ptrace_scope");
  if (!scope.empty() && scope != "0") {
    return prefix + u"the Yama ptrace_scope setting is " + platform::Utf8ToUtf16(scope) +
           u" (/proc/sys/kernel/yama/ptrace_scope; 1 lets a program trace only its own "
           u"descendants, 2 only with CAP_SYS_PTRACE, 3 never); set it to 0 or start the "
           u"program through the server";
  }
  return prefix + u"operation not permitted (another debugger may trace it already)";
}

}  // namespace

template <class Notification>
Notification TracedProcess::Event() {
  Notification notification;
  notification.TargetKey = events_->Target();
  notification.ProcessId = static_cast<uint32_t>(pid_);
  notification.Timestamp = SteadyNanoseconds();
  return notification;
}

TracedProcess::TracedProcess(bool loaded, std::shared_ptr<DebugEvents> events)
    : loaded_(loaded),
      events_(std::move(events)),
      tracer_([this](pid_t tid, int status) { OnWaitStatus(tid, status); }) {}

TracedProcess::~TracedProcess() {
  Shutdown();
  if (input_ >= 0) close(input_);
}

Status TracedProcess::OnTracer(const std::function<Status()>& work) {
  Status status = Status::Fail(KXAPI_COMMS_ERR_INVALID_PID,
                               u"process " + Number(pid_) + u" is no longer debugged here");
  if (ended_) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PID, u"process " + Number(pid_) + u" has ended");
  }
  tracer_.Run([&] { status = work(); });
  return status;
}

// ---------------------------------------------------------------------------------------------
// Starting, attaching, ending.

Status TracedProcess::Load(const LaunchPlan& plan, bool stop_at_entry,
                           std::shared_ptr<DebugEvents> events, Ptr& process) {
  Ptr made(new TracedProcess(true, std::move(events)));
  Status status = made->OnTracer([&] { return made->StartLoaded(plan, stop_at_entry); });
  if (status.ok()) process = std::move(made);
  return status;
}

Status TracedProcess::StartLoaded(const LaunchPlan& plan, bool stop_at_entry) {
  Launched launched;
  if (Status status = LaunchTraced(plan, launched); !status.ok()) return status;
  pid_ = launched.pid;
  input_ = launched.input;
  memory_ = std::make_unique<ProcessMemory>(pid_);
  console_ = std::make_unique<ConsolePump>(pid_, launched.output, launched.error, events_);
  program_ = ReadLink("/proc/" + std::to_string(pid_) + "/exe");
  HookLinker();
  Thread& main = AddThread(pid_);
  main.stopped = true;
  traced_ = true;

  CProcessLoadingNotification loading;
  loading.TargetKey = events_->Target();
  loading.Percentage = 100;
  events_->Post(loading);
  auto created = Event<CProcessCreateNotification>();
  created.ParentProcessId = static_cast<uint32_t>(getpid());
  events_->Post(created);
  auto thread = Event<CThreadCreateNotification>();
  thread.ThreadId = static_cast<uint32_t>(pid_);
  events_->Post(thread);
  PostModuleChanges();
  if (stop_at_entry) {
    ReportStop(pid_, kStopEntry);
  } else {
    running_ = true;
    Continue(pid_, main);
  }
  return Status::Ok();
}

Status TracedProcess::Attach(pid_t pid, std::shared_ptr<DebugEvents> events, Ptr& process) {
  Ptr made(new TracedProcess(false, std::move(events)));
  made->pid_ = pid;
  made->memory_ = std::make_unique<ProcessMemory>(pid);
  Status status = made->OnTracer([&] { return made->Seize(pid); });
  if (status.ok()) process = std::move(made);
  return status;
}

Status TracedProcess::Reattach() {
  if (traced_) {
    return Status::Fail(KXAPI_COMMS_ERR_ALREADY_ATTACHED,
                        u"process " + Number(pid_) + u" is being debugged already");
  }
  return OnTracer([this] { return Seize(pid_); });
}

// Seizes every thread, again until a pass finds none new (threads may start meanwhile; those
// started by a seized thread are traced through its clone events).
Status TracedProcess::Seize(pid_t pid) {
  for (bool found = true; found;) {
    found = false;
    for (pid_t tid : TaskIds(pid)) {
      if (threads_.count(tid) != 0) continue;
      if (ptrace(PTRACE_SEIZE, tid, nullptr, reinterpret_cast<void*>(TraceOptions(false))) != 0) {
        if (tid != pid && errno == ESRCH) continue;  // it ended meanwhile
        const int error = errno;
        for (const auto& [seized, thread] : threads_)
          ptrace(PTRACE_DETACH, seized, nullptr, nullptr);
        threads_.clear();
        return Status::Fail(KXAPI_COMMS_ERR_NOT_DEBUGGABLE, RefusalReason(pid, error));
      }
      AddThread(tid).fresh = false;  // nothing to program yet
      found = true;
    }
  }
  if (threads_.empty()) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PID,
                        u"process " + Number(pid) + u" does not exist");
  }
  program_ = ReadLink("/proc/" + std::to_string(pid) + "/exe");
  modules_ = ModulesOf(ReadMappings(pid), program_, &elf_entries_);
  HookLinker();
  running_ = true;
  traced_ = true;
  return Status::Ok();
}

Status TracedProcess::Detach() {
  return OnTracer([this] { return DetachNow(); });
}

Status TracedProcess::DetachNow() {
  if (!traced_) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_ATTACHED,
                        u"process " + Number(pid_) + u" is not being debugged");
  }
  StopOthers(0);
  running_ = false;
  ForgetResumes();
  for (const auto& [id, breakpoint] : software_)
    memory_->Write(breakpoint.record.Address, &breakpoint.original, 1);
  ReleaseEarlyChildren();
  vfork_lifts_ = 0;
  software_.clear();
  PublishLinkerHook();
  hardware_.clear();
  bool stop_pending = false;
  for (auto& [tid, thread] : threads_) {
    ProgramDebugRegisters(tid);
    stop_pending = stop_pending || thread.expect_sigstop;
    ptrace(PTRACE_DETACH, tid, nullptr,
           reinterpret_cast<void*>(SignalArgument(thread.pending_signal)));
  }
  // A SIGSTOP of ours that never showed up would stop the process once we are gone.
  if (stop_pending && pid_ > 0) kill(pid_, SIGCONT);
  threads_.clear();
  traced_ = false;
  return Status::Ok();
}

Status TracedProcess::Kill() {
  return OnTracer([this] {
    KillNow(true);
    return Status::Ok();
  });
}

void TracedProcess::KillNow(bool announce) {
  if (pid_ <= 0) return;  // never started: kill(0) would hit the server's own group
  killed_ = true;
  if (!announce) ended_ = true;  // nothing is heard from here on
  kill(pid_, SIGKILL);
  // Its threads' last stops and exits, down to the main thread's, which OnExit announces.
  int status = 0;
  while (!threads_.empty()) {
    const pid_t tid = TracerThread::Wait(-1, status, __WALL | __WNOTHREAD);
    if (tid <= 0) break;
    OnWaitStatus(tid, status);
  }
  ReleaseEarlyChildren();
  ended_ = true;
}

void TracedProcess::Shutdown() {
  tracer_.Run([this] {
    if (ended_) return;
    if (loaded_) {
      KillNow(false);
    } else if (traced_) {
      DetachNow();
    }
  });
  tracer_.Stop();
  console_.reset();
}

// ---------------------------------------------------------------------------------------------
// What waitpid reports.

TracedProcess::Thread& TracedProcess::AddThread(pid_t tid) {
  auto [it, added] = threads_.try_emplace(tid);
  if (!added) return it->second;
  it->second.name =
      ReadLine("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(tid) + "/comm");
  // A thread started under the debugger: its first stop is the SIGSTOP the kernel gives it.
  it->second.expect_sigstop = traced_ && tid != pid_;
  if (traced_) {
    auto created = Event<CThreadCreateNotification>();
    created.ThreadId = static_cast<uint32_t>(tid);
    events_->Post(created);
  }
  return it->second;
}

void TracedProcess::OnWaitStatus(pid_t tid, int status) {
  if (WIFEXITED(status) || WIFSIGNALED(status)) {
    OnExit(tid, status);
    return;
  }
  if (!WIFSTOPPED(status) || !traced_) return;
  if (threads_.count(tid) == 0 && !IsThreadOfProcess(tid)) {
    // A forked child's first stop, come before its parent's fork event: held until that.
    early_children_.insert(tid);
    return;
  }
  Thread& thread = AddThread(tid);
  thread.stopped = true;
  const int event = status >> 16;
  const int signal = WSTOPSIG(status);
  if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK) {
    ReleaseChild(tid, event == PTRACE_EVENT_VFORK);  // even while killed: it lives on
    GoOnAfterEvent(tid, thread);
    return;
  }
  if (killed_) {
    Continue(tid, thread);
    return;
  }
  if (event == PTRACE_EVENT_CLONE) {
    unsigned long child = 0;
    ptrace(PTRACE_GETEVENTMSG, tid, nullptr, &child);
    AddThread(static_cast<pid_t>(child));
    GoOnAfterEvent(tid, thread);
    return;
  }
  if (event == PTRACE_EVENT_VFORK_DONE) {
    EndVforkLift();
    GoOnAfterEvent(tid, thread);
    return;
  }
  if (event == PTRACE_EVENT_EXEC) {
    OnExec(tid);
    return;
  }
  if (event == PTRACE_EVENT_EXIT) {
    thread.exiting = true;
    const bool stepped_over = thread.resuming == Resuming::kSteppingOver;
    if (stepped_over) EndStepOver(thread);
    Continue(tid, thread);  // on to its end, whatever the others do
    if (stepped_over) GoOnResuming();
    return;
  }
  if (event == PTRACE_EVENT_STOP || (signal == SIGSTOP && thread.expect_sigstop)) {
    thread.expect_sigstop = false;
    if (thread.fresh) ProgramDebugRegisters(tid);
    GoOnAfterEvent(tid, thread);
    return;
  }
  if (signal == SIGTRAP) {
    OnTrap(tid, thread);
    return;
  }
  if (!SignalStops(signal)) {
    thread.pending_signal = signal;  // a step goes on first; the signal comes with the next run
    if (thread.stepping || thread.resuming == Resuming::kSteppingOver) {
      GoOnAfterEvent(tid, thread);
    } else {
      Continue(tid, thread);
    }
    return;
  }
  thread.pending_signal = signal == SIGSTOP ? 0 : signal;
  ReportStop(tid, StopReasonOfSignal(signal));
}

void TracedProcess::GoOnAfterEvent(pid_t tid, Thread& thread) {
  if (thread.stepping || thread.resuming == Resuming::kSteppingOver) {
    // A step over the call that made the event: on with the step.
    if (ptrace(PTRACE_SINGLESTEP, tid, nullptr, nullptr) == 0) thread.stopped = false;
  } else if (running_ && !thread.held) {
    Continue(tid, thread);
  }
}

bool TracedProcess::IsThreadOfProcess(pid_t tid) const {
  const std::string task = "/proc/" + std::to_string(pid_) + "/task/" + std::to_string(tid);
  return access(task.c_str(), F_OK) == 0;
}

void TracedProcess::ReleaseChild(pid_t parent, bool shares_memory) {
  unsigned long message = 0;
  if (ptrace(PTRACE_GETEVENTMSG, parent, nullptr, &message) != 0) return;
  const auto child = static_cast<pid_t>(message);
  if (early_children_.erase(child) == 0) {
    int status = 0;
    // Its first stop comes before it runs an instruction of its own.
    if (TracerThread::Wait(child, status, __WALL) != child || !WIFSTOPPED(status)) return;
  }
  if (shares_memory) {
    if (vfork_lifts_++ == 0) {
      for (const auto& [id, breakpoint] : software_)
        memory_->Write(breakpoint.record.Address, &breakpoint.original, 1);
    }
  } else {
    RestoreOriginals(child);
  }
  ptrace(PTRACE_DETACH, child, nullptr, nullptr);
}

void TracedProcess::RestoreOriginals(pid_t child) {
  if (software_.empty()) return;
  ProcessMemory memory(child);
  for (const auto& [id, breakpoint] : software_)
    memory.Write(breakpoint.record.Address, &breakpoint.original, 1);
}

void TracedProcess::EndVforkLift() {
  if (vfork_lifts_ == 0 || --vfork_lifts_ != 0) return;
  for (const auto& [id, breakpoint] : software_) {
    const uint64_t address = breakpoint.record.Address;
    if (!IsLifted(address)) memory_->Write(address, &kInt3, 1);
  }
}

bool TracedProcess::IsLifted(uint64_t address) const {
  return std::any_of(threads_.begin(), threads_.end(),
                     [&](const auto& thread) { return thread.second.lifted == address; });
}

void TracedProcess::ReleaseEarlyChildren() {
  for (pid_t child : early_children_) {
    RestoreOriginals(child);
    ptrace(PTRACE_DETACH, child, nullptr, nullptr);
  }
  early_children_.clear();
}

void TracedProcess::OnTrap(pid_t tid, Thread& thread) {
  if (thread.resuming == Resuming::kSteppingOver) {
    // Past its breakpoint: the next thread steps over its own, or they all go.
    EndStepOver(thread);
    GoOnResuming();
    return;
  }
  siginfo_t info{};
  ptrace(PTRACE_GETSIGINFO, tid, nullptr, &info);
  uint64_t rip = 0;
  ReadInstructionPointer(tid, rip);
  if (info.si_code == SI_KERNEL && BreakpointAt(rip - 1) != nullptr) {  // an int3 of ours
    WriteInstructionPointer(tid, rip - 1);
    const Breakpoint* breakpoint = ClientBreakpointAt(rip - 1);
    if (breakpoint == nullptr) {
      PassLinkerHook(tid, thread);
      return;
    }
    // A client's breakpoint on the linker's hook: the linker's change is heard too.
    if (LinkerHooked() && software_.at(kLinkerHook).record.Address == rip - 1) PostModuleChanges();
    const uint32_t only = breakpoint->record.ThreadID;
    if (only != 0 && only != static_cast<uint32_t>(tid)) {
      // Another thread's breakpoint: this one passes it. A thread that was stepping takes the
      // original instruction as its step, which then ends as steps do.
      if (thread.stepping) {
        StartStepOver(tid, thread);
      } else {
        thread.resuming = Resuming::kQueued;
        GoOnResuming();
      }
      return;
    }
    ReportStop(tid, kStopSoftwareBreakpoint);
    return;
  }
  if (info.si_code == SI_KERNEL) {
    ReportStop(tid, kStopTrap);  // the program's own int3
    return;
  }
  uint64_t dr6 = 0;
  if (ReadDebugRegister(tid, 6, dr6).ok() && dr6 != 0) WriteDebugRegister(tid, 6, 0);
  if (thread.stepping) {
    thread.stepping = false;
    PutBackLifted(thread);
    ReportStop(tid, StopReasonOfDr6(dr6));
    return;
  }
  if (info.si_code == TRAP_HWBKPT) {
    ReportStop(tid, StopReasonOfDr6(dr6));
    return;
  }
  // A SIGTRAP the program sent itself goes to it when it resumes.
  if (info.si_code == SI_USER || info.si_code == SI_TKILL) thread.pending_signal = SIGTRAP;
  ReportStop(tid, kStopTrap);
}

void TracedProcess::OnExit(pid_t tid, int status) {
  if (tid != pid_) {
    const auto it = threads_.find(tid);
    if (it == threads_.end() || !traced_) return;
    auto exited = Event<CThreadExitNotification>();
    exited.ThreadId = static_cast<uint32_t>(tid);
    exited.ExitCode = WIFEXITED(status) ? static_cast<uint64_t>(WEXITSTATUS(status)) : 0;
    exited.Name = platform::Utf8ToUtf16(it->second.name);
    events_->Post(exited);
    const bool stepped_over = it->second.resuming == Resuming::kSteppingOver;
    threads_.erase(it);
    if (stepped_over) GoOnResuming();  // the threads that waited for its step
    return;
  }
  const bool announce = traced_ && !ended_;
  ended_ = true;
  traced_ = false;
  threads_.clear();
  if (!announce) return;
  if (killed_) {
    events_->Post(Event<CProcessKillNotification>());
    return;
  }
  // What it wrote just before it ended comes first.
  if (console_) console_->WaitDrained(kConsoleDrainWait);
  auto exited = Event<CProcessExitNotification>();
  if (WIFEXITED(status)) {
    exited.ExitCode = static_cast<uint32_t>(WEXITSTATUS(status));
  } else {
    // As a shell says it: 128 plus the signal's number; the console names the signal.
    exited.ExitCode = 128 + static_cast<uint32_t>(WTERMSIG(status));
    CConsoleOutputNotification line;
    line.TargetKey = events_->Target();
    line.Port = 1;      // STREAM_STDERR
    line.Category = 0;  // KERNEL_OUTPUT
    line.ProcessId = static_cast<uint32_t>(pid_);
    line.Text = u"process " + Number(pid_) + u" was ended by " +
                platform::Utf8ToUtf16(SignalName(WTERMSIG(status))) + u"\n";
    events_->Post(line);
  }
  events_->Post(exited);
}

void TracedProcess::OnExec(pid_t tid) {
  // The other threads are gone; the one that ran exec now carries the process id.
  Thread survivor = threads_[tid];
  survivor.lifted.reset();  // the new program has no breakpoints
  survivor.resuming = Resuming::kNo;
  threads_.clear();
  threads_[pid_] = survivor;
  memory_->Reopen();
  software_.clear();  // their addresses were the old program's
  hardware_.clear();
  program_ = ReadLink("/proc/" + std::to_string(pid_) + "/exe");
  known_info_.reset();
  HookLinker();
  PostModuleChanges();  // the new program's; its libraries follow through the hook
  Thread& thread = threads_[pid_];
  if (running_) Continue(pid_, thread);
}

void TracedProcess::NoteStop(pid_t tid, Thread& thread, int status) {
  thread.stopped = true;
  const int event = status >> 16;
  const int signal = WSTOPSIG(status);
  if (event == PTRACE_EVENT_CLONE) {
    unsigned long child = 0;
    ptrace(PTRACE_GETEVENTMSG, tid, nullptr, &child);
    AddThread(static_cast<pid_t>(child));
  } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK) {
    ReleaseChild(tid, event == PTRACE_EVENT_VFORK);
  } else if (event == PTRACE_EVENT_VFORK_DONE) {
    EndVforkLift();
  } else if (event == PTRACE_EVENT_EXIT) {
    thread.exiting = true;
  } else if (event == PTRACE_EVENT_STOP || (signal == SIGSTOP && thread.expect_sigstop)) {
    thread.expect_sigstop = false;
  } else if (signal == SIGTRAP && event == 0) {
    // An int3 of ours hit meanwhile: back onto it, so that it is hit again once resumed.
    uint64_t rip = 0;
    siginfo_t info{};
    ptrace(PTRACE_GETSIGINFO, tid, nullptr, &info);
    if (info.si_code == SI_KERNEL && ReadInstructionPointer(tid, rip).ok() &&
        BreakpointAt(rip - 1) != nullptr) {
      WriteInstructionPointer(tid, rip - 1);
    } else if (thread.resuming == Resuming::kSteppingOver) {
      EndStepOver(thread);  // its step is done: it goes once the stop is over
    }
  } else if (event == 0 && signal != SIGSTOP) {
    thread.pending_signal = signal;
  }
}

// ---------------------------------------------------------------------------------------------
// Stopping and going.

void TracedProcess::StopOthers(pid_t except) {
  for (;;) {
    pid_t waiting = 0;
    for (auto& [tid, thread] : threads_) {
      if (tid == except || thread.stopped) continue;
      if (!thread.expect_sigstop) {
        syscall(SYS_tgkill, pid_, tid, SIGSTOP);
        thread.expect_sigstop = true;
      }
      waiting = tid;
      break;
    }
    if (waiting == 0) return;
    int status = 0;
    if (TracerThread::Wait(waiting, status, __WALL) != waiting) {
      // Gone without a status for us (reaped as part of an exec or an exit).
      threads_.erase(waiting);
      continue;
    }
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      OnExit(waiting, status);
      if (ended_) return;
      continue;
    }
    if (threads_.count(waiting) != 0) NoteStop(waiting, threads_[waiting], status);
  }
}

void TracedProcess::ReportStop(pid_t tid, uint32_t reason) {
  StopOthers(tid);
  if (ended_) return;
  running_ = false;
  stop_thread_ = tid;
  ForgetResumes();
  for (auto& [other, thread] : threads_)
    thread.stop_code = reason;
  // With the linker's hook the modules are current already; without it, the maps tell.
  if (!LinkerHooked()) PostModuleChanges();  // leaves maps_text_ as the process's maps are now
  CStopNotificationNotification stop;
  stop.TargetKey = events_->Target();
  stop.ThreadId = static_cast<uint32_t>(tid);
  stop.Process = InfoRecord();
  stop.Threads = ThreadRecords(LinkerHooked() ? nullptr : &maps_text_);
  stop.Timestamp = SteadyNanoseconds();
  events_->Post(stop);
}

void TracedProcess::Continue(pid_t tid, Thread& thread) {
  const int signal = thread.pending_signal;
  thread.pending_signal = 0;
  if (ptrace(PTRACE_CONT, tid, nullptr, reinterpret_cast<void*>(SignalArgument(signal))) == 0 ||
      errno == ESRCH) {
    thread.stopped = false;
    thread.stop_code = 0;
  }
}

TracedProcess::Breakpoint* TracedProcess::BreakpointAt(uint64_t address) {
  for (auto& [id, breakpoint] : software_) {
    if (breakpoint.record.Address == address) return &breakpoint;
  }
  return nullptr;
}

TracedProcess::Breakpoint* TracedProcess::ClientBreakpointAt(uint64_t address) {
  for (auto& [id, breakpoint] : software_) {
    if (id != kLinkerHook && breakpoint.record.Address == address) return &breakpoint;
  }
  return nullptr;
}

void TracedProcess::HookLinker() {
  mapping_query_.Open(pid_);
  PublishLinkerHook();  // none yet after an exec
  const std::optional<uint64_t> address = LinkerHookAddress(pid_, *memory_);
  if (!address) return;
  Bytes original;
  uint32_t bad = 0;
  memory_->Read(*address, 1, original, bad);
  if (bad != 0 || !memory_->Write(*address, &kInt3, 1).ok()) return;
  Breakpoint& hook = software_[kLinkerHook];
  hook.record.Address = *address;
  hook.original = original[0];
  PublishLinkerHook();
}

void TracedProcess::PublishLinkerHook() {
  const auto hook = software_.find(kLinkerHook);
  hook_shadow_ =
      hook == software_.end() ? 0 : hook->second.record.Address << 8 | hook->second.original;
}

void TracedProcess::HideLinkerHook(uint64_t address, uint32_t size, uint8_t* data) const {
  const uint64_t shadow = hook_shadow_;
  const uint64_t offset = (shadow >> 8) - address;
  if (shadow != 0 && offset < size) data[offset] = static_cast<uint8_t>(shadow);
}

void TracedProcess::PassLinkerHook(pid_t tid, Thread& thread) {
  PostModuleChanges();
  if (!ReturnFromHook(tid, *memory_).ok()) {
    ReportStop(tid, kStopTrap);
    return;
  }
  if (thread.stepping) {
    thread.stepping = false;
    PutBackLifted(thread);
    ReportStop(tid, kStopTrap);
    return;
  }
  Continue(tid, thread);
}

bool TracedProcess::StartStepOver(pid_t tid, Thread& thread) {
  uint64_t rip = 0;
  if (!ReadInstructionPointer(tid, rip).ok()) return false;
  // A thread on the linker's hook alone is not stepped over it: it runs into it, so that the
  // linker's change is heard.
  const Breakpoint* breakpoint = ClientBreakpointAt(rip);
  if (breakpoint == nullptr) return false;
  memory_->Write(rip, &breakpoint->original, 1);
  thread.lifted = rip;
  // Its pending signal waits for the run after the step, as a handler would start elsewhere.
  if (ptrace(PTRACE_SINGLESTEP, tid, nullptr, nullptr) != 0) {
    PutBackLifted(thread);
    return false;
  }
  thread.stopped = false;
  thread.stop_code = 0;
  return true;
}

void TracedProcess::GoOnResuming() {
  for (const auto& [tid, thread] : threads_) {
    if (thread.resuming == Resuming::kSteppingOver) return;
  }
  // One at a time, the others stopped: no thread runs past an int3 that is out.
  for (auto& [tid, thread] : threads_) {
    if (thread.resuming != Resuming::kQueued) continue;
    if (thread.stopped && StartStepOver(tid, thread)) {
      thread.resuming = Resuming::kSteppingOver;
      return;
    }
    thread.resuming = Resuming::kReady;
  }
  for (auto& [tid, thread] : threads_) {
    if (thread.resuming != Resuming::kReady) continue;
    thread.resuming = Resuming::kNo;
    if (thread.stopped) Continue(tid, thread);
  }
}

void TracedProcess::EndStepOver(Thread& thread) {
  PutBackLifted(thread);
  thread.resuming = Resuming::kReady;
}

void TracedProcess::ForgetResumes() {
  for (auto& [tid, thread] : threads_) {
    thread.stepping = false;
    thread.resuming = Resuming::kNo;
    PutBackLifted(thread);
  }
}

void TracedProcess::PutBackLifted(Thread& thread) {
  if (!thread.lifted) return;
  if (BreakpointAt(*thread.lifted) != nullptr) memory_->Write(*thread.lifted, &kInt3, 1);
  thread.lifted.reset();
}

Status TracedProcess::Resume(const U32List& to_step, U32List& failed) {
  return OnTracer([&] {
    failed.clear();
    if (to_step.empty()) {
      // The answer does not wait for the steps over breakpoints: such a step may be a system
      // call that blocks (a read of the console).
      running_ = true;
      for (auto& [tid, thread] : threads_) {
        thread.held = false;
        if (thread.stopped) thread.resuming = thread.exiting ? Resuming::kReady : Resuming::kQueued;
      }
      GoOnResuming();
      return Status::Ok();
    }
    running_ = false;  // only the stepping threads run
    for (uint32_t id : to_step) {
      const auto it = threads_.find(static_cast<pid_t>(id));
      if (it == threads_.end() || !it->second.stopped || it->second.exiting) {
        failed.push_back(id);
        continue;
      }
      Thread& thread = it->second;
      uint64_t rip = 0;
      // A thread on the linker's hook alone steps into it (and past the function).
      if (ReadInstructionPointer(it->first, rip).ok() && ClientBreakpointAt(rip) != nullptr) {
        memory_->Write(rip, &ClientBreakpointAt(rip)->original, 1);
        thread.lifted = rip;
      }
      thread.stepping = true;
      const int signal = thread.pending_signal;
      thread.pending_signal = 0;
      if (ptrace(PTRACE_SINGLESTEP, it->first, nullptr,
                 reinterpret_cast<void*>(SignalArgument(signal))) != 0) {
        thread.stepping = false;
        PutBackLifted(thread);
        failed.push_back(id);
        continue;
      }
      thread.stopped = false;
      thread.stop_code = 0;
    }
    return Status::Ok();
  });
}

Status TracedProcess::Suspend(ProcessInfoRecord& info, ThreadInfoList& threads) {
  return OnTracer([&] {
    StopOthers(0);
    running_ = false;
    ForgetResumes();
    for (auto& [tid, thread] : threads_) {
      if (thread.stop_code == 0) thread.stop_code = kStopSuspendProcess;
    }
    info = InfoRecord();
    threads = ThreadRecords();
    return Status::Ok();
  });
}

Status TracedProcess::SuspendThread(uint32_t tid, uint32_t& state) {
  return OnTracer([&] {
    const auto it = threads_.find(static_cast<pid_t>(tid));
    if (it == threads_.end()) return NoThread(tid, pid_);
    if (!it->second.stopped) {
      // This one alone: the others run on.
      if (!it->second.expect_sigstop) syscall(SYS_tgkill, pid_, it->first, SIGSTOP);
      it->second.expect_sigstop = true;
      while (!it->second.stopped) {
        int status = 0;
        if (TracerThread::Wait(it->first, status, __WALL) != it->first) break;
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
          OnExit(it->first, status);
          return NoThread(tid, pid_);
        }
        NoteStop(it->first, it->second, status);
      }
      it->second.stop_code = kStopSuspendThread;
    }
    it->second.held = true;
    state = kThreadInhibited;
    return Status::Ok();
  });
}

Status TracedProcess::ResumeThread(uint32_t tid) {
  return OnTracer([&] {
    const auto it = threads_.find(static_cast<pid_t>(tid));
    if (it == threads_.end()) return NoThread(tid, pid_);
    it->second.held = false;
    if (it->second.stopped) {
      it->second.resuming = Resuming::kQueued;
      GoOnResuming();
    }
    return Status::Ok();
  });
}

// ---------------------------------------------------------------------------------------------
// Records.

ProcessInfoRecord TracedProcess::InfoRecord() {
  // Name, path and entry point change with an exec only: read once each time, the rest at every
  // stop.
  if (!known_info_) known_info_ = ProcessInfoOf(pid_);
  ProcessInfoRecord record =
      known_info_ ? ProcessInfoOf(pid_, *known_info_).value_or(*known_info_) : ProcessInfoRecord{};
  record.ProcessID = static_cast<uint32_t>(pid_);
  bool all_stopped = !threads_.empty();
  for (const auto& [tid, thread] : threads_)
    all_stopped = all_stopped && thread.stopped;
  const auto main = threads_.find(pid_);
  if (all_stopped && main != threads_.end()) record.Reason.Code = main->second.stop_code;
  return record;
}

ThreadInfoList TracedProcess::ThreadRecords(const std::string* maps_text) {
  ThreadInfoList records;
  std::optional<std::string> read_maps;  // read for the first stopped thread, when not given
  for (const auto& [tid, thread] : threads_) {
    ThreadInfoRecord record = ThreadInfoOf(pid_, tid);
    if (record.Name.empty()) record.Name = thread.name;
    if (thread.stopped) {
      record.State = kThreadInhibited;
      record.WaitState = kWaitSuspended;
      uint64_t rip = 0;
      uint64_t rsp = 0;
      if (ReadInstructionAndStackPointers(tid, rip, rsp).ok()) {
        record.Rip = rip;
        record.StackAddr = rsp;
      }
      // The stack's size: the mapping the stack pointer lies in (the main thread's [stack], a
      // thread's own mapped stack).
      std::optional<uint64_t> size;
      if (maps_text == nullptr && !read_maps) {
        size = mapping_query_.SizeAt(record.StackAddr);
        if (!size) read_maps = ReadMapsText(pid_);
      }
      record.StackSize =
          size ? *size : MappingSizeAt(maps_text ? *maps_text : *read_maps, record.StackAddr);
    }
    record.Reason.Code = thread.stop_code;
    records.push_back(std::move(record));
  }
  return records;
}

void TracedProcess::PostModuleChanges() {
  // Most stops change no mapping: the text compared is cheaper than the modules compared.
  std::string text = ReadMapsText(pid_);
  if (text == maps_text_) return;
  maps_text_ = std::move(text);
  const ModuleInfoList now = ModulesOf(ParseMappings(maps_text_), program_, &elf_entries_);
  ModuleInfoList loaded;
  U64List unloaded;
  ModuleChanges(modules_, now, loaded, unloaded);
  for (uint64_t id : unloaded) {
    auto gone = Event<CDynamicLibraryUnloadNotification>();
    gone.ModuleId = id;
    events_->Post(gone);
  }
  for (ModuleInfoRecord& module : loaded) {
    auto added = Event<CDynamicLibraryLoadNotification>();
    added.Module = std::move(module);
    events_->Post(added);
  }
  modules_ = now;
}

Status TracedProcess::Info(ProcessInfoRecord& info) {
  return OnTracer([&] {
    info = InfoRecord();
    return Status::Ok();
  });
}

Status TracedProcess::Threads(ThreadInfoList& threads) {
  return OnTracer([&] {
    threads = ThreadRecords();
    return Status::Ok();
  });
}

// ---------------------------------------------------------------------------------------------
// Registers and memory.

Status TracedProcess::StoppedThread(uint32_t tid, Thread*& thread) {
  const auto it = threads_.find(static_cast<pid_t>(tid));
  if (it == threads_.end()) return NoThread(tid, pid_);
  if (!it->second.stopped) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_STOPPED, u"thread " + Decimal(tid) + u" of process " +
                                                         Number(pid_) +
                                                         u" is running; suspend it first");
  }
  thread = &it->second;
  return Status::Ok();
}

Status TracedProcess::CallstackSignature(uint64_t& hash) {
  return OnTracer([&] {
    hash = 0xcbf29ce484222325;  // FNV-1a, 64 bits
    bool any = false;
    for (const auto& [tid, thread] : threads_) {
      uint64_t rip = 0;
      if (!thread.stopped || !ReadInstructionPointer(tid, rip).ok()) continue;
      any = true;
      for (int byte = 0; byte < 8; ++byte) {
        hash ^= (rip >> (byte * 8)) & 0xFF;
        hash *= 0x100000001b3;
      }
    }
    if (any) return Status::Ok();
    return Status::Fail(
        KXAPI_COMMS_ERR_NOT_STOPPED,
        u"process " + Number(pid_) + u" is running; suspend it to take its call-stack signature");
  });
}

Status TracedProcess::GetRegisters(uint32_t tid, const U32List& ids, U64List& values) {
  return OnTracer([&] {
    Thread* thread = nullptr;
    if (Status status = StoppedThread(tid, thread); !status.ok()) return status;
    return ReadRegisters(static_cast<pid_t>(tid), ids, values);
  });
}

Status TracedProcess::SetRegisters(uint32_t tid, const U32List& ids, const U64List& values) {
  return OnTracer([&] {
    Thread* thread = nullptr;
    if (Status status = StoppedThread(tid, thread); !status.ok()) return status;
    return WriteRegisters(static_cast<pid_t>(tid), ids, values);
  });
}

void TracedProcess::Input(const std::string& text) {
  if (input_ < 0 || ended_) return;
  [[maybe_unused]] const ssize_t written = write(input_, text.data(), text.size());
}

void TracedProcess::Read(uint64_t address, uint32_t size, Bytes& data, uint32_t& bad) {
  memory_->Read(address, size, data, bad);
  HideLinkerHook(address, size, data.data());
}

void TracedProcess::Read(uint64_t address, uint32_t size, BulkBytes& data, uint32_t& bad) {
  // A read large enough for the pipe to lend its pages goes into a block of its own.
  if (size >= platform::Pipe::kLendFrom) {
    if (std::shared_ptr<PageBlock> block = PageBlock::Take(size)) {
      memory_->Read(address, size, block->data(), bad);
      HideLinkerHook(address, size, block->data());
      LendablePages* const lendable = block.get();
      const std::span<const uint8_t> bytes(block->data(), size);
      data = BulkBytes(bytes, std::move(block), lendable);
      return;
    }
  }
  // A large read is overwritten whole, so its buffer is not zeroed first.
  std::shared_ptr<uint8_t[]> bytes = std::make_shared_for_overwrite<uint8_t[]>(size);
  uint8_t* const first = bytes.get();
  memory_->Read(address, size, first, bad);
  HideLinkerHook(address, size, first);
  data = BulkBytes({first, size}, std::move(bytes));
}

Status TracedProcess::Write(uint64_t address, const Bytes& data) {
  return OnTracer([&] {
    Bytes bytes = data;
    for (auto& [id, breakpoint] : software_) {
      const uint64_t offset = breakpoint.record.Address - address;
      if (offset >= bytes.size()) continue;
      breakpoint.original = bytes[offset];
      bytes[offset] = kInt3;
    }
    PublishLinkerHook();
    return memory_->Write(address, bytes.data(), bytes.size());
  });
}

// ---------------------------------------------------------------------------------------------
// Core dumps.

Status TracedProcess::WriteCore(const std::string& path, bool full,
                                const std::function<void(uint32_t percent)>& progress) {
  if (dumping_.exchange(true)) {
    return Status::Fail(KXAPI_COMMS_ERR_COREDUMP_IN_PROGRESS,
                        u"a core dump of process " + Number(pid_) + u" is in progress already");
  }
  cancel_dump_ = false;
  CoreImage image;
  Status status = OnTracer([&] {
    bool stopped = !threads_.empty();
    for (const auto& [tid, thread] : threads_)
      stopped = stopped && thread.stopped;
    if (!stopped) {
      return Status::Fail(KXAPI_COMMS_ERR_NOT_STOPPED,
                          u"process " + Number(pid_) + u" is running; suspend it to dump its core");
    }
    ReadCoreProcess(pid_, image);
    // The thread that stopped first: a debugger reading the file starts there.
    std::vector<pid_t> order;
    if (threads_.count(stop_thread_) != 0) order.push_back(stop_thread_);
    for (const auto& [tid, thread] : threads_) {
      if (tid != stop_thread_) order.push_back(tid);
    }
    for (const pid_t tid : order) {
      const Thread& thread = threads_.at(tid);
      if (Status read =
              ReadCoreThread(tid, CoreSignal(thread.stop_code), image.threads.emplace_back());
          !read.ok()) {
        return read;
      }
    }
    for (const auto& [id, breakpoint] : software_)
      image.originals.emplace_back(breakpoint.record.Address, breakpoint.original);
    return Status::Ok();
  });
  if (status.ok()) {
    status = WriteCoreFile(
        path, image, full,
        [this](uint64_t address, uint32_t size, Bytes& data) {
          uint32_t bad = 0;
          Read(address, size, data, bad);
        },
        cancel_dump_, progress);
  }
  dumping_ = false;
  return status;
}

Status TracedProcess::CancelDump() {
  if (!dumping_) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_ENTRY,
                        u"no core dump of process " + Number(pid_) + u" is in progress");
  }
  cancel_dump_ = true;
  return Status::Ok();
}

// ---------------------------------------------------------------------------------------------
// Pages.

Status TracedProcess::SyscallInStoppedThread(long number, const std::array<uint64_t, 6>& args,
                                             uint64_t& result) {
  pid_t chosen = 0;
  for (const auto& [tid, thread] : threads_) {
    if (thread.stopped && !thread.exiting && (chosen == 0 || tid == pid_)) chosen = tid;
  }
  if (chosen == 0) {
    return Status::Fail(
        KXAPI_COMMS_ERR_NOT_STOPPED,
        u"process " + Number(pid_) + u" is running; suspend it to allocate or release pages in it");
  }
  Thread& thread = threads_[chosen];
  return RemoteSyscall(
      chosen, *memory_, number, args,
      [&](int status) {
        if (WIFSTOPPED(status)) {
          NoteStop(chosen, thread, status);
        } else {
          OnExit(chosen, status);
        }
      },
      result);
}

Status TracedProcess::AllocatePages(bool executable, uint32_t size, uint64_t start, uint64_t end,
                                    uint64_t& address) {
  if (size == 0) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG, u"a page allocation needs a size above 0");
  }
  if (start % kPageSize != 0 || (start != 0 && end != 0 && start >= end)) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG,
                        u"the start address " + Hex(start) +
                            u" must be page-aligned and below the end " + Hex(end));
  }
  const uint64_t bytes = (uint64_t{size} + kPageSize - 1) & ~(kPageSize - 1);
  return OnTracer([&] {
    const uint64_t protection = PROT_READ | PROT_WRITE | (executable ? PROT_EXEC : 0);
    const uint64_t flags = MAP_PRIVATE | MAP_ANONYMOUS | (start != 0 ? MAP_FIXED_NOREPLACE : 0);
    uint64_t mapped = 0;
    if (Status status = SyscallInStoppedThread(
            SYS_mmap, {start, bytes, protection, flags, static_cast<uint64_t>(-1), 0}, mapped);
        !status.ok()) {
      return status;
    }
    if (end != 0 && (mapped >= end || end - mapped < bytes)) {
      uint64_t ignored = 0;
      SyscallInStoppedThread(SYS_munmap, {mapped, bytes, 0, 0, 0, 0}, ignored);
      return Status::Fail(KXAPI_COMMS_ERR_NO_VIRTUAL_MEM, u"process " + Number(pid_) +
                                                              u" has no free " + Decimal(bytes) +
                                                              u" bytes below " + Hex(end));
    }
    pages_[mapped] = {bytes, executable};
    address = mapped;
    return Status::Ok();
  });
}

Status TracedProcess::DeallocatePages(bool executable, uint64_t address) {
  return OnTracer([&] {
    const auto it = pages_.find(address);
    if (it == pages_.end() || it->second.executable != executable) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_ADDRESS,
                          Hex(address) + u" is not " + (executable ? u"an executable" : u"a data") +
                              u" page that process " + Number(pid_) + u" allocated");
    }
    const uint64_t size = it->second.size;
    uint64_t ignored = 0;
    if (Status status = SyscallInStoppedThread(SYS_munmap, {address, size, 0, 0, 0, 0}, ignored);
        !status.ok()) {
      return status;
    }
    pages_.erase(it);
    std::erase_if(software_,
                  [&](const auto& entry) { return entry.second.record.Address - address < size; });
    return Status::Ok();
  });
}

// ---------------------------------------------------------------------------------------------
// Breakpoints.

Status TracedProcess::SetSoftwareBreakpoint(const CSetSoftwareBreakPointRequest& request,
                                            Bytes& original, uint32_t& id) {
  return OnTracer([&] {
    if (request.ThreadID != 0 && threads_.count(static_cast<pid_t>(request.ThreadID)) == 0) {
      return NoThread(request.ThreadID, pid_);
    }
    if (const Breakpoint* other = ClientBreakpointAt(request.Address)) {
      return Status::Fail(KXAPI_COMMS_ERR_DUPLICATE_ENTRY,
                          u"breakpoint " + Decimal(other->record.BreakPtId) + u" is already at " +
                              Hex(request.Address));
    }
    // On the linker's hook the int3 is there already, and the hook keeps the original byte.
    const Breakpoint* hook = BreakpointAt(request.Address);
    Bytes bytes;
    uint32_t bad = 0;
    memory_->Read(request.Address, 1, bytes, bad);
    if (bad != 0) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_ADDRESS,
                          Hex(request.Address) + u" is not mapped in process " + Number(pid_));
    }
    if (hook != nullptr) bytes[0] = hook->original;
    // Where a thread steps past an int3 that was there, the new one goes in as that step ends:
    // written now, it would be the step's instruction.
    if (hook == nullptr && !IsLifted(request.Address)) {
      if (Status status = memory_->Write(request.Address, &kInt3, 1); !status.ok()) return status;
    }
    Breakpoint breakpoint;
    breakpoint.record.ThreadID = request.ThreadID;
    breakpoint.record.Address = request.Address;
    breakpoint.record.Attribute = request.Attributes;
    breakpoint.record.HitCount = request.HitCount;
    breakpoint.record.DIFByteCode = request.DIFByteCode;
    breakpoint.record.BreakPtId = id = next_breakpoint_id_++;
    breakpoint.original = bytes[0];
    original = bytes;
    software_[id] = std::move(breakpoint);
    return Status::Ok();
  });
}

Status TracedProcess::ClearSoftwareBreakpoint(uint32_t id) {
  return OnTracer([&] {
    const auto it = software_.find(id);
    if (it == software_.end() || id == kLinkerHook) {
      return Status::Fail(
          KXAPI_COMMS_ERR_INVALID_SWBRKPT_ID,
          u"process " + Number(pid_) + u" has no software breakpoint " + Decimal(id));
    }
    const Breakpoint breakpoint = it->second;
    software_.erase(it);
    // The linker's hook on the same byte keeps its int3.
    if (BreakpointAt(breakpoint.record.Address) != nullptr) return Status::Ok();
    return memory_->Write(breakpoint.record.Address, &breakpoint.original, 1);
  });
}

Status TracedProcess::SoftwareBreakpoints(SoftwareBreakpointList& list) {
  return OnTracer([&] {
    for (const auto& [id, breakpoint] : software_) {
      if (id != kLinkerHook) list.push_back(breakpoint.record);
    }
    return Status::Ok();
  });
}

Status TracedProcess::ProgramDebugRegisters(pid_t tid) {
  std::vector<HardwareBreakpointRecord> slots;
  for (const auto& [id, record] : hardware_)
    slots.push_back(record);
  const DebugRegisterValues values = EncodeDebugRegisters(slots);
  // DR7 off first, so that no half-programmed slot is live; then the addresses, then DR7.
  if (Status status = WriteDebugRegister(tid, 7, 0); !status.ok()) return status;
  for (uint32_t slot = 0; slot < 4; ++slot) {
    if (Status status = WriteDebugRegister(tid, slot, values.address[slot]); !status.ok()) {
      return status;
    }
  }
  threads_[tid].fresh = false;
  return WriteDebugRegister(tid, 7, values.dr7);
}

Status TracedProcess::WithAllStopped(const std::function<Status()>& work) {
  std::vector<pid_t> were_running;
  for (const auto& [tid, thread] : threads_) {
    if (!thread.stopped) were_running.push_back(tid);
  }
  StopOthers(0);
  const Status status = work();
  for (pid_t tid : were_running) {
    const auto it = threads_.find(tid);
    if (it == threads_.end() || !it->second.stopped) continue;
    if (it->second.resuming == Resuming::kSteppingOver) {
      GoOnAfterEvent(tid, it->second);  // on with its step over a breakpoint
    } else if (it->second.resuming == Resuming::kNo && !it->second.held) {
      Continue(tid, it->second);
    }
  }
  GoOnResuming();  // a step over ended meanwhile
  return status;
}

Status TracedProcess::SetHardwareBreakpoint(uint64_t address, uint32_t flags, uint32_t size,
                                            uint32_t& id) {
  return OnTracer([&] {
    if (Status status = CheckHardwareBreakpoint(address, flags, size, hardware_.size());
        !status.ok()) {
      return status;
    }
    HardwareBreakpointRecord record;
    record.Address = address;
    record.Flags = flags;
    record.RegionSize = size;
    record.BreakPtId = next_breakpoint_id_;
    hardware_[record.BreakPtId] = record;
    const Status status = WithAllStopped([&] {
      for (const auto& [tid, thread] : threads_) {
        if (Status programmed = ProgramDebugRegisters(tid); !programmed.ok()) return programmed;
      }
      return Status::Ok();
    });
    if (!status.ok()) {
      hardware_.erase(record.BreakPtId);
      WithAllStopped([&] {
        for (const auto& [tid, thread] : threads_)
          ProgramDebugRegisters(tid);
        return Status::Ok();
      });
      return status;
    }
    id = next_breakpoint_id_++;
    return Status::Ok();
  });
}

Status TracedProcess::ClearHardwareBreakpoint(uint32_t id) {
  return OnTracer([&] {
    if (hardware_.erase(id) == 0) {
      return Status::Fail(
          KXAPI_COMMS_ERR_INVALID_HWBRKPT_ID,
          u"process " + Number(pid_) + u" has no hardware breakpoint " + Decimal(id));
    }
    return WithAllStopped([&] {
      for (const auto& [tid, thread] : threads_) {
        if (Status status = ProgramDebugRegisters(tid); !status.ok()) return status;
      }
      return Status::Ok();
    });
  });
}

Status TracedProcess::HardwareBreakpoints(HardwareBreakpointList& list) {
  return OnTracer([&] {
    for (const auto& [id, record] : hardware_)
      list.push_back(record);
    return Status::Ok();
  });
}

}  // namespace qv::server
