#include "server/debug/core/core_records.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>

#include "debug/register_names.h"
#include "platform/wide_string.h"
#include "server/debug/debug_backend.h"
#include "server/debug/record_codes.h"
#include "server/debug/reporting.h"
#include "server/debug/stop_reasons.h"
#include "server/debug/xsave_layout.h"

namespace qv::server {
namespace {

constexpr uint64_t kAtEntry = 9;

// Where each general register of the id order (rax, rcx, rdx, rbx, rsp, rbp, rsi, rdi, r8..r15)
// is in pr_reg.
constexpr size_t kGeneralSlots[] = {10, 11, 12, 5, 19, 4, 13, 14, 9, 8, 7, 6, 3, 2, 1, 0};
constexpr size_t kEflagsSlot = 18;
constexpr size_t kFsBaseSlot = 21;

// The FXSAVE image of a thread: its NT_FPREGSET, else the start of its XSAVE area.
const uint8_t* Fxsave(const ElfCoreThread& thread) {
  if (thread.fxsave.size() >= 512) return thread.fxsave.data();
  if (thread.xstate.size() >= 512) return thread.xstate.data();
  return nullptr;
}

// The upper halves of the YMM registers, or null where the thread's AVX state is initial (zero).
const uint8_t* YmmUpper(const ElfCoreThread& thread) {
  if (thread.xstate.size() < kYmmUpperOffset + 256) return nullptr;
  return (Le<uint64_t>(thread.xstate.data() + kXstateBvOffset) & 4) != 0
             ? thread.xstate.data() + kYmmUpperOffset
             : nullptr;
}

Status ReadOne(const ElfCoreThread& thread, uint32_t id, uint64_t* words) {
  const uint32_t group = id & 0xFFFF0000;
  const uint32_t index = id & 0xFFFF;
  if (RegisterNameOf(id).empty()) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_REG_INDEX, u"no register has the id " + Hex(id));
  }
  if (group == kGeneralRegisters) {
    if (index < std::size(kGeneralSlots)) words[0] = thread.general[kGeneralSlots[index]];
    if (index == 0x12) words[0] = thread.general[kCoreRip];
    if (index == 0x15) words[0] = thread.general[kEflagsSlot];
    return Status::Ok();  // trapno and err are the kernel's, not the thread's
  }
  if (group == kFsBaseRegister) {
    words[0] = thread.general[kFsBaseSlot];
    return Status::Ok();
  }
  if (group == kDebugRegisters) return Status::Ok();
  const uint8_t* fx = Fxsave(thread);
  if (fx == nullptr) {
    return Status::Fail(KXAPI_ERR_DATA_NOT_IN_COREDUMP,
                        u"the core holds no floating-point state of thread " + Decimal(thread.tid) +
                            u", so no " + platform::Utf8ToUtf16(RegisterNameOf(id)));
  }
  if (group == kFpEnvironmentRegisters) {
    // fcw, fsw, ftw, (fzero), fop, fip, fdp, mxcsr, mxcsr_mask
    static constexpr struct {
      size_t offset, width;
    } kFields[] = {{0, 2}, {2, 2}, {4, 2}, {0, 0}, {6, 2}, {8, 8}, {16, 8}, {24, 4}, {28, 4}};
    const auto& field = kFields[std::min<size_t>(index, std::size(kFields) - 1)];
    std::memcpy(words, fx + field.offset, field.width);
  } else if (group == kFpAccumulatorRegisters) {
    std::memcpy(words, fx + 32 + index * 16, 10);
  } else if (group == kYmmRegisters) {
    std::memcpy(words, fx + 160 + index * 16, 16);
    if (const uint8_t* upper = YmmUpper(thread)) std::memcpy(words + 2, upper + index * 16, 16);
  }
  return Status::Ok();
}

// Where a module's code begins, from the ELF header the process had mapped at `start`: the
// entry point, moved by the load bias when the file is position independent. 0 when unknown.
uint64_t EntryOf(const LoadedCore& loaded, uint64_t start) {
  Bytes header;
  uint32_t bad = 0;
  loaded.Read(start, 64, header, bad);
  if (bad != 0 ||
      std::memcmp(header.data(),
                  "\x7f"
                  "ELF",
                  4) != 0 ||
      header[4] != 2)
    return 0;
  const uint16_t type = Le<uint16_t>(&header[16]);
  const uint64_t entry = Le<uint64_t>(&header[24]);
  const uint64_t phoff = Le<uint64_t>(&header[32]);
  const uint16_t phnum = std::min<uint16_t>(Le<uint16_t>(&header[56]), 64);
  if (type != 3) return entry;  // ET_EXEC: where it was linked
  if (phoff > 0x10000) return 0;
  Bytes headers;
  loaded.Read(start + phoff, phnum * 56u, headers, bad);
  for (uint16_t i = 0; bad == 0 && i < phnum; ++i) {
    if (Le<uint32_t>(&headers[i * 56u]) == 1)  // PT_LOAD
      return entry + start - (Le<uint64_t>(&headers[i * 56u + 16]) & kPageMask);
  }
  return 0;
}

}  // namespace

