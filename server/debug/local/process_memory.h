#pragma once
// The memory of a local process, read and written from any thread: process_vm_readv and
// process_vm_writev first, /proc/PID/mem for what they refuse (a write into read-only text, such
// as a breakpoint's int3; a range only partly mapped, read page by page). Small writes go to
// /proc/PID/mem first: they are mostly breakpoints.

#include <sys/types.h>

#include <cstdint>
#include <mutex>

#include "requests/wire_types.h"
#include "server/core/status.h"
#include "server/debug/debug_backend.h"

namespace qv::server {

class ProcessMemory {
 public:
  explicit ProcessMemory(pid_t pid);
  ~ProcessMemory();
  ProcessMemory(const ProcessMemory&) = delete;
  ProcessMemory& operator=(const ProcessMemory&) = delete;

  // After an exec the process has new memory: /proc/PID/mem is opened again.
  void Reopen();
  // `size` bytes from `address` into `data`; what cannot be read is zeroed and counted in `bad`.
  void Read(uint64_t address, uint32_t size, uint8_t* data, uint32_t& bad);
  void Read(uint64_t address, uint32_t size, Bytes& data, uint32_t& bad) {
    data.resize(size);
    Read(address, size, data.data(), bad);
  }
  // All of `data` at `address`, or a failure naming the first address that could not be written
  // (some bytes before it may have been).
  Status Write(uint64_t address, const uint8_t* data, size_t size);
  // Writes of at most this many bytes go to /proc/PID/mem first.
  static constexpr size_t kSmallWrite = 64;

 private:
  // Bytes read at `address` through /proc/PID/mem, up to `size`; 0 when none.
  size_t ReadMem(uint64_t address, uint8_t* data, size_t size);
  // Bytes written at `address` through /proc/PID/mem, up to `size`; `error` says why it stopped.
  size_t WriteMem(uint64_t address, const uint8_t* data, size_t size, int& error);

  const pid_t pid_;
  std::mutex mutex_;  // guards mem_fd_ (reopened after an exec while readers use it)
  int mem_fd_ = -1;
};

}  // namespace qv::server
