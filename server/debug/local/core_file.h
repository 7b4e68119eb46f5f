#pragma once
// A stopped local process as an ELF core file, the kind the kernel writes and gdb reads: a
// PT_NOTE with NT_PRSTATUS, NT_FPREGSET and NT_X86_XSTATE for every thread (the thread that
// stopped first), NT_PRPSINFO, NT_AUXV and NT_FILE, then one PT_LOAD per mapping saved with its
// bytes.

#include <sys/types.h>
#include <sys/user.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "requests/wire_types.h"
#include "server/core/status.h"
#include "server/debug/local/proc_files.h"

namespace qv::server {

struct CoreThread {
  pid_t tid = 0;
  int signal = 0;  // the Linux signal it stopped with, 0 for none
  user_regs_struct regs{};
  user_fpregs_struct fpregs{};
  std::vector<uint8_t> xstate;  // empty where the CPU has no XSAVE
};

// Must run on the thread that traces `tid`, while the thread is stopped.
Status ReadCoreThread(pid_t tid, int signal, CoreThread& thread);

struct CoreImage {
  pid_t pid = 0;
  pid_t parent = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  char state = 'T';
  std::string name;       // the command, at most 15 bytes kept
  std::string arguments;  // the command line, blanks between, at most 79 bytes kept
  std::vector<CoreThread> threads;
  std::vector<uint8_t> auxv;
  std::vector<Mapping> mappings;  // every mapping; which are saved is WriteCoreFile's choice
  // The bytes software breakpoints replaced, put back in the saved memory.
  std::vector<std::pair<uint64_t, uint8_t>> originals;
};

// The process's own part of an image, from /proc: ids, names, auxiliary vector and mappings.
void ReadCoreProcess(pid_t pid, CoreImage& image);

// Reads `size` bytes at `address` of the process; bytes it cannot read are zero.
using CoreMemoryReader = std::function<void(uint64_t address, uint32_t size, Bytes& data)>;

// Writes `image` to a new file at `path` (never over a file that is there). `full` saves every
// readable mapping; otherwise only the writable ones (data, heap, stacks), the rest being in the
// files they map. `progress` hears 0 once the file exists, then each percent of the bytes
// written. A cancel or failure removes the file.
Status WriteCoreFile(const std::string& path, const CoreImage& image, bool full,
                     const CoreMemoryReader& read, const std::atomic<bool>& cancel,
                     const std::function<void(uint32_t percent)>& progress);

}  // namespace qv::server
