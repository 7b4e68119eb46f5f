#include "server/debug/virtual/virtual_process.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "debug/register_names.h"
#include "platform/wide_string.h"
#include "requests/notifications.h"
#include "server/debug/debug_backend.h"
#include "server/debug/record_codes.h"
#include "server/debug/reporting.h"
#include "server/debug/stop_reasons.h"

namespace qv::server {
namespace {

constexpr uint32_t kDr0 = 0x50000;
constexpr uint32_t kDr7 = 0x50007;

constexpr uint64_t kMaxAllocatedBytes = 256ull << 20;

Status NoThread(uint32_t tid, uint32_t pid) {
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_TID,
                      u"process " + Decimal(pid) + u" has no thread " + Decimal(tid));
}

}  // namespace

VirtualProcess::VirtualProcess(uint32_t pid, uint32_t first_tid, const ProgramImage& image,
                               bool stopped)
    : pid_(pid), image_{image.path, image.name, image.entry}, objects_(image, pid, first_tid) {
  for (const ImageRegion& region : image.regions) {
    regions_[region.base] = {RegionBytes(region.bytes),
                             region.name.empty() ? image.path : region.name, region.protection,
                             PageKind::kImage};
    image_top_ = std::max(image_top_, region.base + (region.bytes.size() - 1));
  }
  uint32_t tid = first_tid;
  for (const ImageThread& thread : image.threads) {
    Thread& made = threads_[tid++] =
        Thread{thread.name, stopped,          0,     thread.registers, thread.path, 0,
               thread.loop, thread.exit_code, false, thread.wait,      thread.asan};
    // A thread whose path starts where it stands is there already: its first step moves it on.
    const auto rip = made.registers.find(*RegisterIdByName("rip"));
    if (!made.path.empty() && !made.path.front().fault && rip != made.registers.end() &&
        rip->second[0] == made.path.front().address) {
      made.next = 1;
    }
  }
}

VirtualProcess::Thread* VirtualProcess::FindThread(uint32_t tid) {
  const auto it = threads_.find(tid);
  return it != threads_.end() ? &it->second : nullptr;
}

const VirtualProcess::Thread* VirtualProcess::FindThread(uint32_t tid) const {
  const auto it = threads_.find(tid);
  return it != threads_.end() ? &it->second : nullptr;
}

VirtualProcess::RegionBytes::RegionBytes(Bytes bytes)
    : bytes_(std::make_shared<Bytes>(std::move(bytes))) {}

uint8_t* VirtualProcess::RegionBytes::MutableData() {
  if (bytes_ == nullptr) return nullptr;
    // Nobody gains a share without the process's lock, so a count of one stays one; the fence
    // orders this write after the last reads of the answers that let go. ThreadSanitizer takes no
    // fences, so a sanitized build copies before every write instead.
#if defined(__SANITIZE_THREAD__)
  bytes_ = std::make_shared<Bytes>(*bytes_);
#else
  if (bytes_.use_count() > 1) {
    bytes_ = std::make_shared<Bytes>(*bytes_);
  } else {
    std::atomic_thread_fence(std::memory_order_acquire);
  }
#endif
  return bytes_->data();
}

uint8_t* VirtualProcess::Byte(uint64_t address) {
  auto it = regions_.upper_bound(address);
  if (it == regions_.begin()) return nullptr;
  --it;
  const uint64_t offset = address - it->first;
  return offset < it->second.bytes.size() ? it->second.bytes.MutableData() + offset : nullptr;
}

std::map<uint64_t, VirtualProcess::Region>::const_iterator VirtualProcess::Holding(
    uint64_t address, uint32_t size) const {
  auto it = regions_.upper_bound(address);
  if (it == regions_.begin()) return regions_.end();
  --it;
  const uint64_t offset = address - it->first;
  const uint64_t length = it->second.bytes.size();
  return offset < length && size <= length - offset ? it : regions_.end();
}