ProcessInfoRecord CoreProcessRecord(const LoadedCore& loaded) {
  const ElfCore& core = loaded.core;
  ProcessInfoRecord record;
  record.ProcessID = core.pid;
  record.Name = core.name;
  record.ParentPID = core.parent;
  record.MainThrId = core.pid;
  record.Entry = core.Aux(kAtEntry);
  record.Reason.Code = StopReasonOfSignal(core.threads.front().signal);
  for (const ModuleInfoRecord& module : CoreModules(loaded)) {
    if (module.Type == kModuleExecutable) record.ProcessPathname = module.LoadPath;
  }
  return record;
}

ThreadInfoList CoreThreadRecords(const ElfCore& core) {
  ThreadInfoList records;
  for (const ElfCoreThread& thread : core.threads) {
    ThreadInfoRecord& record = records.emplace_back();
    record.Tid = thread.tid;
    if (thread.tid == core.pid) record.Name = core.name;
    record.State = kThreadInhibited;
    record.WaitState = kWaitSuspended;
    record.Rip = thread.general[kCoreRip];
    record.StackAddr = thread.general[kCoreRsp];
    record.Reason.Code = StopReasonOfSignal(thread.signal);
  }
  return records;
}

ModuleInfoList CoreModules(const LoadedCore& loaded) {
  const ElfCore& core = loaded.core;
  const uint64_t entry = core.Aux(kAtEntry);
  std::vector<const ElfCoreMappedFile*> files;
  for (const ElfCoreMappedFile& file : core.files)
    files.push_back(&file);
  std::stable_sort(files.begin(), files.end(),
                   [](const auto* a, const auto* b) { return a->start < b->start; });
  ModuleInfoList modules;
  std::map<std::string, size_t> by_path;
  for (const ElfCoreMappedFile* file : files) {
    auto [it, added] = by_path.emplace(file->path, modules.size());
    if (added) {
      ModuleInfoRecord& module = modules.emplace_back();
      module.ModuleName = platform::Utf8ToUtf16(file->path.substr(file->path.rfind('/') + 1));
      module.LoadPath = platform::Utf8ToUtf16(file->path);
      module.OriginalFile = module.LoadPath;
      module.Type = kModuleSharedLibrary;
      module.ReferenceCount = 1;
    }
    ModuleInfoRecord& module = modules[it->second];
    if (file->offset == 0 && module.StartEntryAddress == 0)
      module.StartEntryAddress = EntryOf(loaded, file->start);
    if (file->start <= entry && entry < file->end) module.Type = kModuleExecutable;
    SegmentInfoRecord segment;
    segment.BaseAddress = file->start;
    segment.Size = file->end - file->start;
    for (const ElfCoreSegment& load : core.segments) {
      if (load.address == file->start) segment.Attributes = load.protection;
    }
    module.SegmentInfoList.push_back(segment);
  }
  return modules;
}

VirtualMemoryList CoreMemoryMap(const ElfCore& core) {
  VirtualMemoryList map;
  auto file_at = [&](uint64_t address) -> const ElfCoreMappedFile* {
    for (const ElfCoreMappedFile& file : core.files) {
      if (file.start <= address && address < file.end) return &file;
    }
    return nullptr;
  };
  for (const ElfCoreSegment& segment : core.segments) {
    VirtualMemoryRecord& record = map.emplace_back();
    record.StartAddr = segment.address;
    record.EndAddr = segment.address + segment.size;
    record.Protection = segment.protection;
    record.ResidentSize = segment.held;
    if (const ElfCoreMappedFile* file = file_at(segment.address)) {
      record.Name = platform::Utf8ToUtf16(file->path);
      record.Offset = file->offset + (segment.address - file->start);
    }
  }
  // Files the core saved no segment of (a mini dump leaves the code out).
  for (const ElfCoreMappedFile& file : core.files) {
    const bool saved =
        std::any_of(core.segments.begin(), core.segments.end(),
                    [&](const ElfCoreSegment& s) { return s.address == file.start; });
    if (saved) continue;
    VirtualMemoryRecord& record = map.emplace_back();
    record.Name = platform::Utf8ToUtf16(file.path);
    record.StartAddr = file.start;
    record.EndAddr = file.end;
    record.Offset = file.offset;
  }
  std::stable_sort(map.begin(), map.end(),
                   [](const auto& a, const auto& b) { return a.StartAddr < b.StartAddr; });
  return map;
}

Status ReadCoreRegisters(const ElfCoreThread& thread, const U32List& ids, U64List& values) {
  values.assign(ids.size() * 4, 0);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (Status status = ReadOne(thread, ids[i], values.data() + i * 4); !status.ok()) {
      values.clear();
      return status;
    }
  }
  return Status::Ok();
}

}  // namespace qv::server
