// The target operations of a running vesta-kx, through the library's server link.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>

#include "platform/wide_string.h"
#include "requests/target_states.h"
#include "server_harness.h"

namespace qv::servertest {
namespace {

constexpr uint32_t Code(eErrorCode code) {
  return static_cast<uint32_t>(code);
}

class TargetsTest : public ServerTest {
 protected:
  // The handle of a host the scenario registers.
  uint32_t HandleOf(Client& client, const std::u16string& host) {
    CGetTargetsByHostRequest request;
    request.HostName = host;
    const auto response = client.Call<CGetTargetsByHostResponse>(kNone, request);
    EXPECT_EQ(response.Result, 0u);
    EXPECT_EQ(response.Targets.size(), 1u) << platform::Utf16ToUtf8(host);
    return response.Targets.empty() ? kNone : response.Targets[0];
  }
  template <class Request>
  void Subscribe(Client& client, uint32_t key) {
    using Response = std::conditional_t<std::is_same_v<Request, CRequestServerEventsRequest>,
                                        CRequestServerEventsResponse, CRequestTargetEventsResponse>;
    EXPECT_EQ(client.Call<Response>(key, Request{}).Result, 0u);
  }

  Client a_{user_};
  Client b_{user_};
};

// The tests that need nothing but what every build serves: the built-in scenario's kits.
class BuiltInTargetsTest : public TargetsTest {
 protected:
  void SetUp() override { StartServer(true); }

