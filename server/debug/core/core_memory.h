#pragma once
// The memory of the process in a core file: the bytes its PT_LOADs hold, and for what the core
// left out (the kernel saves only the first page of a mapped program or library, our mini dumps
// none of its code), the bytes of the file NT_FILE says was mapped there, read from the server's
// host as it is now. What neither holds is missing and counted as bad bytes.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "requests/wire_types.h"
#include "server/debug/core/elf_core.h"

namespace qv::server {

// The files a core names, opened once each when first read.
class MappedFiles {
 public:
  // `enabled` false reads nothing (the fuzzer: a core's paths are not to be opened).
  explicit MappedFiles(bool enabled) : enabled_(enabled) {}
  // Up to `size` bytes of `path` at `offset`; how many there were.
  size_t ReadAt(const std::string& path, uint64_t offset, void* out, size_t size);

 private:
  static constexpr size_t kMaxOpen = 256;  // beyond this, a file is opened for each read
  const bool enabled_;
  std::mutex mutex_;  // guards open_
  // A file that cannot be opened is kept as null, so that it is not tried again.
  std::map<std::string, std::shared_ptr<CoreBytes>> open_;
};

// `size` bytes at `address`: `data` gets them all (zero where missing), `bad` how many are
// missing.
void ReadCoreMemory(const ElfCore& core, const CoreBytes& bytes, MappedFiles& files,
                    uint64_t address, uint32_t size, Bytes& data, uint32_t& bad);

}  // namespace qv::server
