#pragma once
// One process of a virtual kit: its memory, threads, registers and breakpoints, made from the
// program image the kit loaded it from. A running thread moves along the path its image gives it,
// one step each time the kit's clock ticks (Advance): it stops the whole process where a
// breakpoint or a scripted fault is, and exits at the end of its path.
//
// Every method takes the process's own lock, so calls on other processes never wait on it.

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "requests/catalogue.h"
#include "server/core/status.h"
#include "server/debug/debug_backend.h"
#include "server/kits/scenario.h"

namespace qv::server {

class VirtualProcess {
 public:
  // `first_tid` numbers the image's threads in order.
  VirtualProcess(uint32_t pid, uint32_t first_tid, const ProgramImage& image, bool stopped);

  uint32_t pid() const { return pid_; }
  ProcessInfoRecord Info() const;
  ThreadInfoList Threads() const;
  U32List ThreadIds() const;
  MemoryRangeList Ranges() const;

  // The bytes at [address, address + size): unmapped ones read as zero and are counted in `bad`.
  void Read(uint64_t address, uint32_t size, Bytes& data, uint32_t& bad) const;
  // Refused unless every byte is mapped. Over a software breakpoint the write changes the byte
  // the breakpoint restores, and the breakpoint stays.
  Status Write(uint64_t address, const Bytes& data);

  Status GetRegisters(uint32_t tid, const U32List& ids, U64List& values) const;
  Status SetRegisters(uint32_t tid, const U32List& ids, const U64List& values);

  // Thread 0 means every thread of the process.
  Status SetSoftwareBreakpoint(const CSetSoftwareBreakPointRequest& request, Bytes& original,
                               uint32_t& id);
  Status ClearSoftwareBreakpoint(uint32_t id);
  SoftwareBreakpointList SoftwareBreakpoints() const;
  // Programs DR0..DR3 and DR7 of every thread as the CPU would need them; four at most.
  Status SetHardwareBreakpoint(uint64_t address, uint32_t flags, uint32_t size, uint32_t& id);
  Status ClearHardwareBreakpoint(uint32_t id);
  HardwareBreakpointList HardwareBreakpoints() const;

  // The whole process: every thread suspended (its stop reason SIGSUSPEND_PROCESS) or running.
  void Suspend();
  // Without threads to step every thread runs. With them, only those threads run, one step
  // each, and the process stops again after it (STOP_REASON_SIGTRAP unless the step reached a
  // breakpoint or a fault); a thread that is unknown or has no path fails to start.
  void Resume(const U32List& to_step, U32List& failed);
  Status SuspendThread(uint32_t tid, uint32_t& state);
  Status ResumeThread(uint32_t tid);
  // Ends the process: nothing it does is reported after this returns.
  void Kill();
  // Stops every thread with `reason` and reports it as a stop of the main thread.
  void Stop(uint32_t reason, DebugEvents& events);

  // One tick of the kit's clock; posts what happens to `events`. False once the process has
  // ended (every thread exited, or killed).
  bool Advance(DebugEvents& events);

 private:
  struct Thread {
    std::string name;
    bool suspended = false;
    uint32_t stop_code = 0;
    std::map<uint32_t, std::array<uint64_t, 4>> registers;
    std::vector<PathStep> path;
    size_t next = 0;  // the step it takes next
    bool loop = false;
    uint32_t exit_code = 0;
    bool stepping = false;  // runs one step, then the process stops
  };
  // Where one step took a thread: on to run, stopped with a reason, or at the end of its path.
  enum class Outcome { kRuns, kStops, kExits };
  Outcome Step(uint32_t tid, Thread& thread, uint32_t& reason);
  // Every thread suspended with `reason`, and the STOP_NOTIFICATION that says so.
  void StopAll(uint32_t tid, uint32_t reason, DebugEvents& events);
  struct SoftwareBreakpoint {
    SoftwareBreakpointRecord record;
    uint8_t original = 0;
  };

  Thread* FindThread(uint32_t tid);
  const Thread* FindThread(uint32_t tid) const;
  // The byte at `address` if it is mapped.
  uint8_t* Byte(uint64_t address);
  ThreadInfoRecord ThreadRecord(uint32_t tid, const Thread& thread) const;
  ProcessInfoRecord InfoLocked() const;
  void ProgramDebugRegisters();

  const uint32_t pid_;
  const ProgramImage image_;  // name, path and entry; regions and threads are copied below
  mutable std::mutex mutex_;
  std::map<uint64_t, Bytes> regions_;  // base -> contents
  std::map<uint32_t, Thread> threads_;
  std::map<uint32_t, SoftwareBreakpoint> software_;
  std::map<uint32_t, HardwareBreakpointRecord> hardware_;
  uint32_t next_breakpoint_id_ = 1;
  bool ended_ = false;
};

}  // namespace qv::server