  static constexpr char16_t kOnKit[] = u"devkit-alpha";
  static constexpr char16_t kOffKit[] = u"devkit-beta";
  static constexpr char16_t kSilentHost[] = u"192.168.40.99";
};

TEST_F(TargetsTest, ListsTheScenarioTargets) {
  const auto list = a_.Call<CGetTargetListResponse>(kNone, CGetTargetListRequest{});
  ASSERT_EQ(list.Result, 0u);
  // kit-spare is known to the scenario but not registered.
  ASSERT_EQ(list.Targets.size(), 4u);
  std::vector<std::string> hosts;
  for (uint32_t handle : list.Targets) {
    EXPECT_NE(handle, kNone);
    const auto host = a_.Call<CGetHostNameResponse>(handle, CGetHostNameRequest{});
    EXPECT_EQ(host.Result, 0u);
    hosts.push_back(platform::Utf16ToUtf8(host.HostName));
  }
  EXPECT_EQ(hosts, (std::vector<std::string>{"kit-one", "kit-two", "kit-gone", "kit-slow"}));
}

TEST_F(TargetsTest, AddingAHostTwiceGivesOneTargetAndOneNotification) {
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  // The second subscription changes nothing: still one notification per change.
  Subscribe<CRequestServerEventsRequest>(b_, kNone);

  CAddTargetRequest add;
  add.TargetType = u"VE";
  add.HostName = u"kit-spare";
  const auto first = a_.Call<CAddTargetResponse>(kNone, add);
  ASSERT_EQ(first.Result, 0u);
  EXPECT_NE(first.Handle, kNone);
  add.HostName = u"Kit-Spare";
  const auto second = a_.Call<CAddTargetResponse>(kNone, add);
  EXPECT_EQ(second.Result, 0u);
  EXPECT_EQ(second.Handle, first.Handle);

  // A later change proves that nothing else was queued for b in between.
  CSetDefaultTargetRequest set_default;
  set_default.Handle = first.Handle;
  EXPECT_EQ(a_.Call<CSetDefaultTargetResponse>(kNone, set_default).Result, 0u);
  const auto notifications = b_.WaitNotifications(2);
  ASSERT_EQ(b_.NotificationNames(),
            (std::vector<std::string>{"TARGET_ADDED", "DEFAULT_TARGET_CHANGED"}));
  const auto* added = As<CTargetAddedNotification>(notifications[0]);
  EXPECT_EQ(added->TargetKey, kNone);
  EXPECT_EQ(added->HostName, u"kit-spare");
  EXPECT_EQ(added->Handle, first.Handle);
  const auto* changed = As<CDefaultTargetChangedNotification>(notifications[1]);
  EXPECT_EQ(changed->OldHostName, u"kit-one");
  EXPECT_EQ(changed->NewHostName, u"kit-spare");
  EXPECT_EQ(changed->NewHandle, first.Handle);
  // The client that made the changes did not subscribe and heard nothing.
  EXPECT_TRUE(a_.Notifications().empty());
}

TEST_F(BuiltInTargetsTest, RefusesBadTargetsWithAClearResult) {
  struct Case {
    const char* what;
    std::u16string type;
    std::u16string host;
    eErrorCode expected;
  };
  const Case cases[] = {
      {"unknown type", u"Console", u"kit-x", KXAPI_SERVER_INVALID_TARGET_TYPE},
      {"empty host", u"VE", u"", KXAPI_SERVER_INVALID_ARG},
  };
  for (const Case& c : cases) {
    CAddTargetRequest add;
    add.TargetType = c.type;
    add.HostName = c.host;
    const auto response = a_.Call<CAddTargetResponse>(kNone, add);
    EXPECT_EQ(response.Result, static_cast<uint32_t>(c.expected)) << c.what;
    EXPECT_FALSE(response.ResultText.empty()) << c.what;
  }
  // Operations on a handle nobody registered.
  EXPECT_EQ(a_.Call<CGetHostNameResponse>(4242, CGetHostNameRequest{}).Result,
            Code(KXAPI_SERVER_INVALID_TARGET));
  EXPECT_EQ(a_.Call<CPowerOnResponse>(kNone, CPowerOnRequest{}).Result,
            Code(KXAPI_SERVER_INVALID_TARGET));
  EXPECT_EQ(a_.Call<CCancelCurrentCommandResponse>(4242, CCancelCurrentCommandRequest{}).Result,
            Code(KXAPI_SERVER_INVALID_TARGET));
  CSetDefaultTargetRequest set_default;
  set_default.Handle = 4242;
  EXPECT_EQ(a_.Call<CSetDefaultTargetResponse>(kNone, set_default).Result,
            Code(KXAPI_SERVER_INVALID_TARGET));
}

TEST_F(BuiltInTargetsTest, UnknownHostsCanBeAddedButNeverAnswer) {
  CAddTargetRequest add;
  add.TargetType = u"VE";
  add.HostName = u"nobody.example";
  const auto added = a_.Call<CAddTargetResponse>(kNone, add);
  ASSERT_EQ(added.Result, 0u);
  for (uint32_t handle : {added.Handle, HandleOf(a_, kSilentHost)}) {
    const auto connect = a_.Call<CTargetConnectResponse>(handle, CTargetConnectRequest{});
    EXPECT_EQ(connect.Result, Code(KXAPI_COMMS_ERR_NO_CONNECT));
    EXPECT_NE(platform::Utf16ToUtf8(connect.ResultText).find("no kit answers"), std::string::npos);
    EXPECT_EQ(a_.Call<CPowerStatusResponse>(handle, CPowerStatusRequest{}).Result,
              Code(KXAPI_COMMS_ERR_NO_CONNECT));
  }
  // The cached name does not need the kit.
  const auto cached =
      a_.Call<CGetCachedTargetNameResponse>(added.Handle, CGetCachedTargetNameRequest{});
  EXPECT_EQ(cached.Result, 0u);
  EXPECT_EQ(cached.Name, u"nobody.example");
}

TEST_F(TargetsTest, FindsTargetsByHostAndByName) {
  struct Case {
    bool by_name;
    std::u16string key;
    size_t found;
    eErrorCode result;
  };
  const Case cases[] = {
      {false, u"kit-two", 1, KXAPI_SUCCESS},    {false, u"KIT-TWO", 1, KXAPI_SUCCESS},
      {false, u"kit-spare", 0, KXAPI_SUCCESS},  {false, u"", 0, KXAPI_SERVER_INVALID_ARG},
      {true, u"Two", 1, KXAPI_SUCCESS},         {true, u"kit-two", 0, KXAPI_SUCCESS},
      {true, u"", 0, KXAPI_SERVER_INVALID_ARG},
  };
  for (const Case& c : cases) {
    uint32_t result = 0;
    size_t found = 0;
    if (c.by_name) {
      CGetTargetsByNameRequest request;
      request.Name = c.key;
      const auto response = a_.Call<CGetTargetsByNameResponse>(kNone, request);
      result = response.Result;
      found = response.Targets.size();
    } else {
      CGetTargetsByHostRequest request;
      request.HostName = c.key;
      const auto response = a_.Call<CGetTargetsByHostResponse>(kNone, request);
      result = response.Result;
      found = response.Targets.size();
    }
    EXPECT_EQ(result, static_cast<uint32_t>(c.result)) << platform::Utf16ToUtf8(c.key);
    EXPECT_EQ(found, c.found) << platform::Utf16ToUtf8(c.key);
  }
}

// The states themselves, and the refusals of power-on when on and power-off when off, are the
// target objects' test; here what subscribers are told, and that an off kit cannot reboot.
TEST_F(TargetsTest, PowerChangesTellSubscribersTheirCourse) {
  const uint32_t two = HandleOf(a_, u"kit-two");
  Subscribe<CRequestTargetEventsRequest>(b_, two);
  EXPECT_EQ(a_.Call<CRebootResponse>(two, CRebootRequest{}).Result,
            Code(KXAPI_COMMS_ERR_INVALID_POWER_STATE));
  EXPECT_EQ(a_.Call<CPowerOnResponse>(two, CPowerOnRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call<CPowerOffResponse>(two, CPowerOffRequest{}).Result, 0u);

  const auto notifications = b_.WaitNotifications(8);
  ASSERT_EQ(b_.NotificationNames(),
            (std::vector<std::string>{"BUSY", "POWER_STATE", "POWER_STATE", "IDLE", "BUSY",
                                      "POWER_STATE", "POWER_STATE", "IDLE"}));
  struct Expected {
    PowerOperation operation;
    PowerProgress progress;
  };
  const Expected expected[] = {{PowerOperation::kPowerOn, PowerProgress::kStarted},
                               {PowerOperation::kPowerOn, PowerProgress::kCompleted},
                               {PowerOperation::kPowerOff, PowerProgress::kStarted},
                               {PowerOperation::kPowerOff, PowerProgress::kCompleted}};
  const size_t positions[] = {1, 2, 5, 6};
  for (size_t i = 0; i < 4; ++i) {
    const auto* state = As<CPowerStateNotification>(notifications[positions[i]]);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->TargetKey, two);
    EXPECT_EQ(state->Operation, static_cast<uint32_t>(expected[i].operation)) << i;
    EXPECT_EQ(state->Progress, static_cast<uint32_t>(expected[i].progress)) << i;
  }
}

TEST_F(TargetsTest, ASlowRequestOfOneClientDoesNotHoldUpAnother) {
  // kit-slow takes twenty seconds to boot; the other client's requests are answered meanwhile.
  const uint32_t slow = HandleOf(a_, u"kit-slow");
  std::future<uint32_t> power_on = std::async(std::launch::async, [&] {
    return a_.Call<CPowerOnResponse>(slow, CPowerOnRequest{}).Result;
  });
  ASSERT_TRUE(WaitUntil([&] {
    return b_.Call<CGetTargetBusyStateResponse>(slow, CGetTargetBusyStateRequest{}).BusyCount == 1;
  }));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(b_.Call<CGetTargetListResponse>(kNone, CGetTargetListRequest{}).Result, 0u);
  }
  // A second power change waits for nobody: it is refused at once while the first runs.
  EXPECT_EQ(b_.Call<CPowerOnResponse>(slow, CPowerOnRequest{}).Result, Code(KXAPI_COMMS_ERR_BUSY));
  EXPECT_EQ(power_on.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  // Its own client ends it rather than wait twenty seconds.
  EXPECT_EQ(a_.Call<CCancelMyCommandsResponse>(kNone, CCancelMyCommandsRequest{}).Result, 0u);
  EXPECT_EQ(power_on.get(), Code(KXAPI_COMMS_ERR_OPERATION_CANCELLED));
}

TEST_F(BuiltInTargetsTest, TheHolderOfAConnectionHearsItTakenAndALeavingClientGivesItBack) {
  const uint32_t one = HandleOf(a_, kOnKit);
  Subscribe<CRequestTargetEventsRequest>(a_, one);
  auto state = [&](Client& client) {
    return static_cast<ConnectionState>(
        client.Call<CConnectionStateResponse>(one, CConnectionStateRequest{}).State);
  };
  EXPECT_EQ(a_.Call<CTargetConnectResponse>(one, CTargetConnectRequest{}).Result, 0u);
  EXPECT_EQ(b_.Call<CForceDisconnectResponse>(one, CForceDisconnectRequest{}).Result, 0u);
  const auto notifications = a_.WaitNotifications(4);
  ASSERT_EQ(a_.NotificationNames(),
            (std::vector<std::string>{"CONNECT", "CONNECTED", "FORCE_DISCONNECTED", "CONNECTED"}));
  EXPECT_NE(platform::Utf16ToUtf8(As<CForceDisconnectedNotification>(notifications[2])->Requester)
                .find("process"),
            std::string::npos);

  // A client that goes away gives its connections back.
  b_.link().Disconnect();
  EXPECT_TRUE(WaitUntil([&] { return state(a_) == ConnectionState::kAvailable; }));
}

TEST_F(BuiltInTargetsTest, AClientThatStopsWaitingForAConnectionCancelsItsRequest) {
  const uint32_t one = HandleOf(a_, kOnKit);
  EXPECT_EQ(b_.Call<CRequestConnectionResponse>(one, CRequestConnectionRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call<CReleaseConnectionResponse>(one, CReleaseConnectionRequest{}).Result,
            Code(KXAPI_COMMS_ERR_NOT_CONNECTED));
  std::future<uint32_t> waiting = std::async(std::launch::async, [&] {
    return a_.Call<CRequestConnectionResponse>(one, CRequestConnectionRequest{}).Result;
  });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_EQ(a_.Call<CCancelMyCommandsResponse>(kNone, CCancelMyCommandsRequest{}).Result, 0u);
  EXPECT_EQ(waiting.get(), Code(KXAPI_COMMS_ERR_OPERATION_CANCELLED));
  EXPECT_EQ(b_.Call<CConnectionStateResponse>(one, CConnectionStateRequest{}).State,
            static_cast<uint32_t>(ConnectionState::kConnected));
}

TEST_F(TargetsTest, TheServerChecksWhatClientsSetAndOthersReadIt) {
  const uint32_t one = HandleOf(a_, u"kit-one");
  Subscribe<CRequestTargetEventsRequest>(b_, one);
  CSetTargetNameRequest rename;
  rename.Name = u"Renamed";
  EXPECT_EQ(a_.Call<CSetTargetNameResponse>(one, rename).Result, 0u);
  EXPECT_EQ(a_.Call<CGetTargetNameResponse>(one, CGetTargetNameRequest{}).Name, u"Renamed");
  CGetTargetsByNameRequest by_name;
  by_name.Name = u"renamed";
  EXPECT_EQ(a_.Call<CGetTargetsByNameResponse>(kNone, by_name).Targets, (U32List{one}));
  rename.Name.clear();
  EXPECT_EQ(a_.Call<CSetTargetNameResponse>(one, rename).Result, Code(KXAPI_SERVER_INVALID_ARG));

  CSetCachedMacAddressRequest set_mac;
  set_mac.MacAddress = {1, 2, 3};
  EXPECT_EQ(a_.Call<CSetCachedMacAddressResponse>(one, set_mac).Result,
            Code(KXAPI_SERVER_INVALID_ARG));
  set_mac.MacAddress = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(a_.Call<CSetCachedMacAddressResponse>(one, set_mac).Result, 0u);
  EXPECT_EQ(b_.Call<CGetMacAddressResponse>(one, CGetMacAddressRequest{}).MacAddress,
            set_mac.MacAddress);

  b_.WaitNotifications(1);
  ASSERT_EQ(b_.NotificationNames(), (std::vector<std::string>{"NAME_UPDATE"}));
  EXPECT_EQ(As<CNameUpdateNotification>(b_.Notifications()[0])->Name, u"Renamed");
}

TEST_F(BuiltInTargetsTest, SubscriptionsAreOnePerClientGroupAndKey) {
  const uint32_t one = HandleOf(a_, kOnKit);
  // Every group's pair (REQUEST_<GROUP>_EVENTS, CANCEL_<GROUP>_EVENTS) is served; a cancel of
  // what was never subscribed succeeds too.
  std::map<std::string, uint32_t> numbers;
  for (const auto& entry : RequestFactory().Entries())
    numbers[platform::Utf16ToUtf8(entry.name)] = entry.type_number;
  std::vector<std::pair<uint32_t, uint32_t>> pairs;
  for (const auto& [name, number] : numbers) {
    if (name.starts_with("REQUEST_") && name.ends_with("_EVENTS"))
      pairs.emplace_back(number, numbers.at("CANCEL_" + name.substr(8)));
  }
  ASSERT_EQ(pairs.size(), 12u);
  for (const auto& [subscribe, cancel] : pairs) {
    for (uint32_t type : {cancel, subscribe, subscribe, cancel, cancel}) {
      auto request = RequestFactory().Create(type);
      auto response = ResponseFactory().Create(type);
      uint32_t sequence = 0;
      ASSERT_EQ(a_.link().SendAndWait(one, *request, *response, sequence), LinkStatus::kSuccess);
      EXPECT_EQ(response->Result, 0u) << platform::Utf16ToUtf8(request->GetName());
    }
  }
  // A target group needs a target that exists.
  EXPECT_EQ(a_.Call<CRequestTargetEventsResponse>(4242, CRequestTargetEventsRequest{}).Result,
            Code(KXAPI_SERVER_INVALID_TARGET));

  // After subscribe, subscribe, cancel, no notification arrives.
  Subscribe<CRequestTargetEventsRequest>(b_, one);
  Subscribe<CRequestTargetEventsRequest>(b_, one);
  EXPECT_EQ(b_.Call<CCancelTargetEventsResponse>(one, CCancelTargetEventsRequest{}).Result, 0u);
  CSetTargetNameRequest rename;
  rename.Name = u"Quiet";
  EXPECT_EQ(a_.Call<CSetTargetNameResponse>(one, rename).Result, 0u);
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  CSetDefaultTargetRequest set_default;
  set_default.Handle = HandleOf(a_, kOffKit);
  EXPECT_EQ(a_.Call<CSetDefaultTargetResponse>(kNone, set_default).Result, 0u);
  b_.WaitNotifications(1);
  EXPECT_EQ(b_.NotificationNames(), (std::vector<std::string>{"DEFAULT_TARGET_CHANGED"}));
}

TEST_F(TargetsTest, NotificationsKeepTheOrderOfTheChanges) {
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  const uint32_t one = HandleOf(a_, u"kit-one");
  const uint32_t two = HandleOf(a_, u"kit-two");
  // Two clients change the default at once; b sees every change in an order that chains.
  auto flip = [&](Client& client, uint32_t handle) {
    for (int i = 0; i < 25; ++i) {
      CSetDefaultTargetRequest set_default;
      set_default.Handle = handle;
      EXPECT_EQ(client.Call<CSetDefaultTargetResponse>(kNone, set_default).Result, 0u);
    }
  };
  Client c{user_};
  std::thread other([&] { flip(c, two); });
  flip(a_, one);
  other.join();
  const uint32_t final_default =
      a_.Call<CGetDefaultTargetResponse>(kNone, CGetDefaultTargetRequest{}).Handle;
  // Each notification's old handle is the previous one's new handle.
  ASSERT_TRUE(WaitUntil([&] {
    const auto all = b_.Notifications();
    return !all.empty() &&
           As<CDefaultTargetChangedNotification>(all.back())->NewHandle == final_default;
  }));
  uint32_t previous = one;  // the scenario's default
  for (const auto& notification : b_.Notifications()) {
    const auto* changed = As<CDefaultTargetChangedNotification>(notification);
    ASSERT_NE(changed, nullptr);
    EXPECT_EQ(changed->OldHandle, previous);
    EXPECT_NE(changed->NewHandle, changed->OldHandle);
    previous = changed->NewHandle;
  }
}

TEST_F(TargetsTest, SummaryAnswersForReachableKits) {
  CGetTargetSummaryRequest summary;
  summary.Host = u"kit-spare";
  EXPECT_EQ(a_.Call<CGetTargetSummaryResponse>(kNone, summary).Result, 0u);
  summary.Host = u"kit-gone";
  EXPECT_EQ(a_.Call<CGetTargetSummaryResponse>(kNone, summary).Result,
            Code(KXAPI_COMMS_ERR_NO_CONNECT));
}

TEST_F(BuiltInTargetsTest, FindingTargetsReportsTheKitsInEachRange) {
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  CFindTargetsRequest find;
  // 192.168.40.0 to .11 holds Alpha; .12 to .20 Beta; 10.2.0.0/24 nothing.
  find.Rules = {{0xC0A82800, 0xC0A8280B, 0xFFFFFF00},
                {0xC0A8280C, 0xC0A82814, 0xFFFFFF00},
                {0x0A020000, 0x0A0200FF, 0xFFFFFF00}};
  EXPECT_EQ(a_.Call<CFindTargetsResponse>(kNone, find).Result, 0u);
  const auto notifications = b_.WaitNotifications(3);
  ASSERT_EQ(notifications.size(), 3u);
  const WStringList expected[] = {{u"192.168.40.11"}, {u"192.168.40.12"}, {}};
  const uint32_t percentages[] = {33, 66, 100};
  for (size_t i = 0; i < 3; ++i) {
    const auto* progress = As<CTargetFindProgressNotification>(notifications[i]);
    ASSERT_NE(progress, nullptr);
    EXPECT_EQ(progress->Targets, expected[i]) << i;
    EXPECT_EQ(progress->Percentage, percentages[i]);
    EXPECT_EQ(progress->Result, 0u);
  }
  find.Rules = {{0x0A010009, 0x0A010002, 0}};
  EXPECT_EQ(a_.Call<CFindTargetsResponse>(kNone, find).Result, Code(KXAPI_SERVER_INVALID_ARG));
  EXPECT_EQ(a_.Call<CCancelFindTargetsResponse>(kNone, CCancelFindTargetsRequest{}).Result, 0u);
}

// Each search finds its own kind of kit only: FIND_TARGETS the first, the Mirador search the
// second, with the kit's host, name and MAC address.
TEST_F(TargetsTest, TheMiradorSearchFindsMiradorKitsOnly) {
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  CFindMiradorTargetsRequest find;
  find.Rules = {{0x0A010000, 0x0A0100FF, 0xFFFFFF00}};
  EXPECT_EQ(a_.Call<CFindMiradorTargetsResponse>(kNone, find).Result, 0u);
  CFindTargetsRequest plain;
  plain.Rules = find.Rules;
  EXPECT_EQ(a_.Call<CFindTargetsResponse>(kNone, plain).Result, 0u);
  const auto notifications = b_.WaitNotifications(2);
  ASSERT_EQ(notifications.size(), 2u);
  const auto* mirador = As<CMiradorTargetFindProgressNotification>(notifications[0]);
  ASSERT_NE(mirador, nullptr);
  ASSERT_EQ(mirador->FoundTargets.size(), 1u);
  EXPECT_EQ(mirador->FoundTargets[0].HostName, u"mirador-one");
  EXPECT_EQ(mirador->FoundTargets[0].Name, u"Mirador One");
  EXPECT_EQ(mirador->FoundTargets[0].MacAddress, (std::vector<uint8_t>{2, 0, 0, 0, 0, 9}));
  EXPECT_EQ(mirador->Percentage, 100u);
  const auto* first_kind = As<CTargetFindProgressNotification>(notifications[1]);
  ASSERT_NE(first_kind, nullptr);
  EXPECT_EQ(first_kind->Targets, (WStringList{u"10.1.0.1", u"10.1.0.2"}));
  find.Rules = {{0x0A010009, 0x0A010002, 0}};
  EXPECT_EQ(a_.Call<CFindMiradorTargetsResponse>(kNone, find).Result,
            Code(KXAPI_SERVER_INVALID_ARG));
  EXPECT_EQ(
      a_.Call<CCancelFindMiradorTargetsResponse>(kNone, CCancelFindMiradorTargetsRequest{}).Result,
      0u);
}

// The two-file log turns to the other file when one is full, emptying it, and never splits a
// line; the network manager's log keeps the traffic to kits alone.
TEST_F(BuiltInTargetsTest, AlternatingAndNetworkManagerPacketLogs) {
  const auto first = TestRoot() / "packets-1.log";
  const auto second = TestRoot() / "packets-2.log";
  const auto kits = TestRoot() / "kits.log";
  CStartMultiFilePacketLoggingRequest two;
  two.FileName1 = platform::Utf8ToUtf16(first.string());
  two.FileName2 = platform::Utf8ToUtf16(second.string());
  two.Size = 400;
  EXPECT_EQ(a_.Call<CStartMultiFilePacketLoggingResponse>(kNone, two).Result, 0u);
  CStartNetMngrPacketLoggingRequest network;
  network.FileName = platform::Utf8ToUtf16(kits.string());
  EXPECT_EQ(a_.Call<CStartNetMngrPacketLoggingResponse>(kNone, network).Result, 0u);
  const uint32_t on = HandleOf(a_, kOnKit);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(a_.Call<CGetHostNameResponse>(on, CGetHostNameRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call<CStopPacketLoggingResponse>(kNone, CStopPacketLoggingRequest{}).Result, 0u);
  const auto info = a_.Call<CGetNetworkManagerInfoResponse>(kNone, CGetNetworkManagerInfoRequest{});
  EXPECT_EQ(
      a_.Call<CStopNetMngrPacketLoggingResponse>(kNone, CStopNetMngrPacketLoggingRequest{}).Result,
      0u);
  for (const auto& path : {first, second}) {
    const std::string log = ReadText(path);
    EXPECT_LE(log.size(), 400u) << path;
    EXPECT_TRUE(!log.empty() && log.back() == '\n') << log;
    EXPECT_NE(log.find("GET_HOST_NAME"), std::string::npos) << log;
  }
  const std::string kit_log = ReadText(kits);
  EXPECT_NE(kit_log.find("REQUEST GET_HOST_NAME"), std::string::npos) << kit_log;
  EXPECT_EQ(kit_log.find("GET_TARGETS_BY_HOST"), std::string::npos) << kit_log;
  std::map<std::u16string, std::u16string> values;
  for (const NameValue& pair : info.Info)
    values[pair.Name] = pair.Value;
  EXPECT_EQ(values[u"Requests"], u"6");
  EXPECT_EQ(values[u"PacketLog"], network.FileName);

  // Refusals: one file twice, a size of 0.
  two.FileName2 = two.FileName1;
  EXPECT_EQ(a_.Call<CStartMultiFilePacketLoggingResponse>(kNone, two).Result,
            Code(KXAPI_SERVER_INVALID_ARG));
  two.FileName2 = platform::Utf8ToUtf16(second.string());
  two.Size = 0;
  EXPECT_EQ(a_.Call<CStartMultiFilePacketLoggingResponse>(kNone, two).Result,
            Code(KXAPI_SERVER_INVALID_ARG));
}

TEST_F(BuiltInTargetsTest, PacketLoggingWritesEveryRequestAndAnswer) {
  const auto path = TestRoot() / "packets.log";
  CStartPacketLoggingRequest start;
  start.FileName = platform::Utf8ToUtf16(path.string());
  EXPECT_EQ(a_.Call<CStartPacketLoggingResponse>(kNone, start).Result, 0u);
  EXPECT_EQ(a_.Call<CGetTargetListResponse>(kNone, CGetTargetListRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call<CGetHostNameResponse>(4242, CGetHostNameRequest{}).Result,
            Code(KXAPI_SERVER_INVALID_TARGET));
  // Notifications are logged as they are sent, to the client they are sent to.
  const uint32_t on = HandleOf(a_, kOnKit);
  Subscribe<CRequestTargetEventsRequest>(b_, on);
  CSetTargetNameRequest rename;
  rename.Name = u"Logged";
  EXPECT_EQ(a_.Call<CSetTargetNameResponse>(on, rename).Result, 0u);
  b_.WaitNotifications(1);
  EXPECT_EQ(a_.Call<CStopPacketLoggingResponse>(kNone, CStopPacketLoggingRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call<CGetServerVersionResponse>(kNone, CGetServerVersionRequest{}).Result, 0u);
  const std::string log = ReadText(path);
  EXPECT_NE(log.find("REQUEST GET_TARGET_LIST"), std::string::npos) << log;
  EXPECT_NE(log.find("RESPONSE GET_TARGET_LIST { Result:0x00000000"), std::string::npos) << log;
  EXPECT_NE(log.find("RESPONSE GET_HOST_NAME { Result:0x8004020F"), std::string::npos) << log;
  EXPECT_NE(
      log.find("NOTIFICATION NAME_UPDATE { TargetKey:" + std::to_string(on) + " Name:Logged }"),
      std::string::npos)
      << log;
  EXPECT_EQ(log.find("GET_SERVER_VERSION"), std::string::npos) << log;
  start.FileName.clear();
  EXPECT_EQ(a_.Call<CStartPacketLoggingResponse>(kNone, start).Result,
            Code(KXAPI_SERVER_INVALID_ARG));
}

}  // namespace
}  // namespace qv::servertest
