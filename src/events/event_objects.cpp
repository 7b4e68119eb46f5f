#include "events/event_objects.h"

#include <utility>

#include "api/automation_object.h"
#include "api/error_reporting.h"
#include "debug/process_object.h"
#include "debug/value_objects.h"
#include "events/event_property_values.h"

namespace qv {
namespace {

// The objects that debug events hand out: a stop's process and threads reach the target
// through the event's client.
HRESULT MakeEventObject(const CStopNotificationNotification& n, const SharedClient& client,
                        IStopNotification** out) noexcept {
  return CreateStopNotificationObject(n, {client, n.TargetKey, n.Process.ProcessID}, out);
}
HRESULT MakeEventObject(const CDynamicLibraryLoadNotification& n, const SharedClient&,
                        IModule** out) noexcept {
  return CreateModuleObject(n.Module, out);
}
template <class LoadExecNotification>
HRESULT MakeEventObject(const LoadExecNotification& n, const SharedClient& client,
                        IProcess** out) noexcept {
  return CreateProcessObject(client, n.TargetKey, n.ProcessId, IID_IProcess,
                             reinterpret_cast<void**>(out));
}

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
  // A debug object built from the notification: see MakeEventObject below.
  template <class Out>
  HRESULT Object(Out* out) const noexcept {
    if (notification_ == nullptr) return ReportError(E_UNEXPECTED);
    if (out == nullptr) return ReportError(E_POINTER);
    *out = nullptr;
    return ReportError(MakeEventObject(*notification_, client_, out));
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
    return Object(out);                                                                      \
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
