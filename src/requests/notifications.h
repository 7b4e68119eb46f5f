#pragma once
// Every notification the server pushes, as a class qv::C<Name>Notification generated from the
// rows of notifications.def, and the factory that makes them from a type number.

#include <cstddef>
#include <cstdint>
#include <optional>

#include "requests/debug_records.h"
#include "requests/notification_bases.h"
#include "requests/wire_types.h"
#include "serverlink/message_factory.h"
#include "serverlink/messages.h"

namespace qv {

// The event groups that deliver notifications to sinks, in the order in which the private client
// lays out their locks and registries. Each group has a subscribe and a cancel operation,
// REQUEST_<GROUP>_EVENTS and CANCEL_<GROUP>_EVENTS; code that handles every group expands this
// list rather than naming them again.
#define VEKX_FOR_EACH_EVENT_GROUP(X) \
  X(CacheUpdate)                     \
  X(ConsoleOutput)                   \
  X(Controller)                      \
  X(Debug)                           \
  X(GenericProtocol)                 \
  X(HighFreqFileCopy)                \
  X(LowFreqFileCopy)                 \
  X(Trickle)                         \
  X(ProcessLock)                     \
  X(Server)                          \
  X(Target)                          \
  X(Viewer)

enum class EventGroup : uint32_t {
#define VEKX_EVENT_GROUP_ENUMERATOR(Group) Group,
  VEKX_FOR_EACH_EVENT_GROUP(VEKX_EVENT_GROUP_ENUMERATOR)
#undef VEKX_EVENT_GROUP_ENUMERATOR
  // A notification that reaches no sink.
  None,
};

// The groups that have sinks: every value before None.
inline constexpr size_t kEventGroupCount = static_cast<size_t>(EventGroup::None);

#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  VEKX_NOTIFICATION_CLASS(Camel, WIRE, number, Base, fields)
#include "requests/notifications.def"

// The number of notifications in the catalogue.
inline constexpr size_t kNotificationCount = 94;

// Makes notifications from type numbers.
const MessageFactory<CNotification>& NotificationFactory();

// Where a notification is delivered: its group and the slot of the group's notify client.
struct NotificationRoute {
  uint32_t type_number;
  EventGroup group;
  uint32_t slot;
};

// The route of the notification with `type_number`; nullopt for a number not in the catalogue.
std::optional<NotificationRoute> FindNotificationRoute(uint32_t type_number);

}  // namespace qv
