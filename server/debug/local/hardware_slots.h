#pragma once
// Hardware breakpoints as the x86-64 debug registers hold them: up to four, each an address in
// DR0..DR3 and, in DR7, an enable bit, a kind (execute 00, write 01, read/write 11) and a length
// (1: 00, 2: 01, 8: 10, 4: 11; an execute breakpoint's length is always 00).

#include <array>
#include <cstdint>
#include <vector>

#include "requests/debug_records.h"
#include "server/core/status.h"
#include "server/debug/debug_backend.h"

namespace qv::server {

struct DebugRegisterValues {
  std::array<uint64_t, kHardwareSlots> address{};
  uint64_t dr7 = 0;
};

// The values for `slots` (at most four), in order: the first in DR0.
DebugRegisterValues EncodeDebugRegisters(const std::vector<HardwareBreakpointRecord>& slots);

// Whether one more breakpoint fits beside `in_use` others: sizes 1, 2, 4 or 8, the address
// aligned to the size for a watchpoint, and a free slot.
Status CheckHardwareBreakpoint(uint64_t address, uint32_t flags, uint32_t size, size_t in_use);

}  // namespace qv::server
