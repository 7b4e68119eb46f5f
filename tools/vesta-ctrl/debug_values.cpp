#include "debug_values.h"

#include <charconv>
#include <cstdio>

namespace vesta_ctrl {
namespace {

[[noreturn]] void Refuse(std::string_view what, std::string_view text, std::string_view form) {
  throw UsageError(std::string(what) + " must be " + std::string(form) + ", not '" +
                   std::string(text) + "'");
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool HasHexPrefix(std::string_view text) {
  return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

}  // namespace

std::uint32_t ParseDecimal(std::string_view text, std::string_view what, std::uint32_t max) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || value > max)
    Refuse(what, text, "a decimal number up to " + std::to_string(max));
  return value;
}

std::uint64_t ParseNumber(std::string_view text, std::string_view what, std::uint64_t max) {
  const bool hex = HasHexPrefix(text);
  const std::string_view digits = hex ? text.substr(2) : text;
  std::uint64_t value = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() ||
      value > max) {
    Refuse(what, text, "a decimal or 0x-hexadecimal number up to " + Hex(max));
  }
  return value;
}

std::array<std::uint64_t, 4> ParseWideNumber(std::string_view text, std::string_view what,
                                             unsigned width_bits) {
  std::array<std::uint64_t, 4> words{};
  const std::string form =
      "a decimal number or a 0x-hexadecimal one of at most " + std::to_string(width_bits) + " bits";
  if (!HasHexPrefix(text)) {
    words[0] = ParseNumber(text, what);
    return words;
  }
  std::string_view digits = text.substr(2);
  while (digits.size() > 1 && digits.front() == '0')
    digits.remove_prefix(1);
  // Every width (64, 80, 256) is whole hexadecimal digits.
  if (digits.size() * 4 > width_bits) Refuse(what, text, form);
  unsigned bit = 0;
  for (auto it = digits.rbegin(); it != digits.rend(); ++it, bit += 4) {
    const int digit = HexDigit(*it);
    if (digit < 0) Refuse(what, text, form);
    words[bit / 64] |= static_cast<std::uint64_t>(digit) << (bit % 64);
  }
  return words;
}

std::vector<std::uint8_t> ParseHexBytes(std::string_view text, std::string_view what) {
  std::vector<std::uint8_t> bytes;
  bool pairs = true;
  for (size_t i = 0; pairs && i < text.size();) {
    if (text[i] == ' ' || text[i] == ':') {
      ++i;
      continue;
    }
    const int high = HexDigit(text[i]);
    const int low = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
    pairs = high >= 0 && low >= 0;
    if (pairs) bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
    i += 2;
  }
  if (!pairs || bytes.empty())
    Refuse(what, text, "pairs of hexadecimal digits (\"90 90\", \"de:ad\" or \"dead\")");
  return bytes;
}

std::string Hex(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string WideHex(const std::uint64_t* words, size_t count) {
  size_t top = count;
  while (top > 1 && words[top - 1] == 0)
    --top;
  std::string text = Hex(top == 0 ? 0 : words[top - 1]);
  for (size_t i = top - 1; i-- > 0;) {
    char part[20];
    std::snprintf(part, sizeof part, "%016llx", static_cast<unsigned long long>(words[i]));
    text += part;
  }
  return text;
}

std::string HexBytes(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  return text;
}

}  // namespace vesta_ctrl
