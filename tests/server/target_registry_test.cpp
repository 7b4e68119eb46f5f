// The registry on its own: what each client is sent, without pipes in between. Then the debug
// operations between the dispatcher and the targets' debug backends: which backend a request
// reaches, what a target without one answers, and where a backend's notifications go.
#include "server/targets/target_registry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "dispatch_harness.h"
#include "server/core/packet_log.h"
#include "server/handlers/handlers.h"

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

// A client that forces the connection while another is still connecting wins at once; a power
// change ends at once when its target is deleted or the registry shuts down.
TEST(TargetRegistryTest, ChangesUnderWayEndWhenTheirTargetIsTakenDeletedOrShutDown) {
  for (const bool shut_down : {false, true}) {
    SCOPED_TRACE(shut_down ? "shut down" : "deleted");
    Scenario scenario = TwoKits();
    scenario.kits[0].power = PowerStatus::kOff;
    scenario.kits[0].timings = {60000, 60000, 60000};
    TargetRegistry registry(scenario);
    const uint32_t a = registry.TargetList().at(0);
    Status connect;
    std::thread connecting([&] { connect = registry.Connect(1, a); });
    WaitBusy(registry, a);
    EXPECT_TRUE(registry.ForceDisconnect(2, a).ok());
    connecting.join();
    EXPECT_EQ(connect.code, Code(KXAPI_COMMS_ERR_TARGET_IN_USE));
    ConnectionState state{};
    EXPECT_TRUE(registry.ConnectionStateOf(2, a, state).ok());
    EXPECT_EQ(state, ConnectionState::kConnected);

    Status power_on;
    std::thread powering([&] { power_on = registry.PowerOn(1, a); });
    WaitBusy(registry, a);
    EXPECT_TRUE(shut_down ? (registry.Shutdown(), true) : registry.DeleteTarget(a).ok());
    powering.join();
    EXPECT_EQ(power_on.code, Code(KXAPI_COMMS_ERR_POWER_OPERATION_FAILED));
    PowerStatus power{};
    EXPECT_EQ(registry.PowerStatusOf(a, power).ok(), shut_down);  // a deleted target has none
    if (shut_down) {
      EXPECT_EQ(power, PowerStatus::kOff);
    }
  }
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

// Answers every operation, writing down which method ran; GET_MEMORY waits until released so a
// test can hold one call in the backend.
class RecordingBackend : public DebugBackend {
 public:
  explicit RecordingBackend(std::shared_ptr<DebugEvents> posted) : events(std::move(posted)) {}
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields)              \
  Status Camel(const DebugCall& call, C##Camel##Request&, C##Camel##Response&) override { \
    Record(#WIRE, call);                                                                  \
    if (std::string_view(#WIRE) == "GET_MEMORY") release.get_future().wait();             \
    return Status::Ok();                                                                  \
  }
#include "requests/debug_operations.def"
  void Shutdown() override {
    ++shutdowns;
  }

  void Record(const char* name, const DebugCall& call) {
    std::lock_guard lock(mutex);
    calls.push_back(name);
    last_call = call;
  }
  std::mutex mutex;
  std::vector<std::string> calls;
  DebugCall last_call;
  std::promise<void> release;
  std::atomic<int> shutdowns{0};
  std::shared_ptr<DebugEvents> events;
};

class DebugSeamTest : public ::testing::Test {
 protected:
  DebugSeamTest()
      : registry_(Kits(), {}, [this](const Kit& kit, std::shared_ptr<DebugEvents> events) {
          if (kit.host != u"recorded") return std::shared_ptr<DebugBackend>();
          recorded_ = std::make_shared<RecordingBackend>(std::move(events));
          return std::shared_ptr<DebugBackend>(recorded_);
        }) {
    RegisterHandlers(dispatcher_, registry_, packet_log_);
  }

  // handle 1 "recorded": a recording backend; 2 "plain": the base backend; 3 "off": powered
  // off; 4 "gone": does not answer.
  static Scenario Kits() {
    return InstantKits(R"(kits:
  - {host: recorded, power: on}
  - {host: plain, power: on}
  - {host: off, power: off}
  - {host: gone, power: on, reachable: false}
)");
  }

  template <class Request>
  auto Ask(const Request& request, uint32_t target) {
    return Dispatch(dispatcher_, request, target);
  }

  std::shared_ptr<RecordingBackend> recorded_;  // before the registry, which makes it
  TargetRegistry registry_;
  PacketLog packet_log_;
  RequestDispatcher dispatcher_;
};

TEST_F(DebugSeamTest, EveryDebugOperationReachesTheMethodOfItsNameOrIsNamedAsMissing) {
  recorded_->release.set_value();
  size_t count = 0;
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields)     \
  {                                                                              \
    ++count;                                                                     \
    EXPECT_EQ(Ask(C##Camel##Request{}, 1).Result, 0u) << #WIRE;                  \
    EXPECT_EQ(recorded_->calls.back(), #WIRE);                                   \
    const auto missing = Ask(C##Camel##Request{}, 2);                            \
    EXPECT_EQ(missing.Result, Code(KXAPI_COMMS_ERR_NOT_IMPLEMENTED)) << #WIRE;   \
    EXPECT_EQ(missing.ResultText, u"" #WIRE " is not available on this target"); \
  }
#include "requests/debug_operations.def"
  EXPECT_EQ(recorded_->calls.size(), count);
  EXPECT_EQ(recorded_->last_call.client_id, 1u);
  EXPECT_EQ(recorded_->last_call.target, 1u);
}

TEST_F(DebugSeamTest, TargetsThatCannotDebugSaySoBeforeAnyBackendIsAsked) {
  const struct {
    uint32_t target;
    eErrorCode code;
  } cases[] = {
      {3, KXAPI_COMMS_ERR_INVALID_POWER_STATE},
      {4, KXAPI_COMMS_ERR_NO_CONNECT},
      {99, KXAPI_SERVER_INVALID_TARGET},
      {kNoTarget, KXAPI_SERVER_INVALID_TARGET},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Ask(CKillProcessRequest{}, c.target).Result, Code(c.code)) << c.target;
  }
  EXPECT_TRUE(recorded_->calls.empty());
  recorded_->release.set_value();
}

TEST_F(DebugSeamTest, ACallHeldInOneBackendHoldsUpNoOtherTarget) {
  auto held = std::async(std::launch::async, [this] { return Ask(CGetMemoryRequest{}, 1); });
  while (true) {
    std::lock_guard lock(recorded_->mutex);
    if (!recorded_->calls.empty()) break;
  }
  // The registry's lock is free while the call waits in the backend.
  EXPECT_EQ(Ask(CKillProcessRequest{}, 2).Result, Code(KXAPI_COMMS_ERR_NOT_IMPLEMENTED));
  EXPECT_EQ(registry_.TargetList().size(), 4u);
  recorded_->release.set_value();
  EXPECT_EQ(held.get().Result, 0u);
}

TEST_F(DebugSeamTest, NotificationsGoToTheTargetsDebugSubscribersUntilItIsDeleted) {
  recorded_->release.set_value();
  DecodingSink debug_of_1, debug_of_2, server_group;
  registry_.AddClient({1, 100}, &debug_of_1);
  registry_.AddClient({2, 101}, &debug_of_2);
  registry_.AddClient({3, 102}, &server_group);
  ASSERT_TRUE(registry_.Subscribe(1, EventGroup::Debug, 1).ok());
  ASSERT_TRUE(registry_.Subscribe(2, EventGroup::Debug, 2).ok());
  ASSERT_TRUE(registry_.Subscribe(3, EventGroup::Server, kNoTarget).ok());

  CProcessCreateNotification created;
  created.TargetKey = 1;
  CThreadCreateNotification thread;
  thread.TargetKey = 1;
  recorded_->events->Post(created);
  recorded_->events->Post(thread);
  EXPECT_EQ(debug_of_1.Names(), (std::vector<std::string>{"PROCESS_CREATE", "THREAD_CREATE"}));
  EXPECT_TRUE(debug_of_2.All().empty());

  ASSERT_TRUE(registry_.DeleteTarget(1).ok());
  EXPECT_EQ(recorded_->shutdowns, 1);
  recorded_->events->Post(created);  // late: dropped
  EXPECT_EQ(debug_of_1.All().size(), 2u);
  EXPECT_EQ(server_group.Names(), std::vector<std::string>{"TARGET_DELETED"});
  registry_.Shutdown();
  EXPECT_EQ(recorded_->shutdowns, 1) << "a deleted target's backend is not shut down twice";
}

}  // namespace
}  // namespace qv::server
