#pragma once
// The event objects that sinks receive: one class C<Name>Event per notification that reaches a
// sink, implementing I<Name>Event. An event holds its notification and reads every property from
// it at each call, so a sink that keeps the event reads the same values later.

#include <memory>

#include "api/server_call.h"
#include "requests/notifications.h"
#include "vekxapi/vekxapi.h"

namespace qv {

// Makes the event of a notification: S_OK and the event's interface in `*event`, or
// E_OUTOFMEMORY. `client` is the private client the advising object shares, which object-valued
// properties will use.
#define VEKX_EVENT_BEGIN(Camel)                                                            \
  HRESULT Create##Camel##Event(std::shared_ptr<const C##Camel##Notification> notification, \
                               SharedClient client, I##Camel##Event** event) noexcept;
#define VEKX_EVENT_VALUE(Camel, Property)
#define VEKX_EVENT_OBJECT(Camel, Property)
#define VEKX_EVENT_END(Camel)
#include "vekxapi/event_properties.def"

}  // namespace qv
