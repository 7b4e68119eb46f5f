#pragma once
// The bridge's hold on one process of one target, through the public library exactly as any host
// tool holds it: a root object, the target object, the process object, thread objects, and a
// Debug and a ConsoleOutput sink whose events wait in a queue that a poll() can watch.
// Methods throw LibraryError when the library refuses.

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "library_values.h"
#include "x86_64_registers.h"

namespace vesta_gdb {

struct TargetEvent {
  enum class Kind { kStop, kExit, kKill, kOutput };
  Kind kind = Kind::kStop;
  std::uint32_t tid = 0;     // kStop: the thread that stopped
  std::uint32_t reason = 0;  // kStop: eStopNotificationReason
  std::uint64_t rip = 0;     // kStop: where the thread stands, when the stop says (else 0)
  std::uint32_t exit_code = 0;
  std::string text;  // kOutput
};

struct ThreadEntry {
  std::uint32_t tid;
  std::string name;
};

struct ModuleEntry {
  std::string path;
  std::uint64_t base;  // the lowest segment's address
};

class EventQueue;

class TargetSession {
 public:
  // Opens the library and finds the target by handle, host name or name.
  explicit TargetSession(const std::string& target_spec);
  ~TargetSession();
  TargetSession(const TargetSession&) = delete;
  TargetSession& operator=(const TargetSession&) = delete;

  // Starts `path` stopped at its first instruction.
  void Load(const std::string& path, const std::vector<std::string>& args, const std::string& cwd);
  // Attaches to a running process and stops it.
  void Attach(std::uint32_t pid);

  std::uint32_t pid() const { return pid_; }
  bool attached() const { return attached_; }
  std::string ExecutablePath();

  // A descriptor that is readable while events wait; Take() empties it.
  int event_fd() const;
  std::vector<TargetEvent> TakeEvents();

  std::vector<ThreadEntry> Threads();
  RegisterWords GetRegisters(std::uint32_t tid, const std::vector<std::uint32_t>& ids);
  void SetRegisters(std::uint32_t tid, const RegisterWords& words);

  // Reads `length` bytes; `bad` is how many could not be read (and read as zero).
  std::string ReadMemory(std::uint64_t address, std::uint32_t length, std::uint32_t& bad);
  void WriteMemory(std::uint64_t address, const std::string& bytes);

  // The breakpoint's id; `original` gets the byte it covers.
  std::uint32_t SetSoftwareBreakpoint(std::uint64_t address, std::uint8_t& original);
  void ClearSoftwareBreakpoint(std::uint32_t id);
  // `flags`: eHardwareBreakPtFlags (execute 0, write 1, read 2, access 3).
  std::uint32_t SetHardwareBreakpoint(std::uint64_t address, std::uint32_t flags,
                                      std::uint32_t size);
  void ClearHardwareBreakpoint(std::uint32_t id);

  // Lets every thread run, or steps only `step` (one instruction each).
  void Resume(const std::vector<std::uint32_t>& step);
  void Suspend();
  void Kill();
  void Detach();

  std::vector<ModuleEntry> Modules();
  // Where the program starts (the auxiliary vector's AT_ENTRY on the local target).
  std::uint64_t EntryAddress();

 private:
  vekx::ComPtr<IThread> ThreadObject(std::uint32_t tid);
  void Subscribe();

  class Sink;
  vekx::ComPtr<IVEKXAPI12> api_;
  vekx::ComPtr<ITarget> target_;
  vekx::ComPtr<IProcess> process_;
  vekx::ComPtr<Sink> sink_;
  std::shared_ptr<EventQueue> queue_;
  std::map<std::uint32_t, vekx::ComPtr<IThread>> threads_;
  std::uint32_t pid_ = 0;
  bool attached_ = false;
  std::string path_;
};

}  // namespace vesta_gdb
