#pragma once
// What a debugger asks about the process in a core file, answered from the parsed core: the
// process and thread records, the modules (one per file NT_FILE names, its entry point from the
// ELF header in the process's memory), the memory map and the registers.

#include <cstdint>
#include <utility>

#include "requests/debug_records.h"
#include "requests/wire_types.h"
#include "server/core/status.h"
#include "server/debug/core/core_memory.h"
#include "server/debug/core/elf_core.h"

namespace qv::server {

// The whole of a loaded core: what was parsed, the bytes it came from and the files it names.
struct LoadedCore {
  ElfCore core;
  std::unique_ptr<CoreBytes> bytes;
  std::unique_ptr<MappedFiles> files;

  void Read(uint64_t address, uint32_t size, Bytes& data, uint32_t& bad) const {
    ReadCoreMemory(core, *bytes, *files, address, size, data, bad);
  }
  // The same for an answer.
  void Read(uint64_t address, uint32_t size, BulkBytes& data, uint32_t& bad) const {
    Bytes read;
    Read(address, size, read, bad);
    data = BulkBytes(std::move(read));
  }
};

ProcessInfoRecord CoreProcessRecord(const LoadedCore& loaded);
ThreadInfoList CoreThreadRecords(const ElfCore& core);
ModuleInfoList CoreModules(const LoadedCore& loaded);
VirtualMemoryList CoreMemoryMap(const ElfCore& core);

// Registers by id, four words each as the live target gives them. A thread without its
// floating-point notes fails for those registers; the debug registers, which no core holds,
// read as zero.
Status ReadCoreRegisters(const ElfCoreThread& thread, const U32List& ids, U64List& values);

}  // namespace qv::server
