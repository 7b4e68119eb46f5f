#pragma once
// The notify clients: what a group's registry holds for one advised sink. A client keeps the sink
// (through the group's base interface) and the private client of the object that advised it, and
// turns each notification of its group into the event object of its row, handed to the sink
// method of its row. Methods of a later sink interface reach the sink through QueryInterface at
// delivery, so a sink that lacks that version silently does not hear those events.

#include <memory>

#include "api/server_call.h"
#include "requests/event_registry.h"
#include "requests/notifications.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace qv {

template <EventGroup kGroup, class Sink>
class EventNotifyClient final : public IVEEventNotifyClient {
 public:
  // The client around `sink`; null when memory runs out. `sink` is taken as given: the caller
  // has already asked it for the group's interface (or, to find a registration, need not).
  static std::shared_ptr<EventNotifyClient> Make(SharedClient client, Sink* sink) noexcept;

  EventNotifyClient(SharedClient client, Sink* sink) noexcept;

  // Sinks are compared by COM identity, so a host may unadvise through any of its interfaces.
  bool IsSameSink(const IVEEventNotifyClient& other) const override;
  HRESULT Deliver(uint32_t slot, const std::shared_ptr<CNotification>& notification) override;

 private:
  template <class Interface, class Notification, class Event>
  HRESULT Call(const std::shared_ptr<CNotification>& notification, REFIID interface_id,
               HRESULT (*create)(std::shared_ptr<const Notification>, SharedClient,
                                 Event**) noexcept,
               HRESULT (STDMETHODCALLTYPE Interface::*method)(Event*), const char* log_text);

  SharedClient client_;
  vekx::ComPtr<Sink> sink_;
  vekx::ComPtr<IUnknown> identity_;
};

using CVECacheUpdateEventNotifyClient =
    EventNotifyClient<EventGroup::CacheUpdate, IEventCacheUpdate>;
using CVEConsoleOutputEventNotifyClient =
    EventNotifyClient<EventGroup::ConsoleOutput, IEventConsoleOutput>;
using CVEControllerEventNotifyClient = EventNotifyClient<EventGroup::Controller, IEventController>;
using CVEDebugEventNotifyClient = EventNotifyClient<EventGroup::Debug, IEventDebug>;
using CVEGenericProtocolEventNotifyClient =
    EventNotifyClient<EventGroup::GenericProtocol, IEventGenericProtocol>;
using CVEHighFreqFileCopyEventNotifyClient =
    EventNotifyClient<EventGroup::HighFreqFileCopy, IEventHighFreqFileCopy>;
using CVELowFreqFileCopyEventNotifyClient =
    EventNotifyClient<EventGroup::LowFreqFileCopy, IEventLowFreqFileCopy>;
using CVETrickleEventNotifyClient = EventNotifyClient<EventGroup::Trickle, IEventTrickle>;
using CVEProcessLockEventNotifyClient =
    EventNotifyClient<EventGroup::ProcessLock, IEventProcessLock>;
using CVEServerEventNotifyClient = EventNotifyClient<EventGroup::Server, IEventServer>;
using CVETargetEventNotifyClient = EventNotifyClient<EventGroup::Target, IEventTarget>;
using CVEViewerEventNotifyClient = EventNotifyClient<EventGroup::Viewer, IEventViewer>;

}  // namespace qv
