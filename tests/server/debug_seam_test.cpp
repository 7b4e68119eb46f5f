// The debug operations between the dispatcher and the targets' debug backends: which backend a
// request reaches, what a target without one answers, and where a backend's notifications go.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "dispatch_harness.h"
#include "server/core/packet_log.h"
#include "server/handlers/handlers.h"

namespace qv::server {
namespace {

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
