#pragma once
// The names of the x86-64 registers a debugger reads and writes, and their ids (eRegisters: the
// group in the upper 16 bits, the index within it in the lower). One table for the server (a
// scenario's thread registers, core files) and vesta-ctrl (`regs`): rax ... r15, rip, trapno,
// err, rflags, the FP environment fcw fsw ftw fzero fop fip fdp mxcsr mxcsr_mask, st0 ... st7,
// ymm0 ... ymm15, dr0 ... dr15 and fsbase (also fs_base).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

// The register groups: the upper 16 bits of an id.
inline constexpr uint32_t kGeneralRegisters = 0x10000;
inline constexpr uint32_t kFpEnvironmentRegisters = 0x20000;
inline constexpr uint32_t kFpAccumulatorRegisters = 0x30000;
inline constexpr uint32_t kYmmRegisters = 0x40000;
inline constexpr uint32_t kDebugRegisters = 0x50000;
inline constexpr uint32_t kFsBaseRegister = 0x60000;

// The id of a register name (lower case, one way to write each index: "ymm3", never "ymm03"), or
// nullopt.
std::optional<uint32_t> RegisterIdByName(std::string_view name);
// The name of a register id, or empty for an id no register has.
std::string RegisterNameOf(uint32_t id);
// The widest value the register takes: 80 bits for st0 ... st7, 256 for ymm0 ... ymm15, else 64.
unsigned RegisterWidthBits(uint32_t id);
// What a debugger shows when asked for no register by name: rax ... r15, rip and rflags.
std::vector<uint32_t> GeneralRegisterIds();
// Every register's name, one spelling each, in the order of their ids.
std::vector<std::string> AllRegisterNames();

}  // namespace qv
