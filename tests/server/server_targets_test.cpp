// vesta-kx as a process (one per user, a clean end when asked to stop, its options and its refusal
// of a bad scenario), and the target operations of a running one, through the library's server
// link.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>

#include "platform/wide_string.h"
#include "requests/target_states.h"
#include "server_harness.h"

namespace qv::servertest {
namespace {

using namespace std::string_literals;

class TargetsTest : public ServerTest {
 protected:
  template <class Request>
  void Subscribe(Client& client, uint32_t key) {
    EXPECT_EQ(client.Call(key, Request{}).Result, 0u);
  }
  CAddTargetResponse Add(const std::u16string& host, const std::u16string& type = u"VE") {
    CAddTargetRequest add;
    add.TargetType = type;
    add.HostName = host;
    return a_.Call(kNone, add);
  }
  static uint32_t SetDefault(Client& client, uint32_t handle) {
    CSetDefaultTargetRequest set_default;
    set_default.Handle = handle;
    return client.Call(kNone, set_default).Result;
  }
  uint32_t Rename(uint32_t handle, const std::u16string& name) {
    CSetTargetNameRequest rename;
    rename.Name = name;
    return a_.Call(handle, rename).Result;
  }
  // The notifications `client` has had once there are `count`, each with all its fields.
  static std::vector<std::string> Shown(Client& client, size_t count) {
    std::vector<std::string> shown;
    for (const auto& notification : client.WaitNotifications(count))
      shown.push_back(platform::Utf16ToUtf8(notification->GetName()) + " " +
                      notification->ToString());
    return shown;
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

TEST_F(TargetsTest, AddingAHostTwiceGivesOneTargetAndOneNotification) {
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  // The second subscription changes nothing: still one notification per change.
  Subscribe<CRequestServerEventsRequest>(b_, kNone);

  const auto first = Add(u"kit-spare");
  ASSERT_EQ(first.Result, 0u);
  EXPECT_NE(first.Handle, kNone);
  const auto second = Add(u"Kit-Spare");
  EXPECT_EQ(second.Result, 0u);
  EXPECT_EQ(second.Handle, first.Handle);

  // A later change proves that nothing else was queued for b in between.
  EXPECT_EQ(SetDefault(a_, first.Handle), 0u);
  const std::string spare = std::to_string(first.Handle),
                    one = std::to_string(a_.HandleOf(u"kit-one"));
  EXPECT_EQ(Shown(b_, 2),
            (std::vector<std::string>{
                "TARGET_ADDED { TargetKey:4294967295 HostName:kit-spare Handle:" + spare + " }",
                "DEFAULT_TARGET_CHANGED { TargetKey:4294967295 OldHostName:kit-one "
                "NewHostName:kit-spare OldHandle:" +
                    one + " NewHandle:" + spare + " }"}));
  // The client that made the changes did not subscribe and heard nothing.
  EXPECT_TRUE(a_.Notifications().empty());
}

TEST_F(BuiltInTargetsTest, RefusesBadTargetsAndUnknownHostsNeverAnswer) {
  const struct {
    std::u16string type, host;
    eErrorCode expected;
  } cases[] = {
      {u"Console", u"kit-x", KXAPI_SERVER_INVALID_TARGET_TYPE},  // an unknown type
      {u"VE", u"", KXAPI_SERVER_INVALID_ARG},
  };
  for (const auto& c : cases) {
    const auto response = Add(c.host, c.type);
    EXPECT_EQ(response.Result, Code(c.expected)) << platform::Utf16ToUtf8(c.type);
    EXPECT_FALSE(response.ResultText.empty()) << platform::Utf16ToUtf8(c.type);
  }
  // Operations on a handle nobody registered (GET_HOST_NAME's is in the packet log's test).
  EXPECT_EQ(a_.Call(kNone, CPowerOnRequest{}).Result, Code(KXAPI_SERVER_INVALID_TARGET));
  EXPECT_EQ(a_.Call(4242, CCancelCurrentCommandRequest{}).Result,
            Code(KXAPI_SERVER_INVALID_TARGET));
  EXPECT_EQ(SetDefault(a_, 4242), Code(KXAPI_SERVER_INVALID_TARGET));

  // An unknown host can be added, but it never answers.
  const auto added = Add(u"nobody.example");
  ASSERT_EQ(added.Result, 0u);
  for (uint32_t handle : {added.Handle, a_.HandleOf(kSilentHost)}) {
    const auto connect = a_.Call(handle, CTargetConnectRequest{});
    EXPECT_EQ(connect.Result, Code(KXAPI_COMMS_ERR_NO_CONNECT));
    EXPECT_NE(platform::Utf16ToUtf8(connect.ResultText).find("no kit answers"), std::string::npos);
    EXPECT_EQ(a_.Call(handle, CPowerStatusRequest{}).Result, Code(KXAPI_COMMS_ERR_NO_CONNECT));
  }
  // The cached name does not need the kit.
  const auto cached = a_.Call(added.Handle, CGetCachedTargetNameRequest{});
  EXPECT_EQ(cached.Result, 0u);
  EXPECT_EQ(cached.Name, u"nobody.example");
}

TEST_F(TargetsTest, ListsAndFindsTargetsByHostAndByName) {
  const struct {
    bool by_name;
    std::u16string key;
    size_t found;
    eErrorCode result;
  } cases[] = {
      {false, u"kit-two", 1, KXAPI_SUCCESS},    {false, u"KIT-TWO", 1, KXAPI_SUCCESS},
      {false, u"kit-spare", 0, KXAPI_SUCCESS},  {false, u"", 0, KXAPI_SERVER_INVALID_ARG},
      {true, u"Two", 1, KXAPI_SUCCESS},         {true, u"kit-two", 0, KXAPI_SUCCESS},
      {true, u"", 0, KXAPI_SERVER_INVALID_ARG},
  };
  const auto found = [](const auto& response) {
    return std::pair(response.Result, response.Targets.size());
  };
  for (const auto& c : cases) {
    CGetTargetsByNameRequest by_name;
    by_name.Name = c.key;
    CGetTargetsByHostRequest by_host;
    by_host.HostName = c.key;
    EXPECT_EQ(c.by_name ? found(a_.Call(kNone, by_name)) : found(a_.Call(kNone, by_host)),
              std::pair(Code(c.result), c.found))
        << c.by_name << " " << platform::Utf16ToUtf8(c.key);
  }
  // The list of registered kits in the scenario's order is vesta-ctrl's (targets).
  // A summary needs the kit to answer, not to be registered.
  CGetTargetSummaryRequest summary;
  summary.Host = u"kit-spare";
  EXPECT_EQ(a_.Call(kNone, summary).Result, 0u);
  summary.Host = u"kit-gone";
  EXPECT_EQ(a_.Call(kNone, summary).Result, Code(KXAPI_COMMS_ERR_NO_CONNECT));
}

// The states themselves, and the refusals of power-on when on and power-off when off, are the
// target objects' test, and a power-off's course the API's event test; here what subscribers are
// told of a power-on, and that an off kit cannot reboot.
TEST_F(TargetsTest, PowerChangesTellSubscribersTheirCourse) {
  const uint32_t two = a_.HandleOf(u"kit-two");
  Subscribe<CRequestTargetEventsRequest>(b_, two);
  EXPECT_EQ(a_.Call(two, CRebootRequest{}).Result, Code(KXAPI_COMMS_ERR_INVALID_POWER_STATE));
  EXPECT_EQ(a_.Call(two, CPowerOnRequest{}).Result, 0u);
  // Operation 0 is a power-on; progress 0 started, 1 completed.
  const std::string key = "{ TargetKey:" + std::to_string(two) + " ";
  EXPECT_EQ(Shown(b_, 4),
            (std::vector<std::string>{
                "BUSY " + key + "}", "POWER_STATE " + key + "Operation:0 Progress:0 }",
                "POWER_STATE " + key + "Operation:0 Progress:1 }", "IDLE " + key + "}"}));
}

// kit-slow takes twenty seconds to boot and kit-one's connection is b's: a's power-on and a's
// request for the connection wait, the other client is answered meanwhile, and a's cancel of its
// own commands ends both.
TEST_F(TargetsTest, ASlowRequestHoldsUpNoOtherClientAndItsOwnClientCancelsIt) {
  const uint32_t slow = a_.HandleOf(u"kit-slow"), one = a_.HandleOf(u"kit-one");
  EXPECT_EQ(b_.Call(one, CRequestConnectionRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call(one, CReleaseConnectionRequest{}).Result, Code(KXAPI_COMMS_ERR_NOT_CONNECTED));
  std::future<uint32_t> waits[] = {
      std::async(std::launch::async, [&] { return a_.Call(slow, CPowerOnRequest{}).Result; }),
      std::async(std::launch::async,
                 [&] { return a_.Call(one, CRequestConnectionRequest{}).Result; })};
  ASSERT_TRUE(
      WaitUntil([&] { return b_.Call(slow, CGetTargetBusyStateRequest{}).BusyCount == 1; }));
  // A second power change waits for nobody: it is refused at once while the first runs.
  EXPECT_EQ(b_.Call(slow, CPowerOnRequest{}).Result, Code(KXAPI_COMMS_ERR_BUSY));
  // The request for the connection is given time to arrive; the power-on is known to run.
  EXPECT_EQ(waits[1].wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  EXPECT_EQ(waits[0].wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(a_.Call(kNone, CCancelMyCommandsRequest{}).Result, 0u);
  for (auto& wait : waits)
    EXPECT_EQ(wait.get(), Code(KXAPI_COMMS_ERR_OPERATION_CANCELLED));
  EXPECT_EQ(b_.Call(one, CConnectionStateRequest{}).State,
            static_cast<uint32_t>(ConnectionState::kConnected));
}

TEST_F(BuiltInTargetsTest, TheHolderOfAConnectionHearsItTakenAndALeavingClientGivesItBack) {
  const uint32_t one = a_.HandleOf(kOnKit);
  Subscribe<CRequestTargetEventsRequest>(a_, one);
  auto state = [&](Client& client) {
    return static_cast<ConnectionState>(client.Call(one, CConnectionStateRequest{}).State);
  };
  EXPECT_EQ(a_.Call(one, CTargetConnectRequest{}).Result, 0u);
  EXPECT_EQ(b_.Call(one, CForceDisconnectRequest{}).Result, 0u);
  const auto notifications = a_.WaitNotifications(4);
  ASSERT_EQ(a_.NotificationNames(),
            (std::vector<std::string>{"CONNECT", "CONNECTED", "FORCE_DISCONNECTED", "CONNECTED"}));
  EXPECT_NE(platform::Utf16ToUtf8(As<CForceDisconnectedNotification>(notifications[2])->Requester)
                .find("process"),
            std::string::npos);

  // A client that goes away gives its connections back, which the others hear.
  b_.link().Disconnect();
  EXPECT_TRUE(WaitUntil([&] { return state(a_) == ConnectionState::kAvailable; }));
  a_.WaitNotifications(5);
  EXPECT_EQ(a_.NotificationNames().back(), "DISCONNECT");
}

// The NAME_UPDATE a rename sends its subscribers is in the packet log's test below.
TEST_F(TargetsTest, TheServerChecksWhatClientsSetAndOthersReadIt) {
  const uint32_t one = a_.HandleOf(u"kit-one");
  EXPECT_EQ(Rename(one, u"Renamed"), 0u);
  EXPECT_EQ(a_.Call(one, CGetTargetNameRequest{}).Name, u"Renamed");
  CGetTargetsByNameRequest by_name;
  by_name.Name = u"renamed";
  EXPECT_EQ(a_.Call(kNone, by_name).Targets, (U32List{one}));
  EXPECT_EQ(Rename(one, u""), Code(KXAPI_SERVER_INVALID_ARG));

  CSetCachedMacAddressRequest set_mac;
  set_mac.MacAddress = {1, 2, 3};
  EXPECT_EQ(a_.Call(one, set_mac).Result, Code(KXAPI_SERVER_INVALID_ARG));
  set_mac.MacAddress = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(a_.Call(one, set_mac).Result, 0u);
  EXPECT_EQ(b_.Call(one, CGetMacAddressRequest{}).MacAddress, set_mac.MacAddress);
}

TEST_F(BuiltInTargetsTest, SubscriptionsAreOnePerClientGroupAndKey) {
  const uint32_t one = a_.HandleOf(kOnKit);
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
  EXPECT_EQ(a_.Call(4242, CRequestTargetEventsRequest{}).Result, Code(KXAPI_SERVER_INVALID_TARGET));

  // After subscribe, subscribe, cancel, no notification arrives.
  Subscribe<CRequestTargetEventsRequest>(b_, one);
  Subscribe<CRequestTargetEventsRequest>(b_, one);
  EXPECT_EQ(b_.Call(one, CCancelTargetEventsRequest{}).Result, 0u);
  EXPECT_EQ(Rename(one, u"Quiet"), 0u);
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  EXPECT_EQ(SetDefault(a_, a_.HandleOf(kOffKit)), 0u);
  b_.WaitNotifications(1);
  EXPECT_EQ(b_.NotificationNames(), (std::vector<std::string>{"DEFAULT_TARGET_CHANGED"}));
}

TEST_F(TargetsTest, NotificationsKeepTheOrderOfTheChanges) {
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  const uint32_t one = a_.HandleOf(u"kit-one");
  const uint32_t two = a_.HandleOf(u"kit-two");
  // Two clients change the default at once; b sees every change in an order that chains.
  auto flip = [&](Client& client, uint32_t handle) {
    for (int i = 0; i < 25; ++i)
      EXPECT_EQ(SetDefault(client, handle), 0u);
  };
  Client c{user_};
  std::thread other([&] { flip(c, two); });
  flip(a_, one);
  other.join();
  const uint32_t final_default = a_.Call(kNone, CGetDefaultTargetRequest{}).Handle;
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

// Each search finds its own kind of kit only: FIND_TARGETS the addresses of the first, one
// progress per range, the Mirador search the second's host, name and MAC address.
TEST_F(TargetsTest, EachSearchReportsItsOwnKindOfKitInEachRange) {
  Subscribe<CRequestServerEventsRequest>(b_, kNone);
  CFindTargetsRequest find;
  // 10.1.0.0 to .1 holds kit-one; .2 to .20 kit-two and the Mirador kit; 10.2.0.0/24 nothing.
  find.Rules = {{0x0A010000, 0x0A010001, 0xFFFFFF00},
                {0x0A010002, 0x0A010014, 0xFFFFFF00},
                {0x0A020000, 0x0A0200FF, 0xFFFFFF00}};
  EXPECT_EQ(a_.Call(kNone, find).Result, 0u);
  CFindMiradorTargetsRequest mirador_find;
  mirador_find.Rules = {find.Rules[1]};
  EXPECT_EQ(a_.Call(kNone, mirador_find).Result, 0u);
  const std::string progress = "TARGET_FIND_PROGRESS { TargetKey:4294967295 Targets:";
  EXPECT_EQ(Shown(b_, 4),
            (std::vector<std::string>{
                progress + "1{ 10.1.0.1 } Result:0 Percentage:33 }",
                progress + "1{ 10.1.0.2 } Result:0 Percentage:66 }",
                progress + "0{ } Result:0 Percentage:100 }",
                "MIRADOR_TARGET_FIND_PROGRESS { TargetKey:4294967295 Phase:1 NumberOfPhases:1 "
                "Percentage:100 Result:0 Flags:0 EstimatedDuration:0 Description:searching for "
                "Mirador kits FoundTargets:1{ "
                "{ HostName:mirador-one Name:Mirador One MacAddress:6{ 2 0 0 0 0 9 } } } }",
            }));
  // A range that runs backwards is refused (FIND_TARGETS's refusal and cancel are the root
  // object's test in tests/api).
  mirador_find.Rules = {{0x0A010009, 0x0A010002, 0}};
  EXPECT_EQ(a_.Call(kNone, mirador_find).Result, Code(KXAPI_SERVER_INVALID_ARG));
  EXPECT_EQ(a_.Call(kNone, CCancelFindMiradorTargetsRequest{}).Result, 0u);
}

// The two-file log turns to the other file when one is full, emptying it, and never splits a
// line; the network manager's log keeps the traffic to kits alone; the one-file log holds every
// request, answer and notification until it is stopped.
TEST_F(BuiltInTargetsTest, PacketLogsHoldWhatTheyShouldAndNoMore) {
  const auto first = TestRoot() / "packets-1.log";
  const auto second = TestRoot() / "packets-2.log";
  const auto kits = TestRoot() / "kits.log";
  const auto path = TestRoot() / "packets.log";
  CStartMultiFilePacketLoggingRequest two;
  two.FileName1 = platform::Utf8ToUtf16(first.string());
  two.FileName2 = platform::Utf8ToUtf16(second.string());
  two.Size = 400;
  EXPECT_EQ(a_.Call(kNone, two).Result, 0u);
  CStartNetMngrPacketLoggingRequest network;
  network.FileName = platform::Utf8ToUtf16(kits.string());
  EXPECT_EQ(a_.Call(kNone, network).Result, 0u);
  const uint32_t on = a_.HandleOf(kOnKit);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(a_.Call(on, CGetHostNameRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call(kNone, CStopPacketLoggingRequest{}).Result, 0u);
  const auto info = a_.Call(kNone, CGetNetworkManagerInfoRequest{});
  EXPECT_EQ(a_.Call(kNone, CStopNetMngrPacketLoggingRequest{}).Result, 0u);
  for (const auto& file : {first, second}) {
    const std::string log = ReadText(file);
    EXPECT_LE(log.size(), 400u) << file;
    EXPECT_TRUE(!log.empty() && log.back() == '\n') << log;
    EXPECT_NE(log.find("GET_HOST_NAME"), std::string::npos) << log;
  }
  std::map<std::u16string, std::u16string> values;
  for (const NameValue& pair : info.Info)
    values[pair.Name] = pair.Value;
  EXPECT_EQ(values[u"Requests"], u"6");
  EXPECT_EQ(values[u"PacketLog"], network.FileName);

  CStartPacketLoggingRequest start;
  start.FileName = platform::Utf8ToUtf16(path.string());
  EXPECT_EQ(a_.Call(kNone, start).Result, 0u);
  EXPECT_EQ(a_.Call(kNone, CGetTargetListRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call(4242, CGetHostNameRequest{}).Result, Code(KXAPI_SERVER_INVALID_TARGET));
  // Notifications are logged as they are sent, to the client they are sent to.
  Subscribe<CRequestTargetEventsRequest>(b_, on);
  EXPECT_EQ(Rename(on, u"Logged"), 0u);
  b_.WaitNotifications(1);
  EXPECT_EQ(a_.Call(kNone, CStopPacketLoggingRequest{}).Result, 0u);
  EXPECT_EQ(a_.Call(kNone, CGetServerVersionRequest{}).Result, 0u);
  const std::string kit_log = ReadText(kits), log = ReadText(path);
  EXPECT_NE(kit_log.find("REQUEST GET_HOST_NAME"), std::string::npos) << kit_log;
  EXPECT_EQ(kit_log.find("GET_TARGETS_BY_HOST"), std::string::npos) << kit_log;
  for (const std::string& line :
       {"REQUEST GET_TARGET_LIST"s, "RESPONSE GET_TARGET_LIST { Result:0x00000000"s,
        "RESPONSE GET_HOST_NAME { Result:0x8004020F"s,
        "NOTIFICATION NAME_UPDATE { TargetKey:" + std::to_string(on) + " Name:Logged }"})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
  EXPECT_EQ(log.find("GET_SERVER_VERSION"), std::string::npos) << log;  // after the stop

  // Refusals: one file twice, a size of 0, no file.
  two.FileName2 = two.FileName1;
  EXPECT_EQ(a_.Call(kNone, two).Result, Code(KXAPI_SERVER_INVALID_ARG));
  two.FileName2 = platform::Utf8ToUtf16(second.string());
  two.Size = 0;
  EXPECT_EQ(a_.Call(kNone, two).Result, Code(KXAPI_SERVER_INVALID_ARG));
  start.FileName.clear();
  EXPECT_EQ(a_.Call(kNone, start).Result, Code(KXAPI_SERVER_INVALID_ARG));
}

// Whether the well-known pipe of `user` exists as a file (POSIX sockets; Windows pipes are
// never files, so there it is only ever absent).
bool WellKnownSocketExists(const std::u16string& user) {
  return !RunDir().empty() && std::filesystem::exists(std::filesystem::path(RunDir()) /
                                                      ("qv_ve_svr_" + platform::Utf16ToUtf8(user)));
}

TEST(ServerProcessTest, ASecondServerExitsAtOnceAndTheFirstEndsCleanlyWhenAsked) {
  const std::u16string user = TestUser();
  ServerProcess first(user, {"--log-level", "4"}, "first");
  ASSERT_TRUE(first.Started());
  ASSERT_TRUE(first.WaitReady()) << first.Output();
  EXPECT_EQ(WellKnownSocketExists(user), !RunDir().empty());

  ServerProcess second(user, {}, "second");
  ASSERT_TRUE(second.Started());
  EXPECT_EQ(second.Wait(10000), std::optional<int>(3));
  EXPECT_NE(second.Output().find("another vesta-kx already serves"), std::string::npos)
      << second.Output();

  // The first one still serves, on the built-in scenario.
  {
    Client client(user);
    const auto list = client.Call(kNone, CGetTargetListRequest{});
#ifdef __linux__
    EXPECT_EQ(list.Targets.size(), 4u);  // and the local target
#else
    EXPECT_EQ(list.Targets.size(), 3u);
#endif
  }
  first.StopCleanly();
  // Level 4 logs every request with its result.
  EXPECT_NE(first.Output().find("GET_TARGET_LIST target 4294967295 -> 0x00000000"),
            std::string::npos)
      << first.Output();
  EXPECT_FALSE(WellKnownSocketExists(user));
  EXPECT_FALSE(platform::ServerIsReady(user, RunDir(), 0));

  // With the first gone, a new one may serve.
  ServerProcess third(user, {}, "third");
  ASSERT_TRUE(third.WaitReady()) << third.Output();
  third.StopCleanly();
}

TEST(ServerProcessTest, OptionsAndScenarioMistakesThatEndAtOnce) {
  const std::string bad = WriteScenario("kits:\n  - host: a\n    power: sideways\n", "bad");
  const struct {
    std::vector<std::string> args;
    int code;
    std::string output;
  } cases[] = {
      {{"--version"}, 0, "vesta-kx 5.0.10.0"},
      {{"--help"}, 0, "--scenario FILE"},
      {{"--scenario"}, 2, "needs a value"},
      {{"--runtime-dir", "/tmp"}, 2, "unknown argument '--runtime-dir'"},
      {{"--scenario", "/nonexistent/kits.yaml"}, 2, "/nonexistent/kits.yaml: cannot be opened"},
      // A scenario's mistake is named with its file and line.
      {{"--scenario", bad}, 2, bad + ":3: 'power' must be on, off or standby"},
  };
  const std::u16string user = TestUser();
  for (const auto& c : cases) {
    ServerProcess process(user, c.args, "options");
    ASSERT_TRUE(process.Started());
    EXPECT_EQ(process.Wait(10000), std::optional<int>(c.code)) << c.args[0];
    EXPECT_NE(process.Output().find(c.output), std::string::npos) << process.Output();
  }
  // None of them left a server behind.
  EXPECT_FALSE(platform::ServerIsReady(user, RunDir(), 0));
}

}  // namespace
}  // namespace qv::servertest
