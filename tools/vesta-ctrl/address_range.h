#pragma once
// The IPv4 address ranges `find` searches, as a user writes them.

#include <cstdint>
#include <optional>
#include <string_view>

namespace vesta_ctrl {

// Addresses as 32-bit numbers, most significant octet first (10.1.0.1 is 0x0A010001).
struct AddressRange {
  std::uint32_t start = 0;
  std::uint32_t end = 0;
  std::uint32_t subnet_mask = 0;
};

// "A.B.C.D-E.F.G.H" (start no later than end; the mask is the narrowest that holds both),
// "A.B.C.D/N" (the whole network, N from 0 to 32) or a single "A.B.C.D" (mask 255.255.255.255).
// nullopt for anything else.
std::optional<AddressRange> ParseAddressRange(std::string_view text);

// Dotted form.
std::optional<std::uint32_t> ParseAddress(std::string_view text);

}  // namespace vesta_ctrl
