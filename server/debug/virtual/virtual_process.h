#pragma once
// One process of a virtual kit: its memory, threads, registers and breakpoints, made from the
// program image the kit loaded it from. A running thread moves along the path its image gives it,
// one step each time the kit's clock ticks (Advance): it stops the whole process where a
// breakpoint or a scripted fault is, and exits at the end of its path.
//
// Every method takes the process's own lock, so calls on other processes never wait on it.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "requests/catalogue.h"
#include "server/core/status.h"
#include "server/debug/debug_backend.h"
#include "server/debug/virtual/core_dump.h"
#include "server/debug/virtual/process_objects.h"
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
  // One record per region: its name (the image's path unless the region or the allocation named
  // it), start and end (exclusive), protection bits, and resident size = size.
  VirtualMemoryList VirtualMemory() const;
  // Modules, synchronisation and application objects, sockets, files: fixed, read without a lock.
  const ProcessObjects& Objects() const { return objects_; }

  // Pages a debugger allocates: zero-filled, whole pages of 4096 bytes, page-aligned, inside
  // [start, end) where those are not 0 (else above the image's regions). At most 256 MiB of
  // them per process.
  enum class PageKind { kImage, kExecutable, kData };
  Status Allocate(PageKind kind, uint32_t size, const std::u16string& name, uint64_t start,
                  uint64_t end, uint64_t& address);
  // Only an address an allocation of the same kind returned; software breakpoints in the page go
  // with it.
  Status Deallocate(PageKind kind, uint64_t address);

  // FNV-1a over the rip of every suspended thread (eight bytes, little-endian), in tid order;
  // refused with KXAPI_COMMS_ERR_NOT_STOPPED while no thread is suspended.
  Status CallstackSignature(uint64_t& hash) const;

  // The sanitizer report of a stopped thread (KXAPI_COMMS_ERR_NOT_STOPPED while it runs,
  // KXAPI_COMMS_ERR_NO_ENTRY when its image gives none).
  Status SanitizerReportOf(uint32_t tid, SanitizerReport& report) const;

  // Network emulation: four values (latency in ms, upload and download limits in kbit/s, loss
  // in 1/1000); no values restore the defaults (all 0). A virtual process has no traffic to
  // treat per port: a setting for one port is checked, and only every port's is kept.
  Status SetNetworkEmulation(uint32_t port, const U32List& params);
  U32List NetworkEmulation() const;

  // The process as a dump of `type` holds it, taken at one moment.
  CoreDump Snapshot(uint32_t type) const;
  // Its dump (full, or mini) written to the host file `path` as WriteCoreDump writes it, between
  // BeginDump and EndDump; refused while another dump of it runs.
  Status WriteCore(const std::string& path, bool full,
                   const std::function<void(uint32_t percent)>& progress);
  // One dump at a time: false while one runs. A dump in progress sees DumpCancelled() once
  // CancelDump has been called; CancelDump fails when none runs.
  bool BeginDump();
  void EndDump();
  Status CancelDump();
  const std::atomic<bool>& DumpCancelled() const { return cancel_dump_; }

  // The bytes at [address, address + size): unmapped ones read as zero and are counted in `bad`.
  void Read(uint64_t address, uint32_t size, Bytes& data, uint32_t& bad) const;
  // The same for an answer: bytes inside one region are not copied but shared with the region
  // (a later write to it copies the region instead).
  void Read(uint64_t address, uint32_t size, BulkBytes& data, uint32_t& bad) const;
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
    bool stepping = false;       // runs one step, then the process stops
    std::optional<size_t> wait;  // the synchronisation object it waits on (Objects())
    std::optional<SanitizerReport> asan;
  };
  // A region's bytes, shared with the answers of reads that are still being sent; a write to
  // shared bytes copies them first, so that an answer sends the bytes as they were read. Used
  // under the process's lock.
  class RegionBytes {
   public:
    RegionBytes() = default;
    explicit RegionBytes(Bytes bytes);
    size_t size() const { return bytes_ != nullptr ? bytes_->size() : 0; }
    const uint8_t* data() const { return bytes_ != nullptr ? bytes_->data() : nullptr; }
    // The bytes to write to, shared with nobody.
    uint8_t* MutableData();
    std::shared_ptr<const Bytes> Share() const { return bytes_; }

   private:
    std::shared_ptr<Bytes> bytes_;
  };
  struct Region {
    RegionBytes bytes;
    std::u16string name;
    uint32_t protection = 0;
    PageKind kind = PageKind::kImage;
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
  // The byte at `address` if it is mapped, ready to be written.
  uint8_t* Byte(uint64_t address);
  // The region that holds all of [address, address + size), or regions_.end().
  std::map<uint64_t, Region>::const_iterator Holding(uint64_t address, uint32_t size) const;
  // The lowest page-aligned address from `low` where `size` bytes fit below `high` between the
  // regions.
  std::optional<uint64_t> FreeSpace(uint64_t low, uint64_t high, uint64_t size) const;
  ThreadInfoRecord ThreadRecord(uint32_t tid, const Thread& thread) const;
  ProcessInfoRecord InfoLocked() const;
  void ProgramDebugRegisters();

  const uint32_t pid_;
  const ProgramImage image_;  // name, path and entry; regions and threads are copied below
  const ProcessObjects objects_;
  uint64_t image_top_ = 0;  // the end of the highest region of the image
  mutable std::mutex mutex_;
  std::map<uint64_t, Region> regions_;  // base -> region
  uint64_t allocated_ = 0;              // bytes of pages allocated
  U32List network_{0, 0, 0, 0};         // every port's emulation
  std::map<uint32_t, Thread> threads_;
  std::map<uint32_t, SoftwareBreakpoint> software_;
  std::map<uint32_t, HardwareBreakpointRecord> hardware_;
  uint32_t next_breakpoint_id_ = 1;
  bool ended_ = false;
  std::atomic<bool> dumping_{false};
  std::atomic<bool> cancel_dump_{false};
};

}  // namespace qv::server