ThreadInfoRecord VirtualProcess::ThreadRecord(uint32_t tid, const Thread& thread) const {
  ThreadInfoRecord record;
  record.Tid = tid;
  record.Name = thread.name;
  record.State = thread.suspended ? kThreadInhibited : kThreadRunning;
  record.WaitState = thread.suspended ? kWaitSuspended : 0;
  record.Reason.Code = thread.stop_code;
  const auto rip = thread.registers.find(*RegisterIdByName("rip"));
  record.Rip = rip != thread.registers.end() ? rip->second[0] : 0;
  const auto rsp = thread.registers.find(*RegisterIdByName("rsp"));
  if (rsp != thread.registers.end()) record.StackAddr = rsp->second[0];
  if (thread.wait) record.WaitObject = objects_.SyncObject(*thread.wait);
  return record;
}

ProcessInfoRecord VirtualProcess::Info() const {
  std::lock_guard lock(mutex_);
  return InfoLocked();
}

ProcessInfoRecord VirtualProcess::InfoLocked() const {
  ProcessInfoRecord record;
  record.ProcessID = pid_;
  record.Name = image_.name;
  record.Entry = image_.entry;
  record.ProcessPathname = image_.path;
  record.MainThrId = threads_.empty() ? 0 : threads_.begin()->first;
  const bool all_suspended = std::all_of(threads_.begin(), threads_.end(),
                                         [](const auto& entry) { return entry.second.suspended; });
  if (all_suspended && !threads_.empty()) record.Reason.Code = threads_.begin()->second.stop_code;
  return record;
}

ThreadInfoList VirtualProcess::Threads() const {
  std::lock_guard lock(mutex_);
  ThreadInfoList records;
  for (const auto& [tid, thread] : threads_)
    records.push_back(ThreadRecord(tid, thread));
  return records;
}

U32List VirtualProcess::ThreadIds() const {
  std::lock_guard lock(mutex_);
  U32List ids;
  for (const auto& entry : threads_)
    ids.push_back(entry.first);
  return ids;
}

MemoryRangeList VirtualProcess::Ranges() const {
  std::lock_guard lock(mutex_);
  MemoryRangeList ranges;
  for (const auto& [base, region] : regions_) {
    MemoryRangeRecord range;
    range.BaseAddress = base;
    range.Size = region.bytes.size();
    ranges.push_back(range);
  }
  return ranges;
}

VirtualMemoryList VirtualProcess::VirtualMemory() const {
  std::lock_guard lock(mutex_);
  VirtualMemoryList list;
  for (const auto& [base, region] : regions_) {
    VirtualMemoryRecord record;
    record.Name = region.name;
    record.StartAddr = base;
    record.EndAddr = base + region.bytes.size();  // 0 for a region that ends at the top
    record.Protection = region.protection;
    record.ResidentSize = region.bytes.size();
    list.push_back(std::move(record));
  }
  return list;
}

std::optional<uint64_t> VirtualProcess::FreeSpace(uint64_t low, uint64_t high,
                                                  uint64_t size) const {
  const auto page_up = [](uint64_t value) -> std::optional<uint64_t> {
    if (value > UINT64_MAX - (kPageSize - 1)) return std::nullopt;
    return (value + kPageSize - 1) & ~(kPageSize - 1);
  };
  std::optional<uint64_t> candidate = page_up(low);
  for (const auto& [base, region] : regions_) {
    if (!candidate) return std::nullopt;
    const uint64_t last = base + (region.bytes.size() - 1);
    if (last < *candidate) continue;
    if (base >= *candidate && base - *candidate >= size) break;  // fits below this region
    candidate = last == UINT64_MAX ? std::nullopt : page_up(last + 1);
  }
  if (!candidate || *candidate > high || high - *candidate < size) return std::nullopt;
  return candidate;
}

