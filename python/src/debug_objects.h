#pragma once
// The debug model in Python: a process's memory as a byte sequence, its breakpoints, running and
// stopping it, and a thread's registers by name.

#include <pybind11/pybind11.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

// How a process's run ended: a stop (a breakpoint, a signal), its exit or its kill.
struct Stop {
  std::string kind;  // "stop", "exit" or "kill"
  std::uint32_t pid = 0;
  std::optional<std::uint32_t> tid;
  std::optional<std::uint32_t> reason;  // the stop reason's code
  std::optional<std::uint64_t> rip;
  std::optional<std::uint32_t> exit_code;
};

// A stop as the library describes it: the thread that stopped, its rip and its own reason (the
// process's when the stop's thread list lacks it). Reads local objects only; needs no GIL.
Stop ReadStop(IStopNotification& stop);

class Thread {
 public:
  Thread(vekx::ComPtr<IThread> thread, std::uint32_t tid) : thread_(std::move(thread)), tid_(tid) {}
  std::uint32_t tid() const { return tid_; }
  // A register by name ("rip", "rax", "ymm0" is not among them: the general registers, rflags
  // and fsbase); InvalidArgument for another name.
  // Any register of the server's table (st and ymm ones as one integer of 80 or 256 bits).
  pybind11::int_ Register(const std::string& name);
  void SetRegister(const std::string& name, const pybind11::int_& value);
  static std::vector<std::string> RegisterNames();

 private:
  vekx::ComPtr<IThread> thread_;
  std::uint32_t tid_;
};

class Process {
 public:
  Process(vekx::ComPtr<ITarget> target, vekx::ComPtr<IProcess> process, std::uint32_t pid)
      : target_(std::move(target)), process_(std::move(process)), pid_(pid) {}
  std::uint32_t pid() const { return pid_; }

  // `count` bytes at `address`; TargetError when some of them cannot be read.
  pybind11::bytes Read(std::uint64_t address, std::uint32_t count);
  // Writes `data` at `address`; returns how many bytes were written.
  std::uint32_t Write(std::uint64_t address, const std::string& data);

  // A software breakpoint at `address` for thread `tid` (0: every thread); returns its id.
  std::uint32_t BreakAt(std::uint64_t address, std::uint32_t tid);
  void ClearBreak(std::uint32_t id);

  // Lets the process run on. With `wait`, returns its next stop, exit or kill, raising
  // TargetTimeout after `timeout` seconds.
  std::optional<Stop> Resume(bool wait, double timeout);
  void Suspend();
  void Kill();

  std::vector<Thread> Threads();

 private:
  vekx::ComPtr<ITarget> target_;
  vekx::ComPtr<IProcess> process_;
  std::uint32_t pid_;
};

}  // namespace vekx_python
