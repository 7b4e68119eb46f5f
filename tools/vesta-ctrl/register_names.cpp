#include "register_names.h"

#include <charconv>

#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {
namespace {

struct Named {
  std::string_view name;
  eRegisters id;
};

// The general registers in the order of their ids, then the FP environment and fsbase.
constexpr Named kNamed[] = {
    {"rax", REG_ID_RAX},
    {"rcx", REG_ID_RCX},
    {"rdx", REG_ID_RDX},
    {"rbx", REG_ID_RBX},
    {"rsp", REG_ID_RSP},
    {"rbp", REG_ID_RBP},
    {"rsi", REG_ID_RSI},
    {"rdi", REG_ID_RDI},
    {"r8", REG_ID_R8},
    {"r9", REG_ID_R9},
    {"r10", REG_ID_R10},
    {"r11", REG_ID_R11},
    {"r12", REG_ID_R12},
    {"r13", REG_ID_R13},
    {"r14", REG_ID_R14},
    {"r15", REG_ID_R15},
    {"rip", REG_ID_RIP},
    {"rflags", REG_ID_RFLAGS},
    {"trapno", REG_ID_TRAPNO},
    {"err", REG_ID_ERR},
    {"fcw", REG_ID_EN_CW},
    {"fsw", REG_ID_EN_SW},
    {"ftw", REG_ID_EN_TW},
    {"fzero", REG_ID_EN_ZERO},
    {"fop", REG_ID_EN_OPCODE},
    {"fip", REG_ID_EN_RIP},
    {"fdp", REG_ID_EN_RDP},
    {"mxcsr", REG_ID_EN_MXCSR},
    {"mxcsr_mask", REG_ID_EN_MXCSR_MASK},
    {"fsbase", REG_ID_FSBASE},
};
// How many of kNamed's first rows `regs` shows by default: rax ... r15, rip and rflags.
constexpr size_t kGeneralCount = 18;

// Groups named by a prefix and an index from 0.
struct Counted {
  std::string_view prefix;
  eRegisters first;
  std::uint32_t count;
  unsigned width_bits;
};
constexpr Counted kCounted[] = {
    {"st", REG_ID_FP_ACC0, 8, 80},
    {"ymm", REG_ID_YMM0, 16, 256},
    {"dr", REG_ID_DR0, 16, 64},
};

}  // namespace

std::optional<Register> RegisterByName(std::string_view name) {
  for (const Named& named : kNamed) {
    if (named.name == name)
      return Register{std::string(name), static_cast<std::uint32_t>(named.id)};
  }
  for (const Counted& counted : kCounted) {
    if (!name.starts_with(counted.prefix)) continue;
    const std::string_view digits = name.substr(counted.prefix.size());
    // "ymm01" is not a name: one way to write each index.
    if (digits.empty() || (digits.size() > 1 && digits[0] == '0')) return std::nullopt;
    std::uint32_t index = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
    if (error != std::errc() || end != digits.data() + digits.size() || index >= counted.count)
      return std::nullopt;
    return Register{std::string(name), static_cast<std::uint32_t>(counted.first) + index,
                    counted.width_bits};
  }
  return std::nullopt;
}

std::vector<Register> GeneralRegisters() {
  std::vector<Register> registers;
  for (size_t i = 0; i < kGeneralCount; ++i)
    registers.push_back({std::string(kNamed[i].name), static_cast<std::uint32_t>(kNamed[i].id)});
  return registers;
}

}  // namespace vesta_ctrl