Status VirtualProcess::Allocate(PageKind kind, uint32_t size, const std::u16string& name,
                                uint64_t start, uint64_t end, uint64_t& address) {
  if (size == 0) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG, u"a page allocation needs a size above 0");
  }
  if (start != 0 && end != 0 && start >= end) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG,
                        u"the start address " + Hex(start) + u" is not below the end " + Hex(end));
  }
  const uint64_t bytes = (uint64_t{size} + kPageSize - 1) & ~(kPageSize - 1);
  std::lock_guard lock(mutex_);
  if (bytes > kMaxAllocatedBytes - allocated_) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_VIRTUAL_MEM,
                        u"process " + Decimal(pid_) + u" has " + Decimal(allocated_) +
                            u" bytes of pages; " + Decimal(bytes) +
                            u" more would pass its limit of " + Decimal(kMaxAllocatedBytes));
  }
  const uint64_t low = start != 0 ? start : image_top_ + (image_top_ < UINT64_MAX ? 1 : 0);
  const uint64_t high = end != 0 ? end : UINT64_MAX;
  const std::optional<uint64_t> base = FreeSpace(low, high, bytes);
  if (!base) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_VIRTUAL_MEM,
                        u"process " + Decimal(pid_) + u" has no free " + Decimal(bytes) +
                            u" bytes between " + Hex(low) + u" and " + Hex(high));
  }
  const bool executable = kind == PageKind::kExecutable;
  Region region;
  region.bytes = RegionBytes(Bytes(bytes, 0));
  region.name = !name.empty() ? name : executable ? u"executable page" : u"data page";
  // Executable pages are writable too: a debugger puts code into them.
  region.protection = kProtectRead | kProtectWrite;
  if (executable) region.protection |= kProtectExecute;
  region.kind = kind;
  regions_[*base] = std::move(region);
  allocated_ += bytes;
  address = *base;
  return Status::Ok();
}

Status VirtualProcess::Deallocate(PageKind kind, uint64_t address) {
  std::lock_guard lock(mutex_);
  const auto it = regions_.find(address);
  if (it == regions_.end() || it->second.kind != kind || kind == PageKind::kImage) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ADDRESS,
                        Hex(address) + u" is not " +
                            (kind == PageKind::kExecutable ? u"an executable" : u"a data") +
                            u" page that process " + Decimal(pid_) + u" allocated");
  }
  const uint64_t size = it->second.bytes.size();
  std::erase_if(software_,
                [&](const auto& entry) { return entry.second.record.Address - address < size; });
  allocated_ -= size;
  regions_.erase(it);
  return Status::Ok();
}

Status VirtualProcess::CallstackSignature(uint64_t& hash) const {
  std::lock_guard lock(mutex_);
  hash = 0xcbf29ce484222325;  // FNV-1a, 64 bits
  bool any = false;
  for (const auto& [tid, thread] : threads_) {
    if (!thread.suspended) continue;
    any = true;
    const auto rip = thread.registers.find(*RegisterIdByName("rip"));
    const uint64_t value = rip != thread.registers.end() ? rip->second[0] : 0;
    for (int byte = 0; byte < 8; ++byte) {
      hash ^= (value >> (byte * 8)) & 0xFF;
      hash *= 0x100000001b3;
    }
  }
  if (any) return Status::Ok();
  return Status::Fail(
      KXAPI_COMMS_ERR_NOT_STOPPED,
      u"process " + Decimal(pid_) + u" is running; suspend it to take its call-stack signature");
}

Status VirtualProcess::SanitizerReportOf(uint32_t tid, SanitizerReport& report) const {
  std::lock_guard lock(mutex_);
  const Thread* thread = FindThread(tid);
  if (thread == nullptr) return NoThread(tid, pid_);
  if (!thread->suspended) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_STOPPED,
                        u"thread " + Decimal(tid) + u" is running; suspend it first");
  }
  if (!thread->asan) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_ENTRY, u"thread " + Decimal(tid) + u" of process " +
                                                      Decimal(pid_) + u" has no sanitizer report");
  }
  report = *thread->asan;
  return Status::Ok();
}

Status VirtualProcess::SetNetworkEmulation(uint32_t port, const U32List& params) {
  constexpr uint32_t kEveryPort = 0xFFFFFFFF;
  if (!params.empty() && params.size() != 4) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG,
                        u"network emulation takes four values (latency, upload, download, "
                        u"loss), not " +
                            Decimal(params.size()));
  }
  if (port != kEveryPort) return Status::Ok();
  std::lock_guard lock(mutex_);
  network_ = params.empty() ? U32List{0, 0, 0, 0} : params;
  return Status::Ok();
}

U32List VirtualProcess::NetworkEmulation() const {
  std::lock_guard lock(mutex_);
  return network_;
}

