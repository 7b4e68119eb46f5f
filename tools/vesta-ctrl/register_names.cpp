#include "register_names.h"

#include "debug/register_names.h"

namespace vesta_ctrl {

std::optional<Register> RegisterByName(std::string_view name) {
  const std::optional<std::uint32_t> id = qv::RegisterIdByName(name);
  if (!id) return std::nullopt;
  return Register{std::string(name), *id, qv::RegisterWidthBits(*id)};
}

std::vector<Register> GeneralRegisters() {
  std::vector<Register> registers;
  for (std::uint32_t id : qv::GeneralRegisterIds())
    registers.push_back({qv::RegisterNameOf(id), id, qv::RegisterWidthBits(id)});
  return registers;
}

}  // namespace vesta_ctrl
