#pragma once
// An ELF core file of an x86-64 Linux process, as the kernel writes one and as the local target's
// TRIGGER_COREDUMP does, read for a debugger: its threads (NT_PRSTATUS, NT_FPREGSET and
// NT_X86_XSTATE, in that order per thread), the process (NT_PRPSINFO, NT_AUXV), the files it had
// mapped (NT_FILE) and its memory (the PT_LOADs).
//
// The file comes from anywhere: every offset, count and size in it is checked against the file
// before it is used, nothing is allocated beyond what the file holds (the notes at most
// kMaxCoreNotes), and a file that does not parse is refused with what is wrong and where. Plain
// C++ with no OS headers, so that vesta-kx on Windows opens a Linux program's core too.

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "server/core/status.h"

namespace qv::server {

// A little-endian value of type T at `at` (cores are read on hosts of either byte order).
template <class T>
T Le(const uint8_t* at) {
  T value = 0;
  for (size_t i = 0; i < sizeof(T); ++i)
    value |= static_cast<T>(static_cast<T>(at[i]) << (8 * i));
  return value;
}

// The core's bytes: a file on disk, or bytes in memory (the fuzzer). Reads may come from several
// threads at once.
class CoreBytes {
 public:
  virtual ~CoreBytes() = default;
  virtual uint64_t Size() const = 0;
  // Copies up to `size` bytes at `offset` to `out`; how many there were.
  virtual size_t ReadAt(uint64_t offset, void* out, size_t size) const = 0;
};

std::unique_ptr<CoreBytes> CoreBytesInMemory(std::vector<uint8_t> bytes);
// Opens `path` for reading; a failure says why.
Status OpenCoreFile(const std::filesystem::path& path, std::unique_ptr<CoreBytes>& bytes);

// The notes of a core are read whole; a segment of notes beyond this is refused.
inline constexpr uint64_t kMaxCoreNotes = 64ull << 20;

struct ElfCoreThread {
  uint32_t tid = 0;
  int signal = 0;  // pr_cursig, in Linux's numbering; 0 for none
  // pr_reg: the general registers in the order of the kernel's user_regs_struct (r15 first).
  std::array<uint64_t, 27> general{};
  std::vector<uint8_t> fxsave;  // NT_FPREGSET: the 512-byte FXSAVE image, or empty
  std::vector<uint8_t> xstate;  // NT_X86_XSTATE: the XSAVE area, or empty
};

// Indices into ElfCoreThread::general.
enum : size_t {
  kCoreRip = 16,
  kCoreRsp = 19,
};

// One PT_LOAD: `size` bytes of memory at `address`, the first `held` of them in the file at
// `offset` (the kernel leaves out what the mapped files hold).
struct ElfCoreSegment {
  uint64_t address = 0;
  uint64_t size = 0;
  uint64_t offset = 0;
  uint64_t held = 0;
  uint32_t protection = 0;  // read 1, write 2, execute 4
};

// One NT_FILE entry: [start, end) maps `path` from byte `offset`.
struct ElfCoreMappedFile {
  uint64_t start = 0;
  uint64_t end = 0;
  uint64_t offset = 0;
  std::string path;
};

struct ElfCore {
  uint32_t pid = 0;
  uint32_t parent = 0;
  uint32_t uid = 0;
  std::string name;                    // pr_fname
  std::string arguments;               // pr_psargs
  std::vector<ElfCoreThread> threads;  // the thread that stopped the process first
  std::vector<ElfCoreSegment> segments;
  std::vector<ElfCoreMappedFile> files;
  std::vector<std::pair<uint64_t, uint64_t>> auxv;  // (type, value)

  // The auxiliary vector's value of `type` (AT_ENTRY is 9), 0 when it has none.
  uint64_t Aux(uint64_t type) const;
};

// Reads the headers and notes of the core in `bytes`.
Status ParseElfCore(const CoreBytes& bytes, ElfCore& core);

}  // namespace qv::server