CoreDump VirtualProcess::Snapshot(uint32_t type) const {
  std::lock_guard lock(mutex_);
  CoreDump dump;
  dump.header.DumpType = type;
  dump.header.Process = InfoLocked();
  for (const auto& [tid, thread] : threads_) {
    CoreDumpThread& saved = dump.header.Threads.emplace_back();
    saved.Info = ThreadRecord(tid, thread);
    for (const auto& [id, words] : thread.registers)
      saved.Registers.push_back({id, U64List(words.begin(), words.end())});
  }
  dump.header.Modules = objects_.Modules();
  if (type != kCoreDumpFull) {
    for (const auto& [base, region] : regions_)
      dump.header.Regions.push_back({region.name, base, region.bytes.size(), region.protection, 0});
    return dump;
  }
  for (const auto& [base, region] : regions_) {
    dump.header.Regions.push_back({region.name, base, region.bytes.size(), region.protection, 1});
    Bytes& contents =
        dump.contents.emplace_back(region.bytes.data(), region.bytes.data() + region.bytes.size());
    // The program's own bytes, without the debugger's int3s.
    for (const auto& [id, breakpoint] : software_) {
      if (breakpoint.record.Address - base < contents.size()) {
        contents[breakpoint.record.Address - base] = breakpoint.original;
      }
    }
  }
  return dump;
}

Status VirtualProcess::WriteCore(const std::string& path, bool full,
                                 const std::function<void(uint32_t percent)>& progress) {
  if (!BeginDump()) {
    return Status::Fail(KXAPI_COMMS_ERR_COREDUMP_IN_PROGRESS,
                        u"a core dump of process " + Decimal(pid_) + u" is in progress already");
  }
  const Status status =
      WriteCoreDump(path, Snapshot(full ? kCoreDumpFull : kCoreDumpMini), cancel_dump_, progress);
  EndDump();
  return status;
}

bool VirtualProcess::BeginDump() {
  if (dumping_.exchange(true)) return false;
  cancel_dump_ = false;
  return true;
}

void VirtualProcess::EndDump() {
  dumping_ = false;
}

Status VirtualProcess::CancelDump() {
  if (!dumping_) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_ENTRY,
                        u"no core dump of process " + Decimal(pid_) + u" is in progress");
  }
  cancel_dump_ = true;
  return Status::Ok();
}

void VirtualProcess::Read(uint64_t address, uint32_t size, Bytes& data, uint32_t& bad) const {
  std::lock_guard lock(mutex_);
  // Addresses past the top of memory are unmapped.
  const uint64_t end = size <= UINT64_MAX - address ? address + size : UINT64_MAX;
  // A read inside one region, the common case, is one copy.
  if (const auto holding = Holding(address, size); holding != regions_.end()) {
    const uint8_t* first = holding->second.bytes.data() + (address - holding->first);
    data.assign(first, first + size);
    bad = 0;
    return;
  }
  auto it = regions_.upper_bound(address);
  if (it != regions_.begin()) --it;
  data.assign(size, 0);
  uint64_t covered = 0;
  for (; it != regions_.end() && it->first < end; ++it) {
    const uint64_t from = std::max(address, it->first);
    const uint64_t to = std::min<uint64_t>(end, it->first + it->second.bytes.size());
    if (from >= to) continue;
    std::memcpy(data.data() + (from - address), it->second.bytes.data() + (from - it->first),
                to - from);
    covered += to - from;
  }
  bad = static_cast<uint32_t>(size - covered);
}

void VirtualProcess::Read(uint64_t address, uint32_t size, BulkBytes& data, uint32_t& bad) const {
  {
    std::lock_guard lock(mutex_);
    if (const auto holding = Holding(address, size); holding != regions_.end()) {
      std::shared_ptr<const Bytes> bytes = holding->second.bytes.Share();
      const uint8_t* first = bytes->data() + (address - holding->first);
      data = BulkBytes({first, size}, std::move(bytes));
      bad = 0;
      return;
    }
  }
  Bytes copy;
  Read(address, size, copy, bad);
  data = BulkBytes(std::move(copy));
}

