#pragma once
// The names of the values of the IDL's enumerations that the debug commands print, from tables
// generated from the IDL at build time (idl_enum_names.cmake): a value the IDL gains is named
// without a change here.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vesta_ctrl {

struct EnumMember {
  std::uint32_t value;
  std::string_view name;  // The IDL's own name: "STOP_REASON_SIGSWBRKPT".
};

std::span<const EnumMember> StopReasons();        // eStopNotificationReason
std::span<const EnumMember> ThreadStates();       // eThreadState
std::span<const EnumMember> ThreadWaitStates();   // eThreadWaitState
std::span<const EnumMember> ProcessAttributes();  // eProcessAttr (bits)
std::span<const EnumMember> ModuleTypes();        // eModuleTypes
std::span<const EnumMember> ModuleStatuses();     // eModuleStatus
std::span<const EnumMember> UltThreadTypes();     // eUltThreadType

// The name of `value`, or nullopt when the enumeration has none for it.
std::optional<std::string_view> NameOf(std::span<const EnumMember> members, std::uint32_t value);

// The names of the bits set in `bits` (members that are single bits), in the table's order;
// bits no member names come last as one "0x..." text.
std::vector<std::string> BitNames(std::span<const EnumMember> members, std::uint32_t bits);

}  // namespace vesta_ctrl
