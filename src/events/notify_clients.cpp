#include "events/notify_clients.h"

#include <new>
#include <type_traits>
#include <utility>

#include "events/event_objects.h"
#include "serverlink/log.h"

namespace qv {

template <EventGroup kGroup, class Sink>
std::shared_ptr<EventNotifyClient<kGroup, Sink>> EventNotifyClient<kGroup, Sink>::Make(
    SharedClient client, Sink* sink) noexcept {
  try {
    return std::make_shared<EventNotifyClient>(std::move(client), sink);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

template <EventGroup kGroup, class Sink>
EventNotifyClient<kGroup, Sink>::EventNotifyClient(SharedClient client, Sink* sink) noexcept
    : client_(std::move(client)), sink_(sink) {
  if (sink != nullptr)
    sink->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(identity_.Put()));
}

template <EventGroup kGroup, class Sink>
bool EventNotifyClient<kGroup, Sink>::IsSameSink(const IVEEventNotifyClient& other) const {
  const auto* same = dynamic_cast<const EventNotifyClient*>(&other);
  // A sink that does not answer for IUnknown is compared by the pointer it was given as.
  if (same == nullptr) return false;
  if (identity_ && same->identity_) return identity_.Get() == same->identity_.Get();
  return sink_.Get() == same->sink_.Get();
}

template <EventGroup kGroup, class Sink>
template <class Interface, class Notification, class Event>
HRESULT EventNotifyClient<kGroup, Sink>::Call(
    const std::shared_ptr<CNotification>& notification, REFIID interface_id,
    HRESULT (*create)(std::shared_ptr<const Notification>, SharedClient, Event**) noexcept,
    HRESULT (STDMETHODCALLTYPE Interface::*method)(Event*), const char* log_text) {
  Log& log = LibraryLog();
  if (log.Enabled(Log::kPackets)) log.Write(Log::kPackets, "EVENT", log_text);
  vekx::ComPtr<Event> event;
  const HRESULT made =
      create(std::static_pointer_cast<const Notification>(notification), client_, event.Put());
  if (FAILED(made)) return made;
  if constexpr (std::is_same_v<Interface, Sink>) {
    (void)interface_id;
    return (sink_.Get()->*method)(event.Get());
  } else {
    vekx::ComPtr<Interface> later;
    const HRESULT found =
        sink_->QueryInterface(interface_id, reinterpret_cast<void**>(later.Put()));
    if (FAILED(found) || !later) return found;  // the sink predates this version
    return (later.Get()->*method)(event.Get());
  }
}

// The row with no sink (an empty SinkInterface) is left out of the expansion below.
#define VEKX_CONCAT_INNER(a, b) a##b
#define VEKX_CONCAT(a, b) VEKX_CONCAT_INNER(a, b)
#define VEKX_IF_SINK(...) VEKX_CONCAT(VEKX_IF_SINK_, __VA_OPT__(YES))
#define VEKX_IF_SINK_YES(...) __VA_ARGS__
#define VEKX_IF_SINK_(...)

template <EventGroup kGroup, class Sink>
HRESULT EventNotifyClient<kGroup, Sink>::Deliver(
    uint32_t slot, const std::shared_ptr<CNotification>& notification) {
  if (notification == nullptr || !sink_) return E_POINTER;
  // A host's sink must not throw into the library; if one does, the notification thread lives on.
  try {
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod,    \
                          DispId, fields)                                                       \
  VEKX_IF_SINK(SinkInterface)                                                                   \
  (if constexpr (kGroup == EventGroup::Group) {                                                 \
    if (slot == (Slot)) {                                                                       \
      return Call<SinkInterface, C##Camel##Notification, I##Camel##Event>(                      \
          notification, IID_##SinkInterface, &Create##Camel##Event, &SinkInterface::SinkMethod, \
          "NOTIFY " #SinkMethod);                                                               \
    }                                                                                           \
  })
#include "requests/notifications.def"
  } catch (...) {
    return E_UNEXPECTED;
  }
  return E_INVALIDARG;  // a slot the group does not have
}

template class EventNotifyClient<EventGroup::CacheUpdate, IEventCacheUpdate>;
template class EventNotifyClient<EventGroup::ConsoleOutput, IEventConsoleOutput>;
template class EventNotifyClient<EventGroup::Controller, IEventController>;
template class EventNotifyClient<EventGroup::Debug, IEventDebug>;
template class EventNotifyClient<EventGroup::GenericProtocol, IEventGenericProtocol>;
template class EventNotifyClient<EventGroup::HighFreqFileCopy, IEventHighFreqFileCopy>;
template class EventNotifyClient<EventGroup::LowFreqFileCopy, IEventLowFreqFileCopy>;
template class EventNotifyClient<EventGroup::Trickle, IEventTrickle>;
template class EventNotifyClient<EventGroup::ProcessLock, IEventProcessLock>;
template class EventNotifyClient<EventGroup::Server, IEventServer>;
template class EventNotifyClient<EventGroup::Target, IEventTarget>;
template class EventNotifyClient<EventGroup::Viewer, IEventViewer>;

}  // namespace qv