Status VirtualProcess::Write(uint64_t address, const Bytes& data) {
  std::lock_guard lock(mutex_);
  for (size_t i = 0; i < data.size(); ++i) {
    if (address + i < address || Byte(address + i) == nullptr) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_ADDRESS,
                          Hex(address + i) + u" is not mapped in process " + Decimal(pid_));
    }
  }
  for (size_t i = 0; i < data.size(); ++i) {
    bool under_breakpoint = false;
    for (auto& [id, breakpoint] : software_) {
      if (breakpoint.record.Address == address + i) {
        breakpoint.original = data[i];
        under_breakpoint = true;
      }
    }
    if (!under_breakpoint) *Byte(address + i) = data[i];
  }
  return Status::Ok();
}

Status VirtualProcess::GetRegisters(uint32_t tid, const U32List& ids, U64List& values) const {
  std::lock_guard lock(mutex_);
  const Thread* thread = FindThread(tid);
  if (thread == nullptr) return NoThread(tid, pid_);
  values.clear();
  for (uint32_t id : ids) {
    if (RegisterNameOf(id).empty()) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_REG_INDEX, u"no register has the id " + Hex(id));
    }
    const auto it = thread->registers.find(id);
    const std::array<uint64_t, 4> words =
        it != thread->registers.end() ? it->second : std::array<uint64_t, 4>{};
    values.insert(values.end(), words.begin(), words.end());
  }
  return Status::Ok();
}

Status VirtualProcess::SetRegisters(uint32_t tid, const U32List& ids, const U64List& values) {
  std::lock_guard lock(mutex_);
  Thread* thread = FindThread(tid);
  if (thread == nullptr) return NoThread(tid, pid_);
  if (values.size() != ids.size() * 4) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PARAMETER_VALUE,
                        u"four 64-bit words are needed for each register, lowest first");
  }
  for (uint32_t id : ids) {
    if (RegisterNameOf(id).empty()) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_REG_INDEX, u"no register has the id " + Hex(id));
    }
  }
  for (size_t i = 0; i < ids.size(); ++i)
    std::copy_n(values.begin() + static_cast<ptrdiff_t>(i * 4), 4,
                thread->registers[ids[i]].begin());
  return Status::Ok();
}

Status VirtualProcess::SetSoftwareBreakpoint(const CSetSoftwareBreakPointRequest& request,
                                             Bytes& original, uint32_t& id) {
  std::lock_guard lock(mutex_);
  if (request.ThreadID != 0 && FindThread(request.ThreadID) == nullptr) {
    return NoThread(request.ThreadID, pid_);
  }
  uint8_t* byte = Byte(request.Address);
  if (byte == nullptr) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ADDRESS,
                        Hex(request.Address) + u" is not mapped in process " + Decimal(pid_));
  }
  for (const auto& [other_id, other] : software_) {
    if (other.record.Address == request.Address) {
      return Status::Fail(
          KXAPI_COMMS_ERR_DUPLICATE_ENTRY,
          u"breakpoint " + Decimal(other_id) + u" is already at " + Hex(request.Address));
    }
  }
  SoftwareBreakpoint breakpoint;
  breakpoint.record.ThreadID = request.ThreadID;
  breakpoint.record.Address = request.Address;
  breakpoint.record.Attribute = request.Attributes;
  breakpoint.record.HitCount = request.HitCount;
  breakpoint.record.DIFByteCode = request.DIFByteCode;
  breakpoint.record.BreakPtId = id = next_breakpoint_id_++;
  breakpoint.original = *byte;
  original.assign(1, *byte);
  *byte = 0xCC;  // int3, as the target's code would now read
  software_[id] = std::move(breakpoint);
  return Status::Ok();
}

Status VirtualProcess::ClearSoftwareBreakpoint(uint32_t id) {
  std::lock_guard lock(mutex_);
  const auto it = software_.find(id);
  if (it == software_.end()) {
    return Status::Fail(
        KXAPI_COMMS_ERR_INVALID_SWBRKPT_ID,
        u"process " + Decimal(pid_) + u" has no software breakpoint " + Decimal(id));
  }
  *Byte(it->second.record.Address) = it->second.original;
  software_.erase(it);
  return Status::Ok();
}

