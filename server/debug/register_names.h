#pragma once
// The names of the x86-64 registers a debugger reads and writes, and their ids (eRegisters: the
// group in the upper 16 bits, the index within it in the lower).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qv::server {

// "rax", "rip", "ymm3", "dr7", "fsbase", "st0", "mxcsr", ... (lower case), or nullopt.
std::optional<uint32_t> RegisterIdByName(std::string_view name);
// The name of a register id, or empty for an id no register has.
std::string RegisterNameOf(uint32_t id);

}  // namespace qv::server
