#pragma once
// The x86-64 registers by the names `regs` takes and prints: the server's table
// (src/debug/register_names.h), the names a scenario's thread registers use (docs/scenarios.md).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesta_ctrl {

struct Register {
  std::string name;
  std::uint32_t id = 0;      // eRegisters
  unsigned width_bits = 64;  // the widest value it takes: 64, 80 (st) or 256 (ymm)
};

// The register `name` names (lower case), or nullopt.
std::optional<Register> RegisterByName(std::string_view name);

// What `regs` shows when no name is given: the general registers, rip and rflags.
std::vector<Register> GeneralRegisters();

}  // namespace vesta_ctrl
