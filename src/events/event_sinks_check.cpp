// Hosts build their sinks from the public table of sink methods (vekxapi/event_sinks.def); the
// library delivers from its own table of notifications. Both must name the same sink methods,
// with the same events, interfaces and groups: checked here when the library compiles.
#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <string_view>

namespace qv {
namespace {

struct SinkMethod {
  std::string_view group;
  std::string_view sink_interface;
  std::string_view method;
  std::string_view event;
  constexpr auto operator<=>(const SinkMethod&) const = default;
};

// Every notification row, including the one that reaches no sink (group None).
constexpr SinkMethod kNotificationRows[] = {
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  {#Group, #SinkInterface, #SinkMethod, #Camel},
#include "requests/notifications.def"
};

constexpr std::size_t kDeliveredCount =
    std::count_if(std::begin(kNotificationRows), std::end(kNotificationRows),
                  [](const SinkMethod& row) { return row.group != "None"; });

constexpr std::array<SinkMethod, kDeliveredCount> Delivered() {
  std::array<SinkMethod, kDeliveredCount> rows{};
  std::copy_if(std::begin(kNotificationRows), std::end(kNotificationRows), rows.begin(),
               [](const SinkMethod& row) { return row.group != "None"; });
  std::sort(rows.begin(), rows.end());
  return rows;
}

// The public rows carry their group on the interface's row only.
struct PublicRow {
  bool opens_interface;
  std::string_view group_or_interface;
  std::string_view sink_interface;
  std::string_view method;
  std::string_view event;
};

constexpr PublicRow kPublicRows[] = {
#define VEKX_SINK_BEGIN(Group, Interface, Earlier) {true, #Group, #Interface, {}, {}},
#define VEKX_SINK_METHOD(Interface, Method, Event) {false, {}, #Interface, #Method, #Event},
#include "vekxapi/event_sinks.def"
};

constexpr std::size_t kPublicMethodCount =
    std::count_if(std::begin(kPublicRows), std::end(kPublicRows),
                  [](const PublicRow& row) { return !row.opens_interface; });

constexpr std::array<SinkMethod, kPublicMethodCount> Public() {
  std::array<SinkMethod, kPublicMethodCount> rows{};
  std::size_t next = 0;
  std::string_view group;
  for (const PublicRow& row : kPublicRows) {
    if (row.opens_interface) {
      group = row.group_or_interface;
    } else {
      rows[next++] = {group, row.sink_interface, row.method, row.event};
    }
  }
  std::sort(rows.begin(), rows.end());
  return rows;
}

static_assert(kDeliveredCount == kPublicMethodCount && Delivered() == Public(),
              "vekxapi/event_sinks.def and requests/notifications.def name different sink "
              "methods");

}  // namespace
}  // namespace qv
