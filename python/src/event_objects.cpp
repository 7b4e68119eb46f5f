#include "event_objects.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "debug_objects.h"
#include "values.h"

namespace vekx_python {
namespace {

namespace py = pybind11;

// A getter that fails gives None: one bad property should not lose the event.
template <class Interface, class Out>
py::object Read(Interface& event, HRESULT (STDMETHODCALLTYPE Interface::*getter)(Out*)) {
  if constexpr (std::is_same_v<Out, BSTR>) {
    vekx::Bstr text;
    if (FAILED((event.*getter)(text.Put()))) return py::none();
    return py::str(text.Utf8());
  } else if constexpr (std::is_same_v<Out, VARIANT>) {
    vekx::Variant value;
    if (FAILED((event.*getter)(value.Put()))) return py::none();
    return ValueOf(value.Get());
  } else if constexpr (std::is_same_v<Out, IStopNotification*>) {
    vekx::ComPtr<IStopNotification> stop;
    if (FAILED((event.*getter)(stop.Put())) || !stop) return py::none();
    return py::cast(ReadStop(*stop.Get()));
  } else if constexpr (std::is_pointer_v<Out>) {
    // Other objects (a module) stay in the library; the reference is handed back.
    Out object = nullptr;
    if (SUCCEEDED((event.*getter)(&object)) && object != nullptr) object->Release();
    return py::none();
  } else if constexpr (std::is_enum_v<Out>) {
    static_assert(sizeof(Out) == sizeof(std::uint32_t));
    Out value{};
    if (FAILED((event.*getter)(&value))) return py::none();
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return py::int_(bits);
  } else if constexpr (std::is_same_v<Out, VARIANT_BOOL>) {
    VARIANT_BOOL value = VARIANT_FALSE;
    if (FAILED((event.*getter)(&value))) return py::none();
    return py::bool_(value != VARIANT_FALSE);
  } else {
    static_assert(std::is_arithmetic_v<Out>);
    Out value{};
    if (FAILED((event.*getter)(&value))) return py::none();
    return py::int_(value);
  }
}

}  // namespace

#define VEKX_EVENT_BEGIN(Camel)                   \
  py::dict PropertiesOf(I##Camel##Event& event) { \
    static_cast<void>(event);                     \
    py::dict properties;
#define VEKX_EVENT_VALUE(Camel, Property) \
  properties[#Property] = Read(event, &I##Camel##Event::get_##Property);
#define VEKX_EVENT_OBJECT(Camel, Property) VEKX_EVENT_VALUE(Camel, Property)
#define VEKX_EVENT_END(Camel) \
  return properties;          \
  }
#include "vekxapi/event_properties.def"

}  // namespace vekx_python