SoftwareBreakpointList VirtualProcess::SoftwareBreakpoints() const {
  std::lock_guard lock(mutex_);
  SoftwareBreakpointList list;
  for (const auto& entry : software_)
    list.push_back(entry.second.record);
  return list;
}

void VirtualProcess::ProgramDebugRegisters() {
  // DR7: a local enable bit per slot, then per slot two bits of kind (execute 00, write 01,
  // read/write 11) and two of length (1: 00, 2: 01, 8: 10, 4: 11) from bit 16 on.
  uint64_t dr7 = 0;
  std::array<uint64_t, kHardwareSlots> addresses{};
  size_t slot = 0;
  for (const auto& [id, record] : hardware_) {
    addresses[slot] = record.Address;
    const uint64_t kind = (record.Flags & 2) != 0 ? 3 : (record.Flags & 1) != 0 ? 1 : 0;
    const uint64_t length = record.RegionSize == 2   ? 1
                            : record.RegionSize == 8 ? 2
                            : record.RegionSize == 4 ? 3
                                                     : 0;
    dr7 |= (1ull << (slot * 2)) | (kind << (16 + slot * 4)) | (length << (18 + slot * 4));
    ++slot;
  }
  for (auto& [tid, thread] : threads_) {
    for (size_t i = 0; i < kHardwareSlots; ++i)
      thread.registers[kDr0 + static_cast<uint32_t>(i)] = {addresses[i], 0, 0, 0};
    thread.registers[kDr7] = {dr7, 0, 0, 0};
  }
}

Status VirtualProcess::SetHardwareBreakpoint(uint64_t address, uint32_t flags, uint32_t size,
                                             uint32_t& id) {
  std::lock_guard lock(mutex_);
  if (size != 1 && size != 2 && size != 4 && size != 8) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PARAMETER_VALUE,
                        u"a hardware breakpoint covers 1, 2, 4 or 8 bytes, not " + Decimal(size));
  }
  if (hardware_.size() == kHardwareSlots) {
    return Status::Fail(
        KXAPI_COMMS_ERR_RESOURCE_SHORTAGE,
        u"all four hardware breakpoints of process " + Decimal(pid_) + u" are in use");
  }
  HardwareBreakpointRecord record;
  record.Address = address;
  record.Flags = flags;
  record.RegionSize = size;
  record.BreakPtId = id = next_breakpoint_id_++;
  hardware_[id] = record;
  ProgramDebugRegisters();
  return Status::Ok();
}

Status VirtualProcess::ClearHardwareBreakpoint(uint32_t id) {
  std::lock_guard lock(mutex_);
  if (hardware_.erase(id) == 0) {
    return Status::Fail(
        KXAPI_COMMS_ERR_INVALID_HWBRKPT_ID,
        u"process " + Decimal(pid_) + u" has no hardware breakpoint " + Decimal(id));
  }
  ProgramDebugRegisters();
  return Status::Ok();
}

HardwareBreakpointList VirtualProcess::HardwareBreakpoints() const {
  std::lock_guard lock(mutex_);
  HardwareBreakpointList list;
  for (const auto& entry : hardware_)
    list.push_back(entry.second);
  return list;
}

void VirtualProcess::Suspend() {
  std::lock_guard lock(mutex_);
  for (auto& [tid, thread] : threads_) {
    if (!thread.suspended) thread.stop_code = kStopSuspendProcess;
    thread.suspended = true;
  }
}

void VirtualProcess::Resume(const U32List& to_step, U32List& failed) {
  std::lock_guard lock(mutex_);
  failed.clear();
  if (to_step.empty()) {
    for (auto& [tid, thread] : threads_) {
      thread.suspended = false;
      thread.stop_code = 0;
    }
    return;
  }
  for (uint32_t tid : to_step) {
    Thread* thread = FindThread(tid);
    if (thread == nullptr || thread->path.empty()) {
      failed.push_back(tid);
      continue;
    }
    thread->suspended = false;
    thread->stop_code = 0;
    thread->stepping = true;
  }
}

void VirtualProcess::Kill() {
  std::lock_guard lock(mutex_);
  ended_ = true;
}

