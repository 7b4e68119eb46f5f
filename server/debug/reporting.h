#pragma once
// What every debug backend puts into its answers and notifications: numbers in error texts, and
// the timestamps of notifications (the server's steady clock, in nanoseconds).

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/wide_string.h"

namespace qv::server {

inline std::u16string Decimal(uint64_t value) {
  return platform::Utf8ToUtf16(std::to_string(value));
}

inline std::u16string Hex(uint64_t value) {
  static constexpr char16_t kDigits[] = u"0123456789abcdef";
  std::u16string text;
  do {
    text.insert(text.begin(), kDigits[value & 0xF]);
    value >>= 4;
  } while (value != 0);
  return u"0x" + text;
}

inline uint64_t SteadyNanoseconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

}  // namespace qv::server
