#include "address_range.h"

#include <charconv>

namespace vesta_ctrl {
namespace {

std::uint32_t MaskOfPrefix(unsigned bits) {
  return bits == 0 ? 0 : ~std::uint32_t{0} << (32 - bits);
}

}  // namespace

std::optional<std::uint32_t> ParseAddress(std::string_view text) {
  std::uint32_t address = 0;
  const char* cursor = text.data();
  const char* const end = text.data() + text.size();
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0) {
      if (cursor == end || *cursor != '.') return std::nullopt;
      ++cursor;
    }
    // Leading zeros read as octal to some tools and as decimal to others: refuse them.
    if (cursor != end && *cursor == '0' && cursor + 1 != end && cursor[1] >= '0' &&
        cursor[1] <= '9') {
      return std::nullopt;
    }
    unsigned value = 256;
    const auto [stop, error] = std::from_chars(cursor, end, value);
    if (error != std::errc() || value > 255) return std::nullopt;
    address = address << 8 | value;
    cursor = stop;
  }
  if (cursor != end) return std::nullopt;
  return address;
}

std::optional<AddressRange> ParseAddressRange(std::string_view text) {
  if (const auto slash = text.find('/'); slash != std::string_view::npos) {
    const auto network = ParseAddress(text.substr(0, slash));
    const std::string_view bits_text = text.substr(slash + 1);
    unsigned bits = 33;
    const auto [stop, error] =
        std::from_chars(bits_text.data(), bits_text.data() + bits_text.size(), bits);
    if (!network || error != std::errc() || stop != bits_text.data() + bits_text.size() ||
        bits > 32) {
      return std::nullopt;
    }
    const std::uint32_t mask = MaskOfPrefix(bits);
    return AddressRange{*network & mask, (*network & mask) | ~mask, mask};
  }
  if (const auto dash = text.find('-'); dash != std::string_view::npos) {
    const auto start = ParseAddress(text.substr(0, dash));
    const auto end = ParseAddress(text.substr(dash + 1));
    if (!start || !end || *start > *end) return std::nullopt;
    // The leading bits both ends share.
    unsigned bits = 0;
    while (bits < 32 && ((*start ^ *end) & (std::uint32_t{1} << (31 - bits))) == 0)
      ++bits;
    return AddressRange{*start, *end, MaskOfPrefix(bits)};
  }
  const auto address = ParseAddress(text);
  if (!address) return std::nullopt;
  return AddressRange{*address, *address, ~std::uint32_t{0}};
}

}  // namespace vesta_ctrl
