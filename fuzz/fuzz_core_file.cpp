// The core file reader under arbitrary bytes: whatever a file claims (counts, offsets, sizes,
// notes), parsing it and then asking everything a debugger asks of the process in it (records,
// modules, memory map, registers, memory around every segment) must neither crash, hang nor
// allocate beyond the file. The files a core names are not opened here. Each input is read as a
// whole file, and once more as the notes of a well-formed core (an ELF header, a PT_NOTE and a
// PT_LOAD over them), so that the fuzzer reaches the notes without first finding the headers.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

#include "server/debug/core/core_records.h"

namespace {

constexpr uint32_t kRegisterIds[] = {0x10000, 0x10012, 0x10015, 0x20000, 0x20008, 0x30007,
                                     0x40000, 0x4000F, 0x50007, 0x60000, 0x7FFFF};

template <class T>
void Put(std::vector<uint8_t>& bytes, size_t at, T value) {
  for (size_t i = 0; i < sizeof(T); ++i)
    bytes[at + i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
}

// An x86-64 core whose notes are `data`, also mapped as memory at 0x400000.
std::vector<uint8_t> AsNotes(const uint8_t* data, size_t size) {
  constexpr size_t kHeaders = 64 + 2 * 56;
  std::vector<uint8_t> core(kHeaders);
  const uint8_t ident[] = {0x7f, 'E', 'L', 'F', 2, 1, 1};
  std::copy(std::begin(ident), std::end(ident), core.begin());
  Put<uint16_t>(core, 16, 4);   // ET_CORE
  Put<uint16_t>(core, 18, 62);  // EM_X86_64
  Put<uint64_t>(core, 32, 64);  // e_phoff
  Put<uint16_t>(core, 54, 56);
  Put<uint16_t>(core, 56, 2);
  for (size_t i = 0; i < 2; ++i) {
    const size_t at = 64 + i * 56;
    Put<uint32_t>(core, at, i == 0 ? 4 : 1);  // PT_NOTE, PT_LOAD
    Put<uint64_t>(core, at + 8, kHeaders);
    Put<uint64_t>(core, at + 16, i == 0 ? 0 : 0x400000);
    Put<uint64_t>(core, at + 32, size);
    Put<uint64_t>(core, at + 40, i == 0 ? size : size + 0x1000);
  }
  core.insert(core.end(), data, data + size);
  return core;
}

void Exercise(std::vector<uint8_t> file) {
  using namespace qv::server;
  LoadedCore loaded;
  loaded.bytes = CoreBytesInMemory(std::move(file));
  loaded.files = std::make_unique<MappedFiles>(false);
  if (!ParseElfCore(*loaded.bytes, loaded.core).ok()) return;
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
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Exercise(std::vector<uint8_t>(data, data + size));
  Exercise(AsNotes(data, size));
  return 0;
}
