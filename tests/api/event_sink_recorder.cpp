#include "api/event_sink_recorder.h"

#include <type_traits>

#include "platform/wide_string.h"
#include "vekxapi/bstr.h"
#include "vekxapi/variant.h"

namespace qv::apitest {
namespace {

std::string Text(const VARIANT& value);

std::string ArrayText(SAFEARRAY* array, VARTYPE type) {
  std::string out = "[";
  LONG low = 0, high = -1;
  SafeArrayGetLBound(array, 1, &low);
  SafeArrayGetUBound(array, 1, &high);
  for (LONG i = low; i <= high; ++i) {
    if (i != low) out += ",";
    VARIANT element;
    VariantInit(&element);
    if (type == VT_VARIANT) {
      SafeArrayGetElement(array, &i, &element);
    } else {
      element.vt = type;
      SafeArrayGetElement(array, &i, &element.lVal);  // the value part of the VARIANT
    }
    out += Text(element);
    VariantClear(&element);
  }
  return out + "]";
}

std::string Text(const VARIANT& value) {
  if ((value.vt & VT_ARRAY) != 0) return ArrayText(value.parray, value.vt & ~VT_ARRAY);
  if (value.vt == VT_UI1) return std::to_string(value.bVal);
  if (value.vt == VT_UI4) return std::to_string(value.ulVal);
  if (value.vt == VT_BSTR) return platform::Utf16ToUtf8(platform::BstrView(value.bstrVal));
  return "vt " + std::to_string(value.vt);
}

// The text of one property value as the getter handed it out; frees what the getter allocated.
template <class Out>
std::string Text(Out& value) {
  if constexpr (std::is_same_v<Out, BSTR>) {
    return vekx::Bstr::Adopt(value).Utf8();
  } else if constexpr (std::is_same_v<Out, VARIANT>) {
    return Text(vekx::Variant::Adopt(value).Get());
  } else if constexpr (std::is_same_v<Out, VARIANT_BOOL>) {
    return value == VARIANT_TRUE ? "true" : value == VARIANT_FALSE ? "false" : "bad bool";
  } else if constexpr (std::is_integral_v<Out> && sizeof(Out) == sizeof(uint64_t)) {
    // 64-bit values travel unsigned; some events hand them out as LONGLONG.
    return std::to_string(static_cast<uint64_t>(value));
  } else {
    return std::to_string(static_cast<long long>(value));
  }
}

template <class Event, class Out>
std::string ReadValue(Event* event, HRESULT (STDMETHODCALLTYPE Event::*get)(Out*)) {
  if ((event->*get)(nullptr) != E_POINTER) return "no E_POINTER";
  // An enumeration is read through 32-bit storage: the values sent are not all named by it.
  std::conditional_t<std::is_enum_v<Out>, uint32_t, Out> value{};
  const HRESULT hr = (event->*get)(reinterpret_cast<Out*>(&value));
  if (FAILED(hr)) return "failed " + std::to_string(static_cast<uint32_t>(hr));
  return Text(value);
}

template <class Event, class Out>
std::string ReadObject(Event* event, HRESULT (STDMETHODCALLTYPE Event::*get)(Out**)) {
  Out* object = nullptr;
  const HRESULT hr = (event->*get)(&object);
  if (object != nullptr) object->Release();
  return hr == S_OK && object != nullptr ? "object" : "failed " + std::to_string(hr);
}

}  // namespace

#define VEKX_EVENT_BEGIN(Camel)                                                                 \
  std::map<std::string, std::string> EventProperties([[maybe_unused]] I##Camel##Event* event) { \
    std::map<std::string, std::string> values;
#define VEKX_EVENT_VALUE(Camel, Property) \
  values[#Property] = ReadValue(event, &I##Camel##Event::get_##Property);
#define VEKX_EVENT_OBJECT(Camel, Property) \
  values[#Property] = ReadObject(event, &I##Camel##Event::get_##Property);
#define VEKX_EVENT_END(Camel) \
  return values;              \
  }
#include "events/event_properties.def"

HRESULT SinkCalls::Record(SinkCall call) {
  {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  if (on_call) on_call();
  return result;
}

std::vector<SinkCall> SinkCalls::Calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

std::vector<std::string> SinkCalls::Values(const std::string& method,
                                           const std::string& property) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> values;
  for (const SinkCall& call : calls_) {
    if (call.method != method) continue;
    const auto found = call.properties.find(property);
    values.push_back(found != call.properties.end() ? found->second : "(none)");
  }
  return values;
}

void SinkCalls::Clear() {
  std::lock_guard lock(mutex_);
  calls_.clear();
}

}  // namespace qv::apitest
