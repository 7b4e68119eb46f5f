#include "events/event_property_values.h"

#include <array>

#include "api/result_values.h"
#include "platform/wide_string.h"

namespace qv {
namespace {

void PutLittleEndian(uint64_t value, size_t width, uint8_t* bytes) {
  for (size_t i = 0; i < width; ++i)
    bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

HRESULT PutStringElement(const WString& text, VARIANT* element) noexcept {
  BSTR made = nullptr;
  if (HRESULT hr = OutString(text, &made); FAILED(hr)) return hr;
  element->vt = VT_BSTR;
  element->bstrVal = made;
  return S_OK;
}

}  // namespace

HRESULT PutPropertyValue(bool value, VARIANT_BOOL* out) noexcept {
  *out = value ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT PutPropertyValue(const WString& value, BSTR* out) noexcept {
  return OutString(value, out);
}

HRESULT PutPropertyValue(const NString& value, BSTR* out) noexcept {
  return OutString(platform::Utf8ToUtf16(value), out);
}

HRESULT PutPropertyValue(const U64List& value, VARIANT* out) noexcept {
  return OutU64Array(value, out);
}

HRESULT PutPropertyValue(const Bytes& value, VARIANT* out) noexcept {
  return OutByteArray(value, out);
}

HRESULT PutPropertyValue(const U32List& value, VARIANT* out) noexcept {
  return OutU32Array(value, out);
}

HRESULT PutPropertyValue(const WStringList& value, VARIANT* out) noexcept {
  return OutStringArray(value, out);
}

HRESULT PutPropertyValue(const EventHeader& value, VARIANT* out) noexcept {
  std::array<uint8_t, 16> bytes{};
  PutLittleEndian(value.Id, 4, bytes.data());
  PutLittleEndian(value.Type, 4, bytes.data() + 4);
  PutLittleEndian(value.Timestamp, 8, bytes.data() + 8);
  try {
    return OutByteArray(Bytes(bytes.begin(), bytes.end()), out);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT PutPropertyValue(const MiradorTargetList& value, VARIANT* out) noexcept {
  return OutVariantArray(value.size(), out, [&](VARIANT* kits) {
    for (size_t i = 0; i < value.size(); ++i) {
      const MiradorTargetRecord& kit = value[i];
      HRESULT hr = OutVariantArray(3, &kits[i], [&](VARIANT* parts) {
        if (HRESULT part = PutStringElement(kit.HostName, &parts[0]); FAILED(part)) return part;
        if (HRESULT part = PutStringElement(kit.Name, &parts[1]); FAILED(part)) return part;
        return OutByteArray(kit.MacAddress, &parts[2]);
      });
      if (FAILED(hr)) return hr;
    }
    return S_OK;
  });
}

}  // namespace qv
