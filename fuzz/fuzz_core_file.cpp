// The core file reader under arbitrary bytes: whatever a file claims (counts, offsets, sizes,
// notes), parsing it and then asking everything a debugger asks of the process in it (records,
// modules, memory map, registers, memory around every segment) must neither crash, hang nor
// allocate beyond the file. The files a core names are not opened here.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "server/debug/core/core_records.h"

namespace {

constexpr uint32_t kRegisterIds[] = {0x10000, 0x10012, 0x10015, 0x20000, 0x20008, 0x30007,
                                     0x40000, 0x4000F, 0x50007, 0x60000, 0x7FFFF};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qv::server;
  LoadedCore loaded;
  loaded.bytes = CoreBytesInMemory(std::vector<uint8_t>(data, data + size));
  loaded.files = std::make_unique<MappedFiles>(false);
  if (!ParseElfCore(*loaded.bytes, loaded.core).ok()) return 0;
  if (loaded.core.threads.empty()) __builtin_trap();
  CoreProcessRecord(loaded);
  CoreThreadRecords(loaded.core);
  CoreMemoryMap(loaded.core);
  CoreModules(loaded);
  qv::U64List values;
  for (const ElfCoreThread& thread : loaded.core.threads) {
    for (uint32_t id : kRegisterIds)
      ReadCoreRegisters(thread, {id}, values);
  }
  qv::Bytes bytes;
  uint32_t bad = 0;
  const size_t segments = std::min<size_t>(loaded.core.segments.size(), 64);
  for (size_t i = 0; i < segments; ++i) {
    const ElfCoreSegment& segment = loaded.core.segments[i];
    // Across the segment's start, and up to the top of the address space.
    for (uint64_t address :
         {segment.address - 16, segment.address + segment.held - 8, UINT64_MAX - 100}) {
      loaded.Read(address, 4096, bytes, bad);
      if (bytes.size() != 4096 || bad > 4096) __builtin_trap();
    }
  }
  return 0;
}
