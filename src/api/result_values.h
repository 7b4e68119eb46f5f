#pragma once
// Turning response fields into the automation values that public methods hand out: strings,
// one-dimensional arrays of objects, strings, numbers and bytes. Each puts its result into the
// caller's out-argument only when all of it could be made, and reports E_OUTOFMEMORY otherwise.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/automation.h"
#include "vekxapi/com_ptr.h"

namespace qv {

// A new BSTR holding `text` (embedded zeros kept) in `*out`.
HRESULT OutString(std::u16string_view text, BSTR* out) noexcept;

// The text of an automation string argument; a null BSTR is the empty string.
std::u16string_view InString(BSTR text) noexcept;

// VT_ARRAY | VT_VARIANT, one VT_DISPATCH element per object, in order.
HRESULT OutObjectArray(const std::vector<vekx::ComPtr<IDispatch>>& objects, VARIANT* out) noexcept;
// VT_ARRAY | VT_BSTR.
HRESULT OutStringArray(const std::vector<std::u16string>& strings, VARIANT* out) noexcept;
// VT_ARRAY | VT_UI4.
HRESULT OutU32Array(const std::vector<uint32_t>& values, VARIANT* out) noexcept;
// VT_ARRAY | VT_UI8.
HRESULT OutU64Array(const std::vector<uint64_t>& values, VARIANT* out) noexcept;
// VT_ARRAY | VT_UI1.
HRESULT OutByteArray(std::span<const uint8_t> bytes, VARIANT* out) noexcept;
// VT_ARRAY | VT_VARIANT of `count` elements that `fill(elements)` sets; a failing fill leaves
// `*out` untouched and frees what it had set.
HRESULT OutVariantArray(size_t count, VARIANT* out, HRESULT (*fill)(VARIANT*, const void*),
                        const void* context) noexcept;
template <class Fill>
HRESULT OutVariantArray(size_t count, VARIANT* out, const Fill& fill) noexcept {
  return OutVariantArray(
      count, out,
      [](VARIANT* elements, const void* context) {
        return (*static_cast<const Fill*>(context))(elements);
      },
      &fill);
}

}  // namespace qv
