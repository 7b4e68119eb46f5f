#pragma once
// The words tools show for a target's power status and connection state ("on", "in-use"), so
// that every tool over the library says the same. Null for a value the enumeration does not name
// (the library passes such values through): the caller shows the number.

#include <cstdint>

#include "vekxapi/vekxapi.h"

namespace vekx {

inline const char* PowerStatusName(std::uint32_t status) noexcept {
  switch (status) {
    case POWER_STATUS_UNKNOWN:
      return "unknown";
    case POWER_STATUS_ON:
      return "on";
    case POWER_STATUS_STANDBY:
      return "standby";
    case POWER_STATUS_SUSPEND:
      return "suspended";
    case POWER_STATUS_MAIN_ON_STANDBY:
      return "main-on-standby";
    case POWER_STATUS_OFF:
      return "off";
    default:
      return nullptr;
  }
}

inline const char* ConnectionStateName(std::uint32_t state) noexcept {
  switch (state) {
    case CONNECTION_AVAILABLE:
      return "available";
    case CONNECTION_CONNECTED:
      return "connected";
    case CONNECTION_IN_USE:
      return "in-use";
    default:
      return nullptr;
  }
}

}  // namespace vekx
