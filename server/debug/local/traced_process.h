#pragma once
// One local process under the debugger: its threads, breakpoints and run control, driven through
// ptrace from its own tracer thread (tracer_thread.h). Every method that touches the tracee runs
// there, so the state below is the tracer thread's alone and needs no lock; memory reads and
// what /proc tells run on the caller's thread.
//
// Run control is all-stop: when one thread stops (a breakpoint, a step, a signal worth a stop)
// the others are stopped with SIGSTOP before the STOP_NOTIFICATION goes out, and a resume lets
// them all go again. A SIGSTOP sent by us that shows up later is swallowed; a signal that arrives
// while the others are being stopped is kept and delivered when the thread resumes.

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "requests/catalogue.h"
#include "server/core/status.h"
#include "server/debug/debug_backend.h"
#include "server/debug/local/console_pump.h"
#include "server/debug/local/process_launch.h"
#include "server/debug/local/process_memory.h"
#include "server/debug/local/process_modules.h"
#include "server/debug/local/tracer_thread.h"

namespace qv::server {

class TracedProcess {
 public:
  using Ptr = std::shared_ptr<TracedProcess>;

  // Starts `plan` under the debugger and announces it: PROCESS_LOADING, PROCESS_CREATE,
  // THREAD_CREATE, a DYNAMIC_LIBRARY_LOAD per module, then with `stop_at_entry` one
  // STOP_NOTIFICATION (STOP_REASON_DL_STOP_INIT); without it the process runs.
  static Status Load(const LaunchPlan& plan, bool stop_at_entry,
                     std::shared_ptr<DebugEvents> events, Ptr& process);
  // Traces the running process `pid` (every thread of it), leaving it running.
  static Status Attach(pid_t pid, std::shared_ptr<DebugEvents> events, Ptr& process);
  // Shutdown().
  ~TracedProcess();
  TracedProcess(const TracedProcess&) = delete;
  TracedProcess& operator=(const TracedProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool loaded() const { return loaded_; }
  // Under the debugger now (not detached, not ended).
  bool traced() const { return traced_; }
  // Ended, or (for a process that was attached) detached: nothing more to do with it.
  bool gone() const { return ended_ || (!loaded_ && !traced_); }

  // Traces again a process this server loaded and detached from.
  Status Reattach();
  // Removes every breakpoint and lets the process run on untraced.
  Status Detach();
  // Kills it and waits for its end; PROCESS_KILL is announced.
  Status Kill();
  // A loaded process is killed, an attached one detached; then the tracer ends. Announces nothing.
  void Shutdown();

  Status Info(ProcessInfoRecord& info);
  Status Threads(ThreadInfoList& threads);
  Status Suspend(ProcessInfoRecord& info, ThreadInfoList& threads);
  Status Resume(const U32List& to_step, U32List& failed);
  Status SuspendThread(uint32_t tid, uint32_t& state);
  Status ResumeThread(uint32_t tid);

  // FNV-1a over the rip of every stopped thread (eight bytes each, lowest first) in thread id
  // order; refused while no thread is stopped.
  Status CallstackSignature(uint64_t& hash);

  Status GetRegisters(uint32_t tid, const U32List& ids, U64List& values);
  Status SetRegisters(uint32_t tid, const U32List& ids, const U64List& values);

  // Console input to a loaded process's stdin, from any thread and without waiting: what its
  // pipe has no room for is dropped.
  void Input(const std::string& text);

  // Reads need no tracer: from any thread. Memory reads show the int3 of a software breakpoint,
  // not the linker's hook's.
  void Read(uint64_t address, uint32_t size, Bytes& data, uint32_t& bad);
  // The same for an answer.
  void Read(uint64_t address, uint32_t size, BulkBytes& data, uint32_t& bad);
  // A write over a software breakpoint changes the byte the breakpoint gives back.
  Status Write(uint64_t address, const Bytes& data);

  // Pages a debugger allocates, mapped by the process itself (mmap run in one of its stopped
  // threads): whole pages, executable ones read-write-execute, data pages read-write; at `start`
  // when it is not 0, wholly below `end` when that is not 0. Refused while no thread is stopped.
  Status AllocatePages(bool executable, uint32_t size, uint64_t start, uint64_t end,
                       uint64_t& address);
  // Only an address an allocation of the same kind returned; its breakpoints go with it.
  Status DeallocatePages(bool executable, uint64_t address);

  // An ELF core file of the process at `path` (core_file.h; `full`: every readable mapping, else
  // the writable ones), `progress` hearing the percentage; refused while a thread runs or while
  // another dump of the process is under way. The registers are taken on the tracer, the memory
  // read from the caller's thread.
  Status WriteCore(const std::string& path, bool full,
                   const std::function<void(uint32_t percent)>& progress);
  // Stops the dump under way, which then removes its file.
  Status CancelDump();

  Status SetSoftwareBreakpoint(const CSetSoftwareBreakPointRequest& request, Bytes& original,
                               uint32_t& id);
  Status ClearSoftwareBreakpoint(uint32_t id);
  Status SoftwareBreakpoints(SoftwareBreakpointList& list);
  Status SetHardwareBreakpoint(uint64_t address, uint32_t flags, uint32_t size, uint32_t& id);
  Status ClearHardwareBreakpoint(uint32_t id);
  Status HardwareBreakpoints(HardwareBreakpointList& list);

 private:
  // Where a thread is in a resume: a thread that stands on a breakpoint of ours first steps over
  // it, one thread at a time while the others resumed with it wait, and then they all go.
  enum class Resuming { kNo, kQueued, kSteppingOver, kReady };
  struct Thread {
    std::string name;
    bool stopped = false;         // in a ptrace stop
    bool expect_sigstop = false;  // a SIGSTOP of ours is on its way to it
    bool fresh = true;            // its debug registers are not programmed yet
    bool held = false;            // suspended on its own (SUSPEND_THREAD)
    bool stepping = false;
    bool exiting = false;  // stopped on its way out
    int pending_signal = 0;
    uint32_t stop_code = 0;
    std::optional<uint64_t> lifted;  // a breakpoint's address whose int3 is out for its step
    Resuming resuming = Resuming::kNo;
  };
  struct Breakpoint {
    SoftwareBreakpointRecord record;
    uint8_t original = 0;
  };

  TracedProcess(bool loaded, std::shared_ptr<DebugEvents> events);
  // Runs `work` on the tracer; a failure when the tracer has ended.
  Status OnTracer(const std::function<Status()>& work);
  Status StartLoaded(const LaunchPlan& plan, bool stop_at_entry);
  Status Seize(pid_t pid);
  Status DetachNow();
  void KillNow(bool announce);

  // Wait statuses: from the tracer's loop, and from the waits below.
  void OnWaitStatus(pid_t tid, int status);
  void OnTrap(pid_t tid, Thread& thread);
  void OnExit(pid_t tid, int status);
  void OnExec(pid_t tid);
  // A stop status of a thread met while stopping the others: noted, to be dealt with on resume.
  void NoteStop(pid_t tid, Thread& thread, int status);
  Thread& AddThread(pid_t tid);
  // After an event stop of `thread` (a clone, a fork): on with its step, or running again.
  void GoOnAfterEvent(pid_t tid, Thread& thread);
  // Whether `tid` is a thread of this process rather than a child it forked.
  bool IsThreadOfProcess(pid_t tid) const;

  // Children are traced from birth, because the parent is, so that a breakpoint's int3 copied
  // into them cannot kill them; then they are let go. A forked child gets the original bytes
  // written into its own copy of the memory. A vforked one shares the parent's memory: the int3s
  // come out of it until the parent's vfork is done (VFORK_DONE), and the parent, waiting in its
  // vfork meanwhile, misses nothing.
  void ReleaseChild(pid_t parent, bool shares_memory);
  void RestoreOriginals(pid_t child);
  void EndVforkLift();
  // Whether a thread's step past a breakpoint has the int3 at `address` out.
  bool IsLifted(uint64_t address) const;
  // Children whose first stop came but whose parent's fork event did not (detach, kill).
  void ReleaseEarlyChildren();

  // Stops every thread but `except` (0: all) and waits until they are.
  void StopOthers(pid_t except);
  // Stops them all, reports the stop of `tid` with `reason`, and announces module changes first
  // (only without the linker's hook, which announces them as they happen).
  void ReportStop(pid_t tid, uint32_t reason);
  void Continue(pid_t tid, Thread& thread);
  // Starts the thread past the breakpoint it stands on, if it stands on one: the original byte
  // back for one step (the int3 again once the step is done). Whether the step began.
  bool StartStepOver(pid_t tid, Thread& thread);
  // Moves the resume on: the next queued thread steps over its breakpoint, or, once none is left,
  // every thread ready goes. A step over a blocking system call holds nothing but the threads
  // resumed with it: neither the tracer nor the request that resumed waits for it.
  void GoOnResuming();
  // A step over a breakpoint has ended (or never will): the int3 back in, and the thread ready to
  // go with the others (GoOnResuming lets it go, or lets an exiting one be).
  void EndStepOver(Thread& thread);
  // A stop of the whole process: no thread steps or resumes any longer.
  void ForgetResumes();
  void PutBackLifted(Thread& thread);
  // Any int3 of ours at `address` (the linker's hook among them), and a client's only.
  Breakpoint* BreakpointAt(uint64_t address);
  Breakpoint* ClientBreakpointAt(uint64_t address);
  // The dynamic linker's hook (linker_hook.h), kept in software_ as kLinkerHook so that whatever
  // moves the int3s (forks, vforks, detaching, writes, core files) moves it too; clients never
  // see it. Set where the program is known (load, attach, exec) when it has a dynamic linker.
  void HookLinker();
  bool LinkerHooked() const { return software_.count(kLinkerHook) != 0; }
  // A thread at the hook: the modules are read, and it returns from the empty function as if it
  // had run it; a thread that was stepping ends its step there.
  void PassLinkerHook(pid_t tid, Thread& thread);
  // Where the hook is and the byte it replaced, for reads on other threads (hook_shadow_).
  void PublishLinkerHook();
  void HideLinkerHook(uint64_t address, uint32_t size, uint8_t* data) const;
  Status ProgramDebugRegisters(pid_t tid);
  // Runs `work` with every thread stopped, then lets those that ran go on.
  Status WithAllStopped(const std::function<Status()>& work);
  Status StoppedThread(uint32_t tid, Thread*& thread);
  // A system call made by a stopped thread of the process (the main thread when it is stopped).
  Status SyscallInStoppedThread(long number, const std::array<uint64_t, 6>& args, uint64_t& result);

  ProcessInfoRecord InfoRecord();
  // The threads' records; the stacks' sizes come from `maps_text` when given (the maps just
  // read), else from the kernel one stack at a time, or from the maps read afresh.
  ThreadInfoList ThreadRecords(const std::string* maps_text = nullptr);
  void PostModuleChanges();
  template <class Notification>
  Notification Event();

  const bool loaded_;
  const std::shared_ptr<DebugEvents> events_;
  pid_t pid_ = 0;  // set before the object is handed out
  std::unique_ptr<ProcessMemory> memory_;
  std::atomic<bool> traced_{false};
  std::atomic<bool> ended_{false};

  // The tracer thread's.
  std::map<pid_t, Thread> threads_;
  bool running_ = false;  // the whole process was let go: new threads and our SIGSTOPs run on
  bool killed_ = false;
  std::string program_;  // the executable's path
  ModuleInfoList modules_;
  std::string maps_text_;  // /proc/PID/maps when modules_ was last made from it
  std::optional<ProcessInfoRecord> known_info_;  // forgotten at an exec
  std::map<std::string, ElfEntry> elf_entries_;  // by path: read once, not at every stop
  static constexpr uint32_t kLinkerHook = 0;     // clients' breakpoint ids start at 1
  std::map<uint32_t, Breakpoint> software_;
  MappingQuery mapping_query_;  // the stacks' sizes, where the kernel answers them one by one
  std::map<uint32_t, HardwareBreakpointRecord> hardware_;
  uint32_t next_breakpoint_id_ = 1;
  std::set<pid_t> early_children_;  // forked children stopped before their parent's fork event
  int vfork_lifts_ = 0;             // vforked children running in our memory, int3s out
  struct Pages {
    uint64_t size = 0;
    bool executable = false;
  };
  std::map<uint64_t, Pages> pages_;  // what AllocatePages mapped, by address

  pid_t stop_thread_ = 0;  // the thread whose stop was reported last

  // The linker hook's address shifted left by 8 and the original byte below it; 0 without one.
  std::atomic<uint64_t> hook_shadow_{0};

  std::atomic<bool> dumping_{false};
  std::atomic<bool> cancel_dump_{false};

  std::unique_ptr<ConsolePump> console_;
  int input_ = -1;       // the write end of a loaded process's stdin
  TracerThread tracer_;  // last: its thread uses everything above
};

}  // namespace qv::server
