#pragma once
// How a notification field becomes the automation value of an event property: numbers and
// enumerations as they are, booleans as VARIANT_BOOL, strings as new BSTRs, lists and bytes as
// one-dimensional safe arrays.

#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

#include "platform/automation.h"
#include "requests/notification_bases.h"
#include "requests/wire_types.h"

namespace qv {

template <class Field, class Out>
requires(std::is_arithmetic_v<Field> && !std::is_same_v<Field, bool>) HRESULT
    PutPropertyValue(Field value, Out* out)
noexcept {
  if constexpr (std::is_enum_v<Out>) {
    // The server may send a value the enumeration does not name; converting it to the enum type
    // would be undefined, so its 32 bits are stored as they came.
    static_assert(sizeof(Out) == sizeof(uint32_t));
    const auto bits = static_cast<uint32_t>(value);
    std::memcpy(out, &bits, sizeof bits);
  } else {
    *out = static_cast<Out>(value);
  }
  return S_OK;
}

HRESULT PutPropertyValue(bool value, VARIANT_BOOL* out) noexcept;
HRESULT PutPropertyValue(const WString& value, BSTR* out) noexcept;
// Narrow strings are UTF-8.
HRESULT PutPropertyValue(const NString& value, BSTR* out) noexcept;
HRESULT PutPropertyValue(const U64List& value, VARIANT* out) noexcept;

// A value the target may leave out reads as zero when it did.
template <class Field, class Out>
HRESULT PutPropertyValue(const std::optional<Field>& value, Out* out) noexcept {
  return PutPropertyValue(value.value_or(Field{}), out);
}
HRESULT PutPropertyValue(const Bytes& value, VARIANT* out) noexcept;
HRESULT PutPropertyValue(const U32List& value, VARIANT* out) noexcept;
HRESULT PutPropertyValue(const WStringList& value, VARIANT* out) noexcept;
// The 16 bytes of the header as the target laid them out: Id, Type, Timestamp, little-endian.
HRESULT PutPropertyValue(const EventHeader& value, VARIANT* out) noexcept;
// One element per kit found, each an array of three: host name, name, MAC address (bytes).
HRESULT PutPropertyValue(const MiradorTargetList& value, VARIANT* out) noexcept;

}  // namespace qv
