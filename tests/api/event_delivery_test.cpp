// Events through the public objects against a real vesta-kx whose kit scripts push the
// notifications: every notification of the catalogue reaching its sink method with its values
// until the target is deleted, the advise rules and subscriptions that survive a server restart,
// slow, failing and leaving sinks, and the console acknowledgement, cache and input.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <regex>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "api/event_sink_recorder.h"
#include "api/live_api.h"
#include "events/notify_clients.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "server/targets/console_pacing.h"
#include "serverlink/log.h"
#include "support/field_filler.h"
#include "vekxapi/result_codes.h"

namespace qv::apitest {
namespace {

using servertest::WaitUntil;

// ---- Scenarios: two kits with quick power changes, and their scripts. ----

// A script step sent `repeat` times; `fields` is a flow mapping ("{Port: 1}") whose text fields
// may number each sending with "{n}", from 0.
std::string Step(const std::string& wire_name, const std::string& fields = "", int after_ms = 0,
                 int repeat = 1) {
  std::string text = "          - notification: " + wire_name + "\n";
  if (after_ms != 0) text += "            after_ms: " + std::to_string(after_ms) + "\n";
  if (repeat != 1) text += "            repeat: " + std::to_string(repeat) + "\n";
  return fields.empty() ? text : text + "            fields: " + fields + "\n";
}

std::string Script(const std::vector<std::string>& steps) {
  std::string text = "      - steps:\n";
  for (const std::string& step : steps)
    text += step;
  return text;
}

std::string TwoKits(const std::string& kit_one_scripts, const std::string& kit_two_scripts = "") {
  std::string text = "kits:\n";
  for (const auto& [host, scripts] :
       {std::pair{"kit-one", kit_one_scripts}, std::pair{"kit-two", kit_two_scripts}}) {
    text += std::string("  - host: ") + host +
            "\n    power: on\n    timings: {boot_ms: 30, power_off_ms: 20, connect_ms: 10}\n";
    if (!scripts.empty()) text += "    scripts:\n" + scripts;
  }
  return text;
}

std::vector<std::string> Sequence(int from, int to) {
  std::vector<std::string> numbers;
  for (int i = from; i <= to; ++i)
    numbers.push_back(std::to_string(i));
  return numbers;
}

// ---- Notifications with distinct values, the text each field should read as, and the YAML that
// makes a kit script send them. ----

// A value as the recorder reads it from the event (a record as the list of its fields, the event
// header as its little-endian bytes), or with `yaml` as a kit script writes it in YAML's one-line
// forms (a record as a mapping that skips padding and the target key, which the server fills in).
template <class T>
std::string Text(const T& value, bool yaml) {
  if constexpr (std::is_same_v<T, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::is_arithmetic_v<T>) {
    return std::to_string(value);
  } else if constexpr (std::is_same_v<T, std::u16string>) {
    return yaml ? "\"" + platform::Utf16ToUtf8(value) + "\"" : platform::Utf16ToUtf8(value);
  } else if constexpr (IsWireRecord<T>) {
    if (std::is_same_v<T, EventHeader> && !yaml) {
      Bytes image(sizeof value);
      std::memcpy(image.data(), &value, sizeof value);  // Id, Type, Timestamp, no padding
      return Text(image, false);
    }
    std::string fields;
    T record = value;
    T::VisitFields(record, [&](std::string_view label, auto& field) {
      const std::string name(label.substr(0, label.empty() ? 0 : label.size() - 1));
      if (yaml && (name.empty() || name == "TargetKey")) return;
      fields += (fields.empty() ? "" : ",") + (yaml ? name + ": " : "") + Text(field, yaml);
    });
    return yaml ? "{" + fields + "}" : "[" + fields + "]";
  } else {
    std::string items;
    for (const auto& item : value) {
      if constexpr (std::is_same_v<T, Bytes>) {
        if (yaml) {  // as hex pairs
          char pair[4];
          std::snprintf(pair, sizeof pair, "%02x", item);
          items += pair;
          continue;
        }
      }
      items += (items.empty() ? "" : ",") + Text(item, yaml);
    }
    return std::is_same_v<T, Bytes> && yaml ? "\"" + items + "\"" : "[" + items + "]";
  }
}

// What a script can send; the debug records behind a debug event's objects are left out.
template <class T>
inline constexpr bool kScripted =
    std::is_arithmetic_v<T> || std::is_same_v<T, std::u16string> || std::is_same_v<T, Bytes> ||
    std::is_same_v<T, U32List> || std::is_same_v<T, WStringList> ||
    std::is_same_v<T, MiradorTargetList> || std::is_same_v<T, EventHeader>;

// Gives every field of a `Notification` a value of its own from `filler`, keeps in `expected` the
// text that each (but the target key) should read as from the event, and returns the script step
// that sends those values.
template <class Notification>
std::string Fill(testing::FieldFiller& filler, std::map<std::string, std::string>& expected) {
  Notification notification;
  Notification::VisitFields(notification, filler);
  std::string fields;
  Notification::VisitFields(notification, [&](std::string_view label, auto& field) {
    using Field = std::remove_cvref_t<decltype(field)>;
    const std::string name(label.substr(0, label.size() - 1));  // "Name:" -> "Name"
    if (name == "TargetKey") return;
    if constexpr (kScripted<Field>) {
      expected[name] = Text(field, false);
      fields += (fields.empty() ? "" : ", ") + name + ": " + Text(field, true);
    } else {
      expected[name] = "record";  // the debug records behind object-valued properties
    }
  });
  return Step(platform::Utf16ToUtf8(Notification::kName), fields.empty() ? "" : "{" + fields + "}");
}

// By sink method, how many fields the debug objects are built from, which the event does not
// expose one by one: ThreadId, Process and Threads for a stop, else Module or ProcessId.
const std::map<std::string, size_t> kObjectSourceFields = {{"OnStopNotification", 3},
                                                           {"OnDynamicLibraryLoad", 1},
                                                           {"OnLoadExec", 1},
                                                           {"OnLoadExecFail", 1},
                                                           {"OnLoadExecTimeout", 1}};

// Each test serves a scenario of its own.
class LiveEventsTest : public LiveApiTest {
 protected:
  void SetUp() override {}
  std::string Scenario() const override { return scenario_; }
  void Serve(std::string scenario) {
    scenario_ = std::move(scenario);
    LiveApiTest::SetUp();
  }

