#include "debug/register_names.h"

#include <array>

namespace qv {
namespace {

// Named one by one where a group's indices are not a plain count: the general registers in the
// order the ids give them (0x10010 and 0x10011 are unassigned), and the FP environment.
struct Named {
  std::string_view name;
  uint32_t id;
};
constexpr std::array<Named, 31> kNamed{{
    {"rax", kGeneralRegisters + 0},
    {"rcx", kGeneralRegisters + 1},
    {"rdx", kGeneralRegisters + 2},
    {"rbx", kGeneralRegisters + 3},
    {"rsp", kGeneralRegisters + 4},
    {"rbp", kGeneralRegisters + 5},
    {"rsi", kGeneralRegisters + 6},
    {"rdi", kGeneralRegisters + 7},
    {"r8", kGeneralRegisters + 8},
    {"r9", kGeneralRegisters + 9},
    {"r10", kGeneralRegisters + 10},
    {"r11", kGeneralRegisters + 11},
    {"r12", kGeneralRegisters + 12},
    {"r13", kGeneralRegisters + 13},
    {"r14", kGeneralRegisters + 14},
    {"r15", kGeneralRegisters + 15},
    {"rip", kGeneralRegisters + 0x12},
    {"trapno", kGeneralRegisters + 0x13},
    {"err", kGeneralRegisters + 0x14},
    {"rflags", kGeneralRegisters + 0x15},
    {"fcw", kFpEnvironmentRegisters + 0},
    {"fsw", kFpEnvironmentRegisters + 1},
    {"ftw", kFpEnvironmentRegisters + 2},
    {"fzero", kFpEnvironmentRegisters + 3},
    {"fop", kFpEnvironmentRegisters + 4},
    {"fip", kFpEnvironmentRegisters + 5},
    {"fdp", kFpEnvironmentRegisters + 6},
    {"mxcsr", kFpEnvironmentRegisters + 7},
    {"mxcsr_mask", kFpEnvironmentRegisters + 8},
    {"fsbase", kFsBaseRegister},
    {"fs_base", kFsBaseRegister},
}};

// Groups whose registers are a prefix and an index.
struct Counted {
  std::string_view prefix;
  uint32_t group;
  uint32_t count;
};
constexpr std::array<Counted, 3> kCounted{{
    {"st", kFpAccumulatorRegisters, 8},
    {"ymm", kYmmRegisters, 16},
    {"dr", kDebugRegisters, 16},
}};

}  // namespace

std::optional<uint32_t> RegisterIdByName(std::string_view name) {
  for (const Named& named : kNamed) {
    if (named.name == name) return named.id;
  }
  for (const Counted& counted : kCounted) {
    if (name.substr(0, counted.prefix.size()) != counted.prefix) continue;
    const std::string_view digits = name.substr(counted.prefix.size());
    // "ymm01" is not a name: one way to write each index.
    if (digits.empty() || digits.size() > 2 || (digits.size() == 2 && digits[0] == '0')) break;
    uint32_t index = 0;
    for (char c : digits) {
      if (c < '0' || c > '9') return std::nullopt;
      index = index * 10 + static_cast<uint32_t>(c - '0');
    }
    if (index < counted.count) return counted.group + index;
    break;
  }
  return std::nullopt;
}

std::string RegisterNameOf(uint32_t id) {
  for (const Named& named : kNamed) {
    if (named.id == id) return std::string(named.name);
  }
  for (const Counted& counted : kCounted) {
    if (id >= counted.group && id < counted.group + counted.count) {
      return std::string(counted.prefix) + std::to_string(id - counted.group);
    }
  }
  return {};
}

unsigned RegisterWidthBits(uint32_t id) {
  const uint32_t group = id & 0xFFFF0000u;
  if (group == kFpAccumulatorRegisters) return 80;
  if (group == kYmmRegisters) return 256;
  return 64;
}

std::vector<std::string> AllRegisterNames() {
  std::vector<std::string> names;
  for (const Named& named : kNamed) {
    if (named.name != "fs_base") names.emplace_back(named.name);
  }
  for (const Counted& counted : kCounted) {
    for (uint32_t index = 0; index < counted.count; ++index)
      names.push_back(std::string(counted.prefix) + std::to_string(index));
  }
  return names;
}

std::vector<uint32_t> GeneralRegisterIds() {
  std::vector<uint32_t> ids;
  for (uint32_t index = 0; index < 16; ++index)
    ids.push_back(kGeneralRegisters + index);
  ids.push_back(kGeneralRegisters + 0x12);  // rip
  ids.push_back(kGeneralRegisters + 0x15);  // rflags
  return ids;
}

}  // namespace qv
