// The registry on its own: what each client is sent, without pipes in between.
#include "server/targets/target_registry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "dispatch_harness.h"

namespace qv::server {
namespace {

// a, the default, and b, known but not registered: both on.
Scenario TwoKits() {
  return InstantKits(R"(kits:
  - {host: a, name: A, power: on, default: true}
  - {host: b, name: B, power: on, registered: false}
)");
}

// Waits until `handle` has a change under way.
void WaitBusy(TargetRegistry& registry, uint32_t handle) {
  uint32_t busy = 0;
  while (busy == 0) {
    ASSERT_TRUE(registry.BusyCount(handle, busy).ok());
    std::this_thread::yield();
  }
}

TEST(TargetRegistryTest, HandlesAreSmallNeverTheNoTargetValueAndNeverReused) {
  TargetRegistry registry(TwoKits());
  uint32_t first = 0;
  ASSERT_TRUE(registry.AddTarget(u"VE", u"b", first).ok());
  uint32_t again = 0;
  ASSERT_TRUE(registry.AddTarget(u"CoreDump", u"B", again).ok());
  EXPECT_EQ(again, first);
  ASSERT_TRUE(registry.DeleteTarget(first).ok());
  uint32_t second = 0;
  ASSERT_TRUE(registry.AddTarget(u"VE", u"b", second).ok());
  EXPECT_NE(second, first);
  for (uint32_t handle : registry.TargetList()) {
    EXPECT_NE(handle, 0xFFFFFFFFu);
    EXPECT_LT(handle, 16u);
  }
}

TEST(TargetRegistryTest, SubscriptionsAreSetsAndGoWithTheirClientAndTarget) {
  TargetRegistry registry(TwoKits());
  DecodingSink sink;
  registry.AddClient({7, 700}, &sink);
  const uint32_t a = registry.TargetList().at(0);
  ASSERT_TRUE(registry.Subscribe(7, EventGroup::Target, a).ok());
  ASSERT_TRUE(registry.Subscribe(7, EventGroup::Target, a).ok());
  ASSERT_TRUE(registry.Subscribe(7, EventGroup::Debug, a).ok());
  // The Server group's key is always the no-target value, whatever the request said.
  ASSERT_TRUE(registry.Subscribe(7, EventGroup::Server, a).ok());
  EXPECT_EQ(registry.SubscriptionCount(7), 3u);

  ASSERT_TRUE(registry.SetTargetName(a, u"Renamed").ok());
  EXPECT_EQ(sink.Names(), std::vector<std::string>{"NAME_UPDATE"});

  // Deleting the target drops its subscriptions but keeps the Server one.
  ASSERT_TRUE(registry.DeleteTarget(a).ok());
  EXPECT_EQ(registry.SubscriptionCount(7), 1u);
  EXPECT_EQ(sink.Names(),
            (std::vector<std::string>{"NAME_UPDATE", "TARGET_DELETED", "DEFAULT_TARGET_CHANGED"}));
  EXPECT_EQ(static_cast<const CTargetDeletedNotification&>(*sink.All()[1]).Handle, a);
  EXPECT_EQ(static_cast<const CDefaultTargetChangedNotification&>(*sink.All()[2]).NewHandle,
            0xFFFFFFFFu);
  uint32_t unused = 0;
  EXPECT_EQ(registry.DeleteTarget(a).code, Code(KXAPI_SERVER_INVALID_TARGET));
  EXPECT_EQ(registry.GetDefaultTarget(unused).code, Code(KXAPI_NO_TARGET));
  registry.Unsubscribe(7, EventGroup::Server, 12345);
  EXPECT_EQ(registry.SubscriptionCount(7), 0u);
}

TEST(TargetRegistryTest, ShutdownEndsAPowerChangeThatIsWaiting) {
  Scenario scenario = TwoKits();
  scenario.kits[0].power = PowerStatus::kOff;
  scenario.kits[0].timings.boot_ms = 60000;
  TargetRegistry registry(scenario);
  const uint32_t a = registry.TargetList().at(0);
  Status result;
  std::thread power_on([&] { result = registry.PowerOn(1, a); });
  WaitBusy(registry, a);
  registry.Shutdown();
  power_on.join();
  EXPECT_EQ(result.code, Code(KXAPI_COMMS_ERR_POWER_OPERATION_FAILED));
  PowerStatus power{};
  ASSERT_TRUE(registry.PowerStatusOf(a, power).ok());
  EXPECT_EQ(power, PowerStatus::kOff);
}

TEST(TargetRegistryTest, ChangesUnderWayEndWhenTheirTargetIsTakenOrDeleted) {
  Scenario scenario = TwoKits();
  scenario.kits[0].power = PowerStatus::kOff;
  scenario.kits[0].timings = {60000, 60000, 60000};
  TargetRegistry registry(scenario);
  const uint32_t a = registry.TargetList().at(0);

  // A client that forces the connection while another is still connecting wins at once.
  Status connect;
  std::thread connecting([&] { connect = registry.Connect(1, a); });
  WaitBusy(registry, a);
  ASSERT_TRUE(registry.ForceDisconnect(2, a).ok());
  connecting.join();
  EXPECT_EQ(connect.code, Code(KXAPI_COMMS_ERR_TARGET_IN_USE));
  ConnectionState state{};
  ASSERT_TRUE(registry.ConnectionStateOf(2, a, state).ok());
  EXPECT_EQ(state, ConnectionState::kConnected);

  // Deleting a target ends its power change at once.
  Status power_on;
  std::thread powering([&] { power_on = registry.PowerOn(1, a); });
  WaitBusy(registry, a);
  ASSERT_TRUE(registry.DeleteTarget(a).ok());
  powering.join();
  EXPECT_EQ(power_on.code, Code(KXAPI_COMMS_ERR_POWER_OPERATION_FAILED));
}

TEST(TargetRegistryTest, OnlyAForcedPowerOffIsAnnouncedAsOneAndTheObserverSeesWhatIsSent) {
  std::vector<std::pair<uint64_t, std::string>> observed;
  TargetRegistry registry(TwoKits(), [&](uint64_t client_id, const CNotification& notification) {
    observed.emplace_back(
        client_id, std::string(notification.GetName().begin(), notification.GetName().end()));
  });
  const uint32_t a = registry.TargetList().at(0);
  DecodingSink sink;
  registry.AddClient({7, 700}, &sink);
  ASSERT_TRUE(registry.Subscribe(7, EventGroup::Target, a).ok());
  ASSERT_TRUE(registry.PowerOff(7, a).ok());
  ASSERT_TRUE(registry.PowerOn(7, a).ok());
  // An ordinary power off is not one.
  const auto ordinary = sink.Names();
  EXPECT_EQ(std::count(ordinary.begin(), ordinary.end(), "FORCED_POWER_OFF"), 0);
  sink.Clear();
  observed.clear();

  ASSERT_TRUE(registry.ForcePowerOff(7, a).ok());
  const std::vector<std::string> forced{"BUSY", "POWER_STATE", "POWER_STATE", "FORCED_POWER_OFF",
                                        "IDLE"};
  EXPECT_EQ(sink.Names(), forced);
  EXPECT_EQ(static_cast<const CForcedPowerOffNotification&>(*sink.All()[3]).TargetKey, a);
  ASSERT_EQ(observed.size(), forced.size());
  for (size_t i = 0; i < forced.size(); ++i) {
    EXPECT_EQ(observed[i], std::make_pair(uint64_t{7}, forced[i])) << i;
  }
  // Nothing is observed for a change nobody subscribed to.
  observed.clear();
  registry.Unsubscribe(7, EventGroup::Target, a);
  ASSERT_TRUE(registry.PowerOn(7, a).ok());
  EXPECT_TRUE(observed.empty());
}

}  // namespace
}  // namespace qv::server