  // A sink that lives until the test ends.
  template <class Sink = RecordingSink>
  Sink* NewSink() {
    const auto sink = vekx::MakeSink<Sink>();
    sinks_.emplace_back(sink.Get());
    return sink.Get();
  }

  // How many `request`s for `target` the packet log at `path` shows.
  static size_t Logged(const std::string& path, const std::string& request, uint32_t target) {
    const std::string log = servertest::ReadText(path);
    const std::regex line(" target " + std::to_string(target) + " seq [0-9]+ REQUEST " + request);
    return static_cast<size_t>(
        std::distance(std::sregex_iterator(log.begin(), log.end(), line), std::sregex_iterator()));
  }

  std::string scenario_;
  std::vector<vekx::ComPtr<IEventTarget>> sinks_;  // the test's reference to each sink
};

TEST_F(LiveEventsTest, EveryNotificationReachesItsSinkUntilItsTargetIsDeleted) {
  // One script per sink method, started when its group is first advised.
  std::map<std::string, std::map<std::string, std::string>> expected;  // by sink method
  std::string scripts;
  testing::FieldFiller filler;  // one for all: no two notifications carry the same values
#define VEKX_SINK_METHOD(Interface, Method, EventName) \
  scripts += Script({Fill<C##EventName##Notification>(filler, expected[#Method])});
#include "vekxapi/event_sinks.def"
  ASSERT_EQ(expected.size(), kNotificationCount - 1);  // all but DEVICE_READY reach a sink
  ASSERT_NO_FATAL_FAILURE(Serve(TwoKits(scripts)));
  const auto target = Target("kit-one");
  ASSERT_TRUE(target);
  const ULONG handle = HandleOf(target);

  const std::string log_path = ::testing::TempDir() + "vkxevt_notify.log";
  std::remove(log_path.c_str());
  Log& log = LibraryLog();
  ASSERT_TRUE(log.SetFile(log_path));
  log.SetLevel(Log::kPackets);
  auto* sink = NewSink();
  // Every group. Generic protocol sinks come with the channels that open them, which vesta-kx
  // does not serve yet; the private client files one directly.
  for (const HRESULT advised :
       {api_->AdviseServerEvents(sink), target->AdviseTargetEvents(sink),
        target->AdviseDebugEvents(sink), target->AdviseConsoleOutputEvents(sink),
        target->AdviseCacheUpdateEvents(sink), target->AdviseControllerEvents(sink),
        target->AdviseEventViewerEvents(sink), target->AdviseTrickleEvents(sink),
        target->AdviseProcessLockEvents(sink), target->AdviseHighFreqFileCopyEvents(sink),
        target->AdviseLowFreqFileCopyEvents(sink),
        client_->Advise(EventGroup::GenericProtocol,
                        CVEGenericProtocolEventNotifyClient::Make(client_, sink), handle)}) {
    ASSERT_OK(advised);
  }
  EXPECT_TRUE(WaitUntil([&] { return sink->CallCount() >= expected.size(); })) << sink->CallCount();
  log.SetLevel(Log::kSilent);
  log.SetStandardError();
  const std::string logged = servertest::ReadText(log_path);
  std::map<std::string, int> heard;
  for (const SinkCall& call : sink->Calls()) {
    SCOPED_TRACE(call.method);
    ASSERT_EQ(++heard[call.method], 1);  // nothing delivered twice
    EXPECT_NE(logged.find("MSG\tEVENT NOTIFY " + call.method + "\n"), std::string::npos);
    ASSERT_TRUE(expected.count(call.method));
    auto& values = expected[call.method];
    size_t objects = 0;
    for (const auto& [property, text] : call.properties) {
      if (text == "object") {
        ++objects;
        continue;
      }
      ASSERT_TRUE(values.count(property)) << property;
      EXPECT_EQ(text, values[property]) << property;
    }
    const auto source = kObjectSourceFields.find(call.method);
    const size_t sources = source == kObjectSourceFields.end() ? 0 : source->second;
    EXPECT_EQ(call.properties.size() - objects + sources, values.size());
    EXPECT_EQ(objects > 0, sources > 0);
  }
  EXPECT_EQ(heard.size(), expected.size());

  // Deleting the target drops its registrations in every group but the Server group's, and only
  // its own. The sweep follows the Server group's delivery on the notification thread.
  const auto two = Target("kit-two");
  auto* bystander = NewSink();
  ASSERT_OK(two->AdviseTargetEvents(bystander));
  ASSERT_OK(target->Delete());
  const auto left = [&] {
    size_t count = 0;
    for (size_t group = 0; group < kEventGroupCount; ++group)
      count += client_->RegistrationCount(static_cast<EventGroup>(group), handle);
    return count;
  };
  ASSERT_TRUE(WaitUntil([&] { return left() == 0; })) << left();
  EXPECT_EQ(sink->Values("OnTargetDeleted", "Handle").back(), std::to_string(handle));
  EXPECT_EQ(client_->RegistrationCount(EventGroup::Server, 0xFFFFFFFF), 1u);
  EXPECT_EQ(client_->RegistrationCount(EventGroup::Target, HandleOf(two)), 1u);
  // The deleted target's cache is refused, and the index and output stay as they were.
  ULONG index = 5;
  vekx::Variant untouched;
  EXPECT_EQ(target->CachedConsoleOutput(&index, untouched.Put()), KXAPI_SERVER_INVALID_TARGET);
  EXPECT_EQ(index, 5u);
  EXPECT_EQ(untouched.Get().vt, VT_EMPTY);

  // Added again, the kit is a new target; a sink advised on it hears its power change.
  const auto again = Target("kit-one");
  ASSERT_TRUE(again);
  auto* fresh = NewSink();
  ASSERT_OK(again->AdviseTargetEvents(fresh));
  ASSERT_OK(again->PowerOff());
  EXPECT_TRUE(WaitUntil([&] { return fresh->CallCount() == 4; }));
  std::vector<std::string> methods;
  for (const SinkCall& call : fresh->Calls())
    methods.push_back(call.method);
  EXPECT_EQ(methods,
            (std::vector<std::string>{"OnBusy", "OnPowerState", "OnPowerState", "OnIdle"}));
  // Its progress, 0 then 1, is the Python binding's (test_a_power_action_changes_the_state...); the
  // operation is the interface's own value, as a host compares it.
  const std::string off = std::to_string(POWER_OPERATION_OFF);
  EXPECT_EQ(fresh->Values("OnPowerState", "Operation"), (std::vector<std::string>{off, off}));
  EXPECT_EQ(bystander->CallCount(), 0u);
}

TEST_F(LiveEventsTest, SubscriptionsGoBySinkAndAreRenewedOnceWhenTheServerComesBack) {
  // Each script starts on its group's first subscription, in every run of the server.
  ASSERT_NO_FATAL_FAILURE(
      Serve(TwoKits(Script({Step("PROGRESS", "{Task: \"task {n}\"}", 0, 3)}) +
                        Script({Step("USB_TARGET_PLUGGED_IN", "{Address: 1}"),
                                Step("USB_TARGET_PLUGGED_IN", "{Address: 2}")}),
                    Script({Step("CONSOLE_OUTPUT", "{Port: 1, Text: \"line {n}\"}", 0, 2)}))));
  const auto one = Target("kit-one");
  const auto two = Target("kit-two");
  ASSERT_TRUE(one && two);
  auto* server = NewSink();
  auto* first = NewSink();
  auto* second = NewSink();  // beside `first`: the same group and key
  auto* console = NewSink();
  ASSERT_OK(api_->AdviseServerEvents(server));
  ASSERT_OK(two->AdviseConsoleOutputEvents(console));
  ASSERT_OK(one->AdviseTargetEvents(first));
  ASSERT_OK(one->AdviseTargetEvents(second));
  // The same object through another of its interfaces is the same sink.
  auto* as_later = reinterpret_cast<IEventTarget*>(static_cast<IEventTarget9*>(first));
  ASSERT_NE(static_cast<void*>(as_later), static_cast<void*>(static_cast<IEventTarget*>(first)));
  EXPECT_EQ(one->AdviseTargetEvents(as_later), KXAPI_ALREADY_REGISTERED);
  EXPECT_EQ(one->AdviseTargetEvents(nullptr), E_POINTER);
  EXPECT_EQ(api_->AdviseServerEvents(nullptr), E_POINTER);
  vekx::ComPtr<IVEKXAPI12> unchecked;
  ASSERT_OK(NewRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(unchecked.Put())));
  EXPECT_EQ(unchecked->AdviseServerEvents(server), KXAPI_INCOMPATIBLE_CLIENT);
  ASSERT_TRUE(WaitUntil([&] {
    return first->CallCount() == 3 && server->CallCount() == 2 && console->CallCount() == 2;
  }));

  server_->Kill();
  ASSERT_NO_FATAL_FAILURE(StartServer());
  // The server's packet log, started through a root of its own so that api_ does not connect.
  const std::string log =
      (servertest::TestRoot() / (platform::Utf16ToUtf8(user_) + ".packets")).string();
  std::remove(log.c_str());
  const vekx::ComPtr<IVEKXAPI12> logger = CheckedRoot();
  ASSERT_OK(logger->StartPacketLogging(B(log).Get()));
  logger->Dispose();
  for (RecordingSink* sink : {server, first, second, console})
    sink->Clear();
  EXPECT_OK(ServerVersion(api_.Get()));

  EXPECT_TRUE(WaitUntil([&] {
    return first->CallCount() == 3 && second->CallCount() == 3 && server->CallCount() == 2 &&
           console->CallCount() == 2;
  }));
  const std::vector<std::string> tasks{"task 0", "task 1", "task 2"};
  EXPECT_EQ(first->Values("OnProgress", "Task"), tasks);
  EXPECT_EQ(second->Values("OnProgress", "Task"), tasks);
  EXPECT_EQ(server->Values("OnUsbTargetPluggedIn", "Address"), Sequence(1, 2));
  EXPECT_EQ(console->Values("OnConsoleOutput", "Text"),
            (std::vector<std::string>{"line 0", "line 1"}));
  const ULONG one_handle = HandleOf(one);
  EXPECT_EQ(Logged(log, "REQUEST_TARGET_EVENTS", one_handle), 1u);
  EXPECT_EQ(Logged(log, "REQUEST_SERVER_EVENTS", 0xFFFFFFFF), 1u);
  EXPECT_EQ(Logged(log, "REQUEST_CONSOLE_OUTPUT_EVENTS", HandleOf(two)), 1u);

  // Each advise subscribes; only the last unadvise under a key cancels.
  auto* third = NewSink();
  ASSERT_OK(one->AdviseTargetEvents(third));
  EXPECT_EQ(Logged(log, "REQUEST_TARGET_EVENTS", one_handle), 2u);
  const struct {
    IEventTarget* sink;
    size_t left, cancels;
  } unadvised[] = {{as_later, 2, 0}, {third, 1, 0}, {second, 0, 1}};
  for (const auto& [sink, left, cancels] : unadvised) {
    EXPECT_OK(one->UnadviseTargetEvents(sink));
    EXPECT_EQ(client_->RegistrationCount(EventGroup::Target, one_handle), left);
    EXPECT_EQ(Logged(log, "CANCEL_TARGET_EVENTS", one_handle), cancels);
  }
}

TEST_F(LiveEventsTest, SlowFailingAndLeavingSinksHoldUpNothingElse) {
  // The Server-group step starts the script once both target sinks are in place.
  std::vector<std::string> steps{Step("USB_TARGET_PLUGGED_IN")};
  for (const std::string& i : Sequence(1, 5)) {
    steps.push_back(Step("PROGRESS", "{RequestId: " + i + "}"));
    steps.push_back(Step("DISPLAY_POWER_STATE", "{DisplayPowerState: " + i + "}"));  // version 7
  }
  ASSERT_NO_FATAL_FAILURE(Serve(TwoKits(Script(steps))));
  const auto target = Target("kit-one");
  ASSERT_TRUE(target);

  auto* slow = NewSink();
  std::atomic<bool> entered{false};
  std::atomic<bool> released{false};
  slow->result = E_FAIL;
  slow->on_call = [&] {
    if (!entered.exchange(true)) WaitUntil([&] { return released.load(); });
  };
  auto* base_only = NewSink<BaseOnlySink>();
  auto* quitter = NewSink();
  // On the notification thread, inside the group's delivery.
  quitter->on_call = [&] { target->UnadviseTargetEvents(quitter); };
  auto* fence = NewSink();
  for (IEventTarget* sink : std::initializer_list<IEventTarget*>{slow, base_only, quitter})
    ASSERT_OK(target->AdviseTargetEvents(sink));
  ASSERT_OK(api_->AdviseServerEvents(fence));
  ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));

