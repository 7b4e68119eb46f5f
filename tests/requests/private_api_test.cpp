// The private client against the scripted server: results, the advise and unadvise rules of the
// event groups, delivery on the notification thread, and subscriptions that outlive a server.
#include "requests/private_api.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/process_identity.h"
#include "requests/catalogue.h"
#include "support/scripted_server.h"
#include "support/test_environment.h"
#include "vekxapi/result_codes.h"

namespace qv {
namespace {

using testing::Reply;
using testing::ScriptedServer;
using testing::WaitUntil;

using Delivery = std::pair<int, uint32_t>;  // the sink's number, the notification's type number

struct DeliveryLog {
  std::mutex mutex;
  std::vector<Delivery> deliveries;  // guarded by mutex
};

// A notify client whose "sink" is a number: two clients wrap the same sink when their numbers
// match. Every delivery is recorded, then handed to an optional action.
class RecordingClient final : public IVEEventNotifyClient {
 public:
  using Action = std::function<void(const std::shared_ptr<CNotification>&)>;

  RecordingClient(int sink, std::shared_ptr<DeliveryLog> log, Action action)
      : sink_(sink), log_(std::move(log)), action_(std::move(action)) {}

  bool IsSameSink(const IVEEventNotifyClient& other) const override {
    const auto* same = dynamic_cast<const RecordingClient*>(&other);
    return same != nullptr && same->sink_ == sink_;
  }

  HRESULT Deliver(uint32_t, const std::shared_ptr<CNotification>& notification) override {
    {
      std::lock_guard lock(log_->mutex);
      log_->deliveries.emplace_back(sink_, notification->GetTypeNumber());
    }
    if (action_) action_(notification);
    return E_FAIL;  // a failing sink must not stop the ones after it
  }

 private:
  int sink_;
  std::shared_ptr<DeliveryLog> log_;
  Action action_;
};

struct SeenRequest {
  uint32_t type_number;
  uint32_t target_handle;
  bool operator==(const SeenRequest&) const = default;
};

class PrivateApiTest : public ::testing::Test {
 protected:
  // (Re)starts the scripted server. `refuse` names a request type the server fails.
  void Serve(uint32_t refuse = 0) {
    if (server_) server_->Stop();
    ScriptedServer::Options options;
    options.user = user_;
    server_ = std::make_unique<ScriptedServer>(
        options, [this, refuse](const testing::ReceivedRequest& received) {
          {
            std::lock_guard lock(mutex_);
            requests_.push_back({received.type_number, received.target_handle});
          }
          if (received.type_number != refuse) return Reply{};
          return Reply{.result = static_cast<uint32_t>(KXAPI_SERVER_INVALID_TARGET),
                       .text = u"refused"};
        });
    ASSERT_TRUE(server_->Start());
  }

  std::vector<SeenRequest> TakeRequests() {
    std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
  }

  std::shared_ptr<RecordingClient> Client(int sink, RecordingClient::Action action = nullptr) {
    return std::make_shared<RecordingClient>(sink, log_, std::move(action));
  }

  std::vector<Delivery> Deliveries() {
    std::lock_guard lock(log_->mutex);
    return log_->deliveries;
  }

  // A notification for `key` that the Target group delivers.
  static CConnectedNotification ConnectedFor(uint32_t key) {
    CConnectedNotification connected;
    connected.TargetKey = key;
    return connected;
  }

  HRESULT CallVersion() {
    CGetServerVersionRequest request;
    CGetServerVersionResponse response;
    return api_->Call(kNoTarget, request, response);
  }

  std::u16string user_ = testing::UniqueUser("vkxpriv");
  std::unique_ptr<ScriptedServer> server_;
  std::mutex mutex_;
  std::vector<SeenRequest> requests_;  // guarded by mutex_
  std::shared_ptr<DeliveryLog> log_ = std::make_shared<DeliveryLog>();
  std::shared_ptr<CKXVEPrivateAPI> api_ = CKXVEPrivateAPI::Create(
      ServerLink::ServerNames{user_, platform::ServerRuntimeDirectory().value_or("")});
};

constexpr uint32_t kSubscribeTarget = CRequestTargetEventsRequest::kTypeNumber;
constexpr uint32_t kCancelTarget = CCancelTargetEventsRequest::kTypeNumber;

TEST_F(PrivateApiTest, CallReportsTheLinkOrTheServersResult) {
  // No server for this user and none to be found beside the test or along PATH.
  EXPECT_EQ(CallVersion(), KXAPI_SERVER_INITIALIZATION_FAILURE);
  EXPECT_FALSE(api_->IsLinkUp());

  Serve(kSubscribeTarget);
  EXPECT_EQ(CallVersion(), S_OK);
  EXPECT_TRUE(api_->IsLinkUp());
  CRequestTargetEventsRequest request;
  CRequestTargetEventsResponse response;
  EXPECT_EQ(api_->Call(7, request, response), KXAPI_SERVER_INVALID_TARGET);
  EXPECT_EQ(response.ResultText, u"refused");
  // A refused subscription registers nothing, so a second try is not mistaken for a duplicate.
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(api_->Advise(EventGroup::Target, Client(1), 3), KXAPI_SERVER_INVALID_TARGET);
  }
  EXPECT_EQ(api_->RegistrationCount(EventGroup::Target, 3), 0u);

