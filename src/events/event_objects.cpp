#include "events/event_objects.h"

#include <utility>

#include "api/automation_object.h"
#include "api/error_reporting.h"
#include "events/event_property_values.h"

namespace qv {
namespace {

// The parameter type of a property getter, taken from the interface so that the event classes
// below cannot drift from the IDL.
template <class Getter>
struct GetterOut;
template <class Interface, class Out>
struct GetterOut<HRESULT (STDMETHODCALLTYPE Interface::*)(Out)> {
  using type = Out;
};
template <auto getter>
using GetterOutT = typename GetterOut<decltype(getter)>::type;

template <class Derived, class Interface, class Notification>
class EventObject : public AutomationObject<Derived, Interface> {
 public:
  EventObject(std::shared_ptr<const Notification> notification, SharedClient client) noexcept
      : notification_(std::move(notification)), client_(std::move(client)) {}

 protected:
  // Reads one field of the notification into `out`.
  template <class Out, class Read>
  HRESULT Value(Out* out, Read read) const noexcept {
    if (notification_ == nullptr) return ReportError(E_UNEXPECTED);
    if (out == nullptr) return ReportError(E_POINTER);
    return ReportError(PutPropertyValue(read(*notification_), out));
  }
  // The debug objects that these properties would build belong to the debugger, which this
  // version of the library does not have.
  template <class Out>
  HRESULT Object(Out* out, std::u16string_view property) const noexcept {
    if (notification_ == nullptr) return ReportError(E_UNEXPECTED);
    if (out == nullptr) return ReportError(E_POINTER);
    *out = nullptr;
    return ReportNotAvailable(property);
  }

 private:
  std::shared_ptr<const Notification> notification_;
  SharedClient client_;  // for the debug objects that properties build
};

#define VEKX_EVENT_BEGIN(Camel)                                                        \
  class C##Camel##Event final                                                          \
      : public EventObject<C##Camel##Event, I##Camel##Event, C##Camel##Notification> { \
   public:                                                                             \
    using EventObject::EventObject;                                                    \
    static bool IsFamily(REFIID iid) { return IsEqualIID(iid, IID_I##Camel##Event); }  \
    static const IID& DispatchIid() { return IID_I##Camel##Event; }
#define VEKX_EVENT_VALUE(Camel, Property)                                                    \
  HRESULT STDMETHODCALLTYPE get_##Property(GetterOutT<&I##Camel##Event::get_##Property> out) \
      override {                                                                             \
    return Value(                                                                            \
        out, [](const C##Camel##Notification& n) -> const auto& { return n.Property; });     \
  }
#define VEKX_EVENT_OBJECT(Camel, Property)                                                   \
  HRESULT STDMETHODCALLTYPE get_##Property(GetterOutT<&I##Camel##Event::get_##Property> out) \
      override {                                                                             \
    return Object(out, u"I" #Camel "Event::" #Property);                                     \
  }
#define VEKX_EVENT_END(Camel) \
  }                           \
  ;
#include "vekxapi/event_properties.def"

}  // namespace

#define VEKX_EVENT_BEGIN(Camel)                                                                \
  HRESULT Create##Camel##Event(std::shared_ptr<const C##Camel##Notification> notification,     \
                               SharedClient client, I##Camel##Event** event) noexcept {        \
    return CreateObject<C##Camel##Event>(IID_I##Camel##Event, reinterpret_cast<void**>(event), \
                                         std::move(notification), std::move(client));          \
  }
#define VEKX_EVENT_VALUE(Camel, Property)
#define VEKX_EVENT_OBJECT(Camel, Property)
#define VEKX_EVENT_END(Camel)
#include "vekxapi/event_properties.def"

}  // namespace qv
