#include "server/debug/local/hardware_slots.h"

#include "server/debug/reporting.h"

namespace qv::server {
namespace {

constexpr uint32_t kBreakOnWrite = 1;  // HWBREAKPT_FLAG_BREAK_ON_WRITE
constexpr uint32_t kBreakOnRead = 2;   // HWBREAKPT_FLAG_BREAK_ON_READ

uint64_t KindBits(uint32_t flags) {
  if ((flags & kBreakOnRead) != 0) return 3;  // x86 has no read-only watch: read or write
  if ((flags & kBreakOnWrite) != 0) return 1;
  return 0;
}

uint64_t LengthBits(uint32_t size) {
  switch (size) {
    case 2:
      return 1;
    case 8:
      return 2;
    case 4:
      return 3;
    default:
      return 0;
  }
}

}  // namespace

DebugRegisterValues EncodeDebugRegisters(const std::vector<HardwareBreakpointRecord>& slots) {
  DebugRegisterValues values;
  for (size_t slot = 0; slot < slots.size() && slot < kHardwareSlots; ++slot) {
    const HardwareBreakpointRecord& record = slots[slot];
    const uint64_t kind = KindBits(record.Flags);
    const uint64_t length = kind == 0 ? 0 : LengthBits(record.RegionSize);
    values.address[slot] = record.Address;
    values.dr7 |=
        (uint64_t{1} << (slot * 2)) | (kind << (16 + slot * 4)) | (length << (18 + slot * 4));
  }
  return values;
}

Status CheckHardwareBreakpoint(uint64_t address, uint32_t flags, uint32_t size, size_t in_use) {
  if (size != 1 && size != 2 && size != 4 && size != 8) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PARAMETER_VALUE,
                        u"a hardware breakpoint covers 1, 2, 4 or 8 bytes, not " + Decimal(size));
  }
  if (KindBits(flags) != 0 && address % size != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ALIGNMENT, u"a watchpoint of " + Decimal(size) +
                                                               u" bytes needs an address aligned "
                                                               u"to its size, not " +
                                                               Hex(address));
  }
  if (in_use >= kHardwareSlots) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_FREE_HWBRKPT,
                        u"all four hardware breakpoints of the process are in use");
  }
  return Status::Ok();
}

}  // namespace qv::server
