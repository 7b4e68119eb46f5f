// The notification factory.
#include <algorithm>
#include <array>
#include <cstdint>

#include "requests/notifications.h"

namespace qv {

// Each notification's members, compiled here alone (the catalogue's header declares them extern).
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  template class NotificationOf<C##Camel##Notification, Base>;
#include "requests/notifications.def"

namespace {

// Sorted at compile time; a type number used twice stops the build.
constexpr auto kNotificationEntries =
    SortByTypeNumber(std::to_array<MessageFactoryEntry<CNotification>>({
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  MessageFactoryEntry<CNotification>{number, C##Camel##Notification::kName,                  \
                                     &MakeMessage<CNotification, C##Camel##Notification>},
#include "requests/notifications.def"
    }));

static_assert(kNotificationEntries.size() == kNotificationCount);
static_assert(!HasDuplicateTypeNumbers(kNotificationEntries),
              "two notifications share a type number");

// Where each notification is delivered: a group's notify client has one slot per notification,
// so two rows on the same slot of a group would be a transcription error.
constexpr std::array kDeliveryRoutes{
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  NotificationRoute{number, EventGroup::Group, Slot},
#include "requests/notifications.def"
};

constexpr bool RoutesAreSound() {
  for (size_t i = 0; i < kDeliveryRoutes.size(); ++i) {
    const NotificationRoute& route = kDeliveryRoutes[i];
    // Slots count from 1; only a notification that reaches no sink has none.
    if ((route.slot == 0) != (route.group == EventGroup::None)) return false;
    for (size_t j = 0; j < i; ++j) {
      if (route.group != EventGroup::None && kDeliveryRoutes[j].group == route.group &&
          kDeliveryRoutes[j].slot == route.slot) {
        return false;
      }
    }
  }
  return true;
}

static_assert(RoutesAreSound(), "a delivery slot is used twice or a delivered row has no slot");

constexpr MessageFactory<CNotification> kNotificationFactory{kNotificationEntries};

constexpr auto kRoutesByTypeNumber = [] {
  auto routes = kDeliveryRoutes;
  std::sort(routes.begin(), routes.end(),
            [](const auto& a, const auto& b) { return a.type_number < b.type_number; });
  return routes;
}();

}  // namespace

const MessageFactory<CNotification>& NotificationFactory() {
  return kNotificationFactory;
}

std::optional<NotificationRoute> FindNotificationRoute(uint32_t type_number) {
  const auto* it = std::lower_bound(
      kRoutesByTypeNumber.begin(), kRoutesByTypeNumber.end(), type_number,
      [](const NotificationRoute& route, uint32_t n) { return route.type_number < n; });
  if (it == kRoutesByTypeNumber.end() || it->type_number != type_number) return std::nullopt;
  return *it;
}

}  // namespace qv