VirtualProcess::Outcome VirtualProcess::Step(uint32_t tid, Thread& thread, uint32_t& reason) {
  if (thread.next >= thread.path.size()) {
    if (!thread.loop) return Outcome::kExits;
    thread.next = 0;
  }
  const PathStep& step = thread.path[thread.next++];
  if (step.fault) {
    reason = *step.fault;
    return Outcome::kStops;
  }
  thread.registers[*RegisterIdByName("rip")] = {step.address, 0, 0, 0};
  for (const auto& [id, breakpoint] : software_) {
    if (breakpoint.record.Address == step.address &&
        (breakpoint.record.ThreadID == 0 || breakpoint.record.ThreadID == tid)) {
      reason = kStopSoftwareBreakpoint;
      return Outcome::kStops;
    }
  }
  for (const auto& [id, record] : hardware_) {
    // Only execute breakpoints: virtual threads read and write no memory as they run.
    if (record.Flags == 0 && record.Address == step.address) {
      reason = kStopHardwareBreakpoint;
      return Outcome::kStops;
    }
  }
  if (thread.stepping) {
    reason = kStopTrap;
    return Outcome::kStops;
  }
  return Outcome::kRuns;
}

void VirtualProcess::StopAll(uint32_t tid, uint32_t reason, DebugEvents& events) {
  for (auto& [other_tid, thread] : threads_) {
    thread.suspended = true;
    thread.stepping = false;
    thread.stop_code = reason;
  }
  CStopNotificationNotification stop;
  stop.TargetKey = events.Target();
  stop.ThreadId = tid;
  stop.Process = InfoLocked();  // every thread stopped: the reason is the process's
  for (const auto& [other_tid, thread] : threads_)
    stop.Threads.push_back(ThreadRecord(other_tid, thread));
  stop.Timestamp = SteadyNanoseconds();
  events.Post(stop);
}

void VirtualProcess::Stop(uint32_t reason, DebugEvents& events) {
  std::lock_guard lock(mutex_);
  if (!ended_ && !threads_.empty()) StopAll(threads_.begin()->first, reason, events);
}

bool VirtualProcess::Advance(DebugEvents& events) {
  std::lock_guard lock(mutex_);
  if (ended_) return false;
  uint32_t exit_code = 0;
  for (auto it = threads_.begin(); it != threads_.end();) {
    auto& [tid, thread] = *it;
    if (thread.suspended || thread.path.empty()) {
      ++it;
      continue;
    }
    uint32_t reason = 0;
    const Outcome outcome = Step(tid, thread, reason);
    if (outcome == Outcome::kStops) {
      StopAll(tid, reason, events);
      return true;
    }
    if (outcome == Outcome::kRuns) {
      ++it;
      continue;
    }
    CThreadExitNotification exited;
    exited.TargetKey = events.Target();
    exited.ProcessId = pid_;
    exited.ThreadId = tid;
    exited.ExitCode = thread.exit_code;
    exited.Timestamp = SteadyNanoseconds();
    exited.Name = platform::Utf8ToUtf16(thread.name);
    events.Post(exited);
    exit_code = thread.exit_code;
    it = threads_.erase(it);
  }
  if (!threads_.empty()) return true;
  ended_ = true;
  CProcessExitNotification exited;
  exited.TargetKey = events.Target();
  exited.ProcessId = pid_;
  exited.ExitCode = exit_code;
  exited.Timestamp = SteadyNanoseconds();
  events.Post(exited);
  return false;
}

Status VirtualProcess::SuspendThread(uint32_t tid, uint32_t& state) {
  std::lock_guard lock(mutex_);
  Thread* thread = FindThread(tid);
  if (thread == nullptr) return NoThread(tid, pid_);
  if (!thread->suspended) thread->stop_code = kStopSuspendThread;
  thread->suspended = true;
  state = kThreadInhibited;
  return Status::Ok();
}

Status VirtualProcess::ResumeThread(uint32_t tid) {
  std::lock_guard lock(mutex_);
  Thread* thread = FindThread(tid);
  if (thread == nullptr) return NoThread(tid, pid_);
  thread->suspended = false;
  thread->stop_code = 0;
  return Status::Ok();
}

}  // namespace qv::server
