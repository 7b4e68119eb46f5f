#pragma once
// Every notification the server pushes, as a class qv::C<Name>Notification generated from the
// rows of notifications.def, and the factory that makes them from a type number.

#include "requests/debug_records.h"
#include "requests/notification_bases.h"
#include "requests/wire_types.h"
#include "serverlink/message_factory.h"
#include "serverlink/messages.h"

namespace qv {

#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  VEKX_NOTIFICATION_CLASS(Camel, WIRE, number, Base, fields)
#include "requests/notifications.def"

// Makes notifications from type numbers.
const MessageFactory<CNotification>& NotificationFactory();

}  // namespace qv
