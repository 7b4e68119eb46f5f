#include "event_properties.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/wide_string.h"
#include "vekxapi/bstr.h"
#include "vekxapi/variant.h"

namespace vesta_ctrl {
namespace {

std::string Hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
  return text;
}

std::string ByteText(const SAFEARRAY& array) {
  LONG lower = 0;
  LONG upper = -1;
  SafeArrayGetLBound(const_cast<SAFEARRAY*>(&array), 1, &lower);
  SafeArrayGetUBound(const_cast<SAFEARRAY*>(&array), 1, &upper);
  std::string text;
  for (LONG index = lower; index <= upper; ++index) {
    unsigned char byte = 0;
    if (SafeArrayGetElement(const_cast<SAFEARRAY*>(&array), &index, &byte) != S_OK) break;
    char pair[4];
    std::snprintf(pair, sizeof pair, "%02x", byte);
    if (!text.empty()) text += ':';
    text += pair;
  }
  return text;
}

// One property through its getter; the getter's parameter type decides the conversion.
template <class Interface, class Out>
nlohmann::ordered_json Read(Interface& event,
                            HRESULT (STDMETHODCALLTYPE Interface::*getter)(Out*)) {
  if constexpr (std::is_same_v<Out, BSTR>) {
    vekx::Bstr text;
    if (FAILED((event.*getter)(text.Put()))) return nullptr;
    return text.Utf8();
  } else if constexpr (std::is_same_v<Out, VARIANT>) {
    vekx::Variant value;
    if (FAILED((event.*getter)(value.Put()))) return nullptr;
    return VariantValue(value.Get());
  } else if constexpr (std::is_pointer_v<Out>) {
    // Objects (a module, a process) are not printed; the reference is handed back.
    Out object = nullptr;
    if (SUCCEEDED((event.*getter)(&object)) && object != nullptr) object->Release();
    return nullptr;
  } else if constexpr (std::is_enum_v<Out>) {
    // The library passes through values the enumeration does not name: read the 32 bits.
    static_assert(sizeof(Out) == sizeof(uint32_t));
    Out value{};
    if (FAILED((event.*getter)(&value))) return nullptr;
    uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    if constexpr (std::is_same_v<Out, eErrorCode>) return Hex32(bits);
    return bits;
  } else if constexpr (std::is_same_v<Out, VARIANT_BOOL>) {
    VARIANT_BOOL value = VARIANT_FALSE;
    if (FAILED((event.*getter)(&value))) return nullptr;
    return value != VARIANT_FALSE;
  } else {
    static_assert(std::is_arithmetic_v<Out>);
    Out value{};
    if (FAILED((event.*getter)(&value))) return nullptr;
    return value;
  }
}

}  // namespace

nlohmann::ordered_json VariantValue(const VARIANT& value) {
  if ((value.vt & VT_ARRAY) != 0 && (value.vt & VT_BYREF) == 0 && value.parray != nullptr) {
    if ((value.vt & ~VT_ARRAY) == VT_UI1) return ByteText(*value.parray);
    std::vector<vekx::Variant> elements;
    if (FAILED(vekx::ArrayElements(value, elements))) return nullptr;
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const vekx::Variant& element : elements)
      list.push_back(VariantValue(element.Get()));
    return list;
  }
  switch (value.vt) {
    case VT_BSTR:
      return qv::platform::Utf16ToUtf8(qv::platform::BstrView(value.bstrVal));
    case VT_BOOL:
      return value.boolVal != VARIANT_FALSE;
    case VT_I1:
      return value.cVal;
    case VT_UI1:
      return value.bVal;
    case VT_I2:
      return value.iVal;
    case VT_UI2:
      return value.uiVal;
    case VT_I4:
    case VT_INT:
      return value.lVal;
    case VT_UI4:
    case VT_UINT:
      return value.ulVal;
    case VT_I8:
      return value.llVal;
    case VT_UI8:
      return value.ullVal;
    default:
      return nullptr;
  }
}

#define VEKX_EVENT_BEGIN(Camel)                       \
  Properties ReadProperties(I##Camel##Event& event) { \
    static_cast<void>(event);                         \
    Properties properties = Properties::object();
#define VEKX_EVENT_VALUE(Camel, Property) \
  properties[#Property] = Read(event, &I##Camel##Event::get_##Property);
#define VEKX_EVENT_OBJECT(Camel, Property) VEKX_EVENT_VALUE(Camel, Property)
#define VEKX_EVENT_END(Camel) \
  return properties;          \
  }
#include "vekxapi/event_properties.def"

}  // namespace vesta_ctrl