  // Dispose's order: the shutdown step, then the disconnect; nothing connects afterwards.
  api_->ShutdownStep();
  EXPECT_EQ(api_->Disconnect(), S_OK);
  EXPECT_FALSE(api_->IsLinkUp());
  EXPECT_EQ(CallVersion(), KXAPI_SHUTTING_DOWN);
  EXPECT_EQ(server_->Connections(), 1);
}

TEST_F(PrivateApiTest, AdviseUnadviseRenewalAndDeletionFollowTheRegistrations) {
  Serve();
  auto first = Client(1);
  auto second = Client(2);
  ASSERT_EQ(api_->Advise(EventGroup::Target, first, 3), S_OK);
  ASSERT_EQ(api_->Advise(EventGroup::Target, second, 3), S_OK);
  // The same sink again, even through another notify client, is refused without a message.
  EXPECT_EQ(api_->Advise(EventGroup::Target, Client(1), 3), KXAPI_ALREADY_REGISTERED);
  EXPECT_EQ(api_->RegistrationCount(EventGroup::Target, 3), 2u);
  // Groups and keys are apart: the same sink may be advised on another target and group.
  ASSERT_EQ(api_->Advise(EventGroup::Debug, Client(1), 3), S_OK);
  EXPECT_EQ(api_->RegistrationCount(EventGroup::Target, 4), 0u);
  const uint32_t subscribe_debug = CRequestDebugEventsRequest::kTypeNumber;
  EXPECT_EQ(TakeRequests(),
            (std::vector<SeenRequest>{
                {kSubscribeTarget, 3}, {kSubscribeTarget, 3}, {subscribe_debug, 3}}));

  Serve();  // a new server: the old connection breaks
  ASSERT_TRUE(WaitUntil([&] { return !api_->IsLinkUp(); }));
  ASSERT_EQ(CallVersion(), S_OK);
  // One subscribe per (group, key), in the groups' order, before the call that reconnected.
  EXPECT_EQ(TakeRequests(),
            (std::vector<SeenRequest>{{subscribe_debug, 3},
                                      {kSubscribeTarget, 3},
                                      {CGetServerVersionRequest::kTypeNumber, kNoTarget}}));

  // Both sinks get every event of their target, first advised first.
  ASSERT_TRUE(server_->Notify(ConnectedFor(3)));
  ASSERT_TRUE(server_->Notify(ConnectedFor(4)));  // nobody listens to target 4
  ASSERT_TRUE(WaitUntil([&] { return Deliveries().size() >= 2; }));
  const uint32_t connected = CConnectedNotification::kTypeNumber;
  EXPECT_EQ(Deliveries(), (std::vector<Delivery>{{1, connected}, {2, connected}}));

  // The cancel goes out only with the last sink of the key, and for a key with none at all.
  EXPECT_EQ(api_->Unadvise(EventGroup::Target, *Client(1), 3), S_OK);
  EXPECT_EQ(TakeRequests(), std::vector<SeenRequest>{});
  EXPECT_EQ(api_->Unadvise(EventGroup::Target, *Client(2), 3), S_OK);
  EXPECT_EQ(api_->Unadvise(EventGroup::Target, *Client(9), 5), S_OK);
  EXPECT_EQ(TakeRequests(), (std::vector<SeenRequest>{{kCancelTarget, 3}, {kCancelTarget, 5}}));
  EXPECT_EQ(api_->RegistrationCount(EventGroup::Target, 3), 0u);
  EXPECT_EQ(api_->Advise(EventGroup::None, first, 3), E_INVALIDARG);

  // A deleted target's sinks are dropped from its groups, and nothing is cancelled.
  CTargetDeletedNotification deleted;
  deleted.TargetKey = kNoTarget;
  deleted.Handle = 3;
  ASSERT_TRUE(server_->Notify(deleted));
  ASSERT_TRUE(WaitUntil([&] { return api_->RegistrationCount(EventGroup::Debug, 3) == 0; }));
  EXPECT_EQ(TakeRequests(), std::vector<SeenRequest>{});
}

TEST_F(PrivateApiTest, TheLastReferenceMayGoOnTheNotificationThread) {
  Serve();
  auto released = std::make_shared<std::promise<void>>();
  // The sink holds the only reference left; it lets go from inside its handler.
  auto holder = std::make_shared<std::shared_ptr<CKXVEPrivateAPI>>(api_);
  ASSERT_EQ(api_->Advise(EventGroup::Target,
                         Client(1,
                                [holder, released](const std::shared_ptr<CNotification>&) {
                                  if (*holder == nullptr) return;
                                  holder->reset();
                                  released->set_value();
                                }),
                         3),
            S_OK);
  std::weak_ptr<CKXVEPrivateAPI> weak = api_;
  api_.reset();
  ASSERT_TRUE(server_->Notify(ConnectedFor(3)));
  auto done = released->get_future();
  ASSERT_EQ(done.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  // It ends after the delivery, on that thread, without joining itself.
  EXPECT_TRUE(WaitUntil([&] { return weak.expired(); }));
}

}  // namespace
}  // namespace qv
