#include "server/debug/register_names.h"

#include <array>

namespace qv::server {
namespace {

constexpr uint32_t kGeneral = 0x10000;
constexpr uint32_t kFpEnvironment = 0x20000;
constexpr uint32_t kFpAccumulator = 0x30000;
constexpr uint32_t kYmm = 0x40000;
constexpr uint32_t kDebug = 0x50000;
constexpr uint32_t kFsBase = 0x60000;

// Named one by one where a group's indices are not a plain count: the general registers in the
// order the ids give them (0x10010 and 0x10011 are unassigned), and the FP environment.
struct Named {
  std::string_view name;
  uint32_t id;
};
constexpr std::array<Named, 31> kNamed{{
    {"rax", kGeneral + 0},
    {"rcx", kGeneral + 1},
    {"rdx", kGeneral + 2},
    {"rbx", kGeneral + 3},
    {"rsp", kGeneral + 4},
    {"rbp", kGeneral + 5},
    {"rsi", kGeneral + 6},
    {"rdi", kGeneral + 7},
    {"r8", kGeneral + 8},
    {"r9", kGeneral + 9},
    {"r10", kGeneral + 10},
    {"r11", kGeneral + 11},
    {"r12", kGeneral + 12},
    {"r13", kGeneral + 13},
    {"r14", kGeneral + 14},
    {"r15", kGeneral + 15},
    {"rip", kGeneral + 0x12},
    {"trapno", kGeneral + 0x13},
    {"err", kGeneral + 0x14},
    {"rflags", kGeneral + 0x15},
    {"fcw", kFpEnvironment + 0},
    {"fsw", kFpEnvironment + 1},
    {"ftw", kFpEnvironment + 2},
    {"fzero", kFpEnvironment + 3},
    {"fop", kFpEnvironment + 4},
    {"fip", kFpEnvironment + 5},
    {"fdp", kFpEnvironment + 6},
    {"mxcsr", kFpEnvironment + 7},
    {"mxcsr_mask", kFpEnvironment + 8},
    {"fsbase", kFsBase},
    {"fs_base", kFsBase},
}};

// Groups whose registers are a prefix and an index.
struct Counted {
  std::string_view prefix;
  uint32_t group;
  uint32_t count;
};
constexpr std::array<Counted, 3> kCounted{{
    {"st", kFpAccumulator, 8},
    {"ymm", kYmm, 16},
    {"dr", kDebug, 16},
}};

}  // namespace

std::optional<uint32_t> RegisterIdByName(std::string_view name) {
  for (const Named& named : kNamed) {
    if (named.name == name) return named.id;
  }
  for (const Counted& counted : kCounted) {
    if (name.substr(0, counted.prefix.size()) != counted.prefix) continue;
    const std::string_view digits = name.substr(counted.prefix.size());
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

}  // namespace qv::server