  // The notification thread is held inside the Target group; calls on other threads go on.
  EXPECT_OK(ServerVersion(api_.Get()));
  auto* late = NewSink();
  EXPECT_OK(api_->AdviseServerEvents(late));
  EXPECT_OK(api_->UnadviseServerEvents(late));
  EXPECT_EQ(base_only->CallCount(), 0u);
  released = true;

  EXPECT_TRUE(WaitUntil([&] { return slow->CallCount() == 10 && base_only->CallCount() == 5; }));
  EXPECT_EQ(slow->Values("OnProgress", "RequestId"), Sequence(1, 5));
  EXPECT_EQ(slow->Values("OnDisplayPowerState", "DisplayPowerState"), Sequence(1, 5));
  const auto calls = slow->Calls();
  for (size_t i = 0; i < calls.size(); ++i)
    EXPECT_EQ(calls[i].method, i % 2 == 0 ? "OnProgress" : "OnDisplayPowerState") << i;
  // Without IEventTarget7 it hears the base interface's events only.
  EXPECT_EQ(base_only->Values("OnProgress", "RequestId"), Sequence(1, 5));
  EXPECT_EQ(quitter->Values("OnProgress", "RequestId"), Sequence(1, 1));  // and went at once
  EXPECT_EQ(quitter->CallCount(), 1u);
  EXPECT_EQ(client_->RegistrationCount(EventGroup::Target, HandleOf(target)), 2u);
}

// Each piece of a cache fetch as "port text".
std::vector<std::string> Pieces(const vekx::Variant& output) {
  if (output.Type() != (VT_ARRAY | VT_VARIANT)) return {"not an array of VARIANT"};
  std::vector<std::string> pieces;
  for (const auto& piece : Objects<IConsoleOutput>(output, IID_IConsoleOutput)) {
    eConsoleOutputPort port{};
    BSTR text = nullptr;
    const bool read = piece && piece->get_Port(&port) == S_OK && piece->get_Text(&text) == S_OK;
    pieces.push_back(read ? std::to_string(port) + " " + vekx::Bstr::Adopt(text).Utf8() : "bad");
  }
  return pieces;
}

TEST_F(LiveEventsTest, TheConsoleCacheIsReadForwardWhileOutputKeepsComing) {
  // Each kit writes more than the server lets go unacknowledged.
  constexpr int kPieces = server::kConsoleInFlight + 88;
  ASSERT_NO_FATAL_FAILURE(Serve(TwoKits(
      Script({Step("CONSOLE_OUTPUT", "{Port: 1, Category: 1, Text: \"piece {n}\"}", 1, kPieces)}),
      Script({Step("CONSOLE_OUTPUT", "{Text: x}", 0, kPieces)}))));
  const auto target = Target("kit-one");
  const auto two = Target("kit-two");
  ASSERT_TRUE(target && two);
  // Output of a target that has no sink is acknowledged too: kit-two's, subscribed to on the
  // server only, would otherwise use up this client's window of unacknowledged pieces and hold
  // up kit-one's.
  CRequestConsoleOutputEventsResponse subscribed;
  ASSERT_OK(client_->Call(HandleOf(two), CRequestConsoleOutputEventsRequest(), subscribed));
  EXPECT_TRUE(
      WaitUntil([&] { return Get(two.Get(), &ITarget::get_ConsoleCacheIndex) == kPieces; }));
  const ULONG start = Get(target.Get(), &ITarget::get_ConsoleCacheIndex);
  auto* sink = NewSink();
  ASSERT_OK(target->AdviseConsoleOutputEvents(sink));  // starts the script

  std::vector<std::string> texts, expected;  // as the sink hears them, and as the cache gives them
  for (const std::string& i : Sequence(0, kPieces - 1)) {
    texts.push_back("piece " + i);
    expected.push_back("1 piece " + i);
  }
  std::vector<std::string> read;
  ULONG index = start;
  int fetches = 0;  // that found something
  WaitUntil([&] {
    vekx::Variant output;
    EXPECT_OK(target->CachedConsoleOutput(&index, output.Put()));
    const auto pieces = Pieces(output);
    fetches += pieces.empty() ? 0 : 1;
    read.insert(read.end(), pieces.begin(), pieces.end());
    return read.size() >= expected.size();
  });
  EXPECT_EQ(read, expected);
  EXPECT_GT(fetches, 2);  // read while the output came, not all at once
  EXPECT_EQ(index, start + kPieces);
  EXPECT_TRUE(WaitUntil([&] { return sink->CallCount() == kPieces; }));
  EXPECT_EQ(sink->Values("OnConsoleOutput", "Text"), texts);

  // Input is cut at its first null; the echo comes back live (and into the cache on its port, as
  // vesta-ctrl's ConsoleFollowsItsCacheWithoutGapOrRepeat reads it, which the index shows below).
  const vekx::Bstr input(std::u16string(u"ls\0rm -rf", 9));
  EXPECT_OK(target->SendConsoleInputWithEcho(STREAM_USER3, PROCESS_OUTPUT,
                                             static_cast<ULONG>(BROADCAST_PID), input.Get()));
  EXPECT_TRUE(WaitUntil([&] { return sink->CallCount() == kPieces + 1; }));
  const SinkCall echo = sink->Calls().back();
  EXPECT_EQ(echo.properties.at("Text"), "ls");
  EXPECT_EQ(echo.properties.at("Port"), "3");
  EXPECT_EQ(echo.properties.at("Category"), "1");
  EXPECT_EQ(echo.properties.at("ProcessId"), "4294967295");
  const vekx::Bstr empty(u"");
  EXPECT_EQ(target->SendConsoleInputWithEcho(STREAM_STDIO, KERNEL_OUTPUT, 0, empty.Get()),
            E_INVALIDARG);
  EXPECT_EQ(target->SendConsoleInput(STREAM_STDIO, KERNEL_OUTPUT, 0, nullptr), E_POINTER);
  EXPECT_OK(target->SendConsoleInput(STREAM_STDIO, KERNEL_OUTPUT, 0, input.Get()));

  EXPECT_EQ(target->put_ConsoleCacheSize(0), KXAPI_SERVER_INVALID_ARG);
  EXPECT_OK(target->put_ConsoleCacheSize(2048));
  EXPECT_EQ(Get(target.Get(), &ITarget47::get_ConsoleCacheSize), 2048u);
  // Clearing keeps the indices going.
  EXPECT_OK(target->ClearConsoleCache());
  index = start;
  vekx::Variant output;
  ASSERT_OK(target->CachedConsoleOutput(&index, output.Put()));
  EXPECT_TRUE(Pieces(output).empty());
  EXPECT_EQ(Get(target.Get(), &ITarget::get_ConsoleCacheIndex), start + kPieces + 1);
  EXPECT_EQ(target->CachedConsoleOutput(nullptr, output.Put()), E_POINTER);
  target->UnadviseConsoleOutputEvents(sink);
}

}  // namespace
}  // namespace qv::apitest
