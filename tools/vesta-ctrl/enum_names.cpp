#include "enum_names.h"

#include <bit>
#include <cstdio>

#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {
namespace {

// Codes above 0x7FFFFFFF are negative in the generated header's enumerations: keep their bits.
#define VEKX_IDL_ENUM_MEMBER(Name) EnumMember{static_cast<std::uint32_t>(Name), #Name},

constexpr EnumMember kStopReasons[] = {
#include "idl_enums/eStopNotificationReason.def"
};
constexpr EnumMember kThreadStates[] = {
#include "idl_enums/eThreadState.def"
};
constexpr EnumMember kThreadWaitStates[] = {
#include "idl_enums/eThreadWaitState.def"
};
constexpr EnumMember kProcessAttributes[] = {
#include "idl_enums/eProcessAttr.def"
};
constexpr EnumMember kModuleTypes[] = {
#include "idl_enums/eModuleTypes.def"
};
constexpr EnumMember kModuleStatuses[] = {
#include "idl_enums/eModuleStatus.def"
};
constexpr EnumMember kUltThreadTypes[] = {
#include "idl_enums/eUltThreadType.def"
};

#undef VEKX_IDL_ENUM_MEMBER

}  // namespace

std::span<const EnumMember> StopReasons() {
  return kStopReasons;
}
std::span<const EnumMember> ThreadStates() {
  return kThreadStates;
}
std::span<const EnumMember> ThreadWaitStates() {
  return kThreadWaitStates;
}
std::span<const EnumMember> ProcessAttributes() {
  return kProcessAttributes;
}
std::span<const EnumMember> ModuleTypes() {
  return kModuleTypes;
}
std::span<const EnumMember> ModuleStatuses() {
  return kModuleStatuses;
}
std::span<const EnumMember> UltThreadTypes() {
  return kUltThreadTypes;
}

std::optional<std::string_view> NameOf(std::span<const EnumMember> members, std::uint32_t value) {
  for (const EnumMember& member : members) {
    if (member.value == value) return member.name;
  }
  return std::nullopt;
}

std::vector<std::string> BitNames(std::span<const EnumMember> members, std::uint32_t bits) {
  std::vector<std::string> names;
  std::uint32_t unnamed = bits;
  for (const EnumMember& member : members) {
    if (std::has_single_bit(member.value) && (bits & member.value) != 0) {
      names.emplace_back(member.name);
      unnamed &= ~member.value;
    }
  }
  if (unnamed != 0) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(unnamed));
    names.emplace_back(text);
  }
  return names;
}

}  // namespace vesta_ctrl
