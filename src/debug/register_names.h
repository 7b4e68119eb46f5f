#pragma once
// The names of the x86-64 registers a debugger reads and writes, and their ids (eRegisters: the
// group in the upper 16 bits, the index within it in the lower).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qv::server {

// The register groups: the upper 16 bits of an id.
inline constexpr uint32_t kGeneralRegisters = 0x10000;
inline constexpr uint32_t kFpEnvironmentRegisters = 0x20000;
inline constexpr uint32_t kFpAccumulatorRegisters = 0x30000;
inline constexpr uint32_t kYmmRegisters = 0x40000;
inline constexpr uint32_t kDebugRegisters = 0x50000;
inline constexpr uint32_t kFsBaseRegister = 0x60000;

// The XSAVE area as threads and core files hold it: the legacy region is the FXSAVE image, the
// header's XSTATE_BV (at 512) says which components hold values, and the upper halves of YMM0 to
// YMM15 follow at 576.
inline constexpr size_t kXstateBvOffset = 512;
inline constexpr size_t kYmmUpperOffset = 576;

// "rax", "rip", "ymm3", "dr7", "fsbase", "st0", "mxcsr", ... (lower case), or nullopt.
std::optional<uint32_t> RegisterIdByName(std::string_view name);
// The name of a register id, or empty for an id no register has.
std::string RegisterNameOf(uint32_t id);

}  // namespace qv::server
