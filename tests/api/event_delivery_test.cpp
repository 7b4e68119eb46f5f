// Events through the public objects against the scripted server: every notification of the
// catalogue reaching its sink method with its values, the advise rules that the public objects
// add, the console acknowledgement and the console methods.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "api/event_sink_recorder.h"
#include "api/root_object.h"
#include "api/target_object.h"
#include "events/notify_clients.h"
#include "platform/process_identity.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "serverlink/log.h"
#include "support/scripted_server.h"
#include "support/test_environment.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/result_codes.h"
#include "vekxapi/variant.h"

namespace qv::apitest {
namespace {

using testing::Reply;
using testing::ScriptedServer;
using testing::WaitUntil;

constexpr uint32_t kHandle = 7;

// ---- Notifications with distinct values, and the text each field should read as. ----

std::string Expected(const MiradorTargetRecord& kit);
std::string Expected(const EventHeader& header);
template <class Record>
std::string Expected(const Record&) {
  return "record";  // the debug records behind object-valued properties
}
std::string Expected(uint32_t value) {
  return std::to_string(value);
}
std::string Expected(int32_t value) {
  return std::to_string(value);
}
std::string Expected(uint64_t value) {
  return std::to_string(value);
}
std::string Expected(uint8_t value) {
  return std::to_string(value);
}
std::string Expected(bool value) {
  return value ? "true" : "false";
}
std::string Expected(const std::u16string& value) {
  return platform::Utf16ToUtf8(value);
}
template <class T>
std::string Expected(const std::vector<T>& values) {
  std::string out = "[";
  for (size_t i = 0; i < values.size(); ++i)
    out += (i ? "," : "") + Expected(values[i]);
  return out + "]";
}
std::string Expected(const MiradorTargetRecord& kit) {
  return "[" + Expected(kit.HostName) + "," + Expected(kit.Name) + "," + Expected(kit.MacAddress) +
         "]";
}
std::string Expected(const EventHeader& header) {
  Bytes bytes;
  for (int i = 0; i < 4; ++i)
    bytes.push_back(static_cast<uint8_t>(header.Id >> (8 * i)));
  for (int i = 0; i < 4; ++i)
    bytes.push_back(static_cast<uint8_t>(header.Type >> (8 * i)));
  for (int i = 0; i < 8; ++i)
    bytes.push_back(static_cast<uint8_t>(header.Timestamp >> (8 * i)));
  return Expected(bytes);
}

// Gives every field of `notification` a value of its own, starting from `seed`, and returns the
// text that each (but the target key) should read as from the event.
template <class Notification>
std::map<std::string, std::string> Fill(Notification& notification, uint32_t seed) {
  std::map<std::string, std::string> expected;
  Notification::VisitFields(notification, [&](std::string_view label, auto& field) {
    using Field = std::remove_cvref_t<decltype(field)>;
    ++seed;
    if constexpr (std::is_same_v<Field, uint32_t>) {
      field = seed;
    } else if constexpr (std::is_same_v<Field, int32_t>) {
      field = -static_cast<int32_t>(seed);
    } else if constexpr (std::is_same_v<Field, uint64_t>) {
      field = (uint64_t{1} << 40) + seed;
    } else if constexpr (std::is_same_v<Field, bool>) {
      field = true;
    } else if constexpr (std::is_same_v<Field, std::u16string>) {
      field = u"t\u00e9xt " + platform::Utf8ToUtf16(std::to_string(seed));
    } else if constexpr (std::is_same_v<Field, U32List>) {
      field = {seed, seed + 1};
    } else if constexpr (std::is_same_v<Field, WStringList>) {
      field = {u"first", platform::Utf8ToUtf16(std::to_string(seed))};
    } else if constexpr (std::is_same_v<Field, Bytes>) {
      field = {1, 2, static_cast<uint8_t>(seed)};
    } else if constexpr (std::is_same_v<Field, MiradorTargetList>) {
      field = {MiradorTargetRecord{u"kit-a", u"A", {2, 0, 0, 0, 0, 1}},
               MiradorTargetRecord{u"kit-b", u"B", {}}};
    } else if constexpr (std::is_same_v<Field, EventHeader>) {
      field.Id = seed;
      field.Type = seed + 1;
      field.Timestamp = (uint64_t{3} << 56) + seed;
    }
    std::string name(label.substr(0, label.size() - 1));  // "Name:" -> "Name"
    if (name != "TargetKey") expected[name] = Expected(field);
  });
  return expected;
}

// The fields a debug object would be built from, which the event does not expose one by one.
size_t ObjectSourceFields(std::string_view method) {
  if (method == "OnStopNotification") return 3;  // ThreadId, Process, Threads
  if (method == "OnDynamicLibraryLoad" || method == "OnLoadExec" || method == "OnLoadExecFail" ||
      method == "OnLoadExecTimeout") {
    return 1;  // Module or ProcessId
  }
  return 0;
}

struct CatalogueRow {
  std::string sink_method;
  bool server_wide;
  // Makes the row's notification for `key` with values from `seed`, and what the event must show.
  std::function<std::shared_ptr<CNotification>(uint32_t key, uint32_t seed,
                                               std::map<std::string, std::string>& expected)>
      make;
};

#define VEKX_ROW_CONCAT_INNER(a, b) a##b
#define VEKX_ROW_CONCAT(a, b) VEKX_ROW_CONCAT_INNER(a, b)
#define VEKX_ROW_IF(...) VEKX_ROW_CONCAT(VEKX_ROW_IF_, __VA_OPT__(YES))
#define VEKX_ROW_IF_YES(...) __VA_ARGS__
#define VEKX_ROW_IF_(...)

std::vector<CatalogueRow> Catalogue() {
  std::vector<CatalogueRow> rows;
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod,       \
                          DispId, fields)                                                          \
  VEKX_ROW_IF(SinkInterface)                                                                       \
  (rows.push_back(                                                                                 \
      CatalogueRow{#SinkMethod, EventGroup::Group == EventGroup::Server,                           \
                   [](uint32_t key, uint32_t seed, std::map<std::string, std::string>& expected) { \
                     auto notification = std::make_shared<C##Camel##Notification>();               \
                     expected = Fill(*notification, seed);                                         \
                     notification->TargetKey = key;                                                \
                     return notification;                                                          \
                   }});)
#include "requests/notifications.def"
  return rows;
}

// ---- The fixture: a scripted server, a root object and a target object over it. ----

class EventDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ScriptedServer::Options options;
    options.user = user_;
    server_ = std::make_unique<ScriptedServer>(options, [this](const testing::ReceivedRequest& in) {
      Reply reply;
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(in);
        if (answer_) reply = answer_(in);
      }
      if (in.type_number == CAckConsoleOutputRequest::kTypeNumber)
        reply.kind = Reply::Kind::kSilent;
      return reply;
    });
    ASSERT_TRUE(server_->Start());
    client_ = CKXVEPrivateAPI::Create(
        ServerLink::ServerNames{user_, platform::ServerRuntimeDirectory().value_or("")});
    ASSERT_NE(client_, nullptr);
    ASSERT_EQ(CreateRootObject(client_, IID_IVEKXAPI12, reinterpret_cast<void**>(root_.Put())),
              S_OK);
    ASSERT_EQ(root_->CheckCompatibility(21), S_OK);
    ASSERT_EQ(CreateObject<CKXVETarget>(IID_ITarget47, reinterpret_cast<void**>(target_.Put()),
                                        SharedClient(client_), kHandle),
              S_OK);
    // Connected, so that the server has someone to notify.
    CGetServerVersionRequest version;
    CGetServerVersionResponse answer;
    ASSERT_EQ(client_->Call(kNoTarget, version, answer), S_OK);
  }

  void TearDown() override {
    target_.Reset();
    if (root_) root_->Dispose();
    root_.Reset();
    client_.reset();
    server_->Stop();
  }

  void Answer(std::function<Reply(const testing::ReceivedRequest&)> answer) {
    std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }

  std::vector<testing::ReceivedRequest> Requests(uint32_t type_number) {
    std::lock_guard lock(mutex_);
    std::vector<testing::ReceivedRequest> found;
    for (const auto& request : requests_) {
      if (request.type_number == type_number) found.push_back(request);
    }
    return found;
  }

  // Pushes `notification` and waits until `sink` has had `calls` calls.
  bool PushAndWait(const CNotification& notification, RecordingSink& sink, size_t calls) {
    return server_->Notify(notification) && WaitUntil([&] { return sink.CallCount() >= calls; });
  }

  std::u16string user_ = testing::UniqueUser("vkxevt");
  std::unique_ptr<ScriptedServer> server_;
  std::mutex mutex_;
  std::vector<testing::ReceivedRequest> requests_;                // guarded by mutex_
  std::function<Reply(const testing::ReceivedRequest&)> answer_;  // guarded by mutex_
  std::shared_ptr<CKXVEPrivateAPI> client_;
  vekx::ComPtr<IVEKXAPI12> root_;
  vekx::ComPtr<ITarget47> target_;
};

TEST_F(EventDeliveryTest, EveryNotificationReachesItsSinkMethodWithItsValues) {
  auto* sink = new RecordingSink();
  ASSERT_EQ(root_->AdviseServerEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseTargetEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseDebugEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseConsoleOutputEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseCacheUpdateEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseControllerEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseEventViewerEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseTrickleEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseProcessLockEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseHighFreqFileCopyEvents(sink), S_OK);
  ASSERT_EQ(target_->AdviseLowFreqFileCopyEvents(sink), S_OK);
  // Generic protocol sinks come with the channels that open them; the client files one directly.
  ASSERT_EQ(client_->Advise(EventGroup::GenericProtocol,
                            CVEGenericProtocolEventNotifyClient::Make(client_, sink), kHandle),
            S_OK);

  const std::vector<CatalogueRow> rows = Catalogue();
  ASSERT_EQ(rows.size(), kNotificationCount - 1);  // all but DEVICE_READY reach a sink
  uint32_t seed = 1000;
  for (const CatalogueRow& row : rows) {
    SCOPED_TRACE(row.sink_method);
    std::map<std::string, std::string> expected;
    const auto notification = row.make(row.server_wide ? kNoTarget : kHandle, seed, expected);
    seed += 100;
    const size_t before = sink->CallCount();
    ASSERT_TRUE(PushAndWait(*notification, *sink, before + 1));
    const SinkCall call = sink->Calls().back();
    EXPECT_EQ(call.method, row.sink_method);
    size_t objects = 0;
    for (const auto& [property, text] : call.properties) {
      if (text == "E_NOTIMPL") {
        ++objects;
        continue;
      }
      ASSERT_TRUE(expected.count(property)) << property;
      EXPECT_EQ(text, expected[property]) << property;
    }
    EXPECT_EQ(call.properties.size() - objects + ObjectSourceFields(row.sink_method),
              expected.size());
    EXPECT_EQ(objects > 0, ObjectSourceFields(row.sink_method) > 0);
  }
  EXPECT_EQ(sink->CallCount(), rows.size());  // nothing delivered twice
  root_->UnadviseServerEvents(sink);
  sink->Release();
}

TEST_F(EventDeliveryTest, ASinkWithoutALaterVersionHearsOnlyWhatItImplements) {
  auto* sink = new RecordingSink(/*later_versions=*/false);
  ASSERT_EQ(root_->AdviseServerEvents(sink), S_OK);
  CTargetAddedNotification added;
  added.TargetKey = kNoTarget;
  CCommsDisconnectNotification disconnect;  // IEventServer7
  disconnect.TargetKey = kNoTarget;
  CDefaultTargetChangedNotification changed;
  changed.TargetKey = kNoTarget;
  ASSERT_TRUE(server_->Notify(added));
  ASSERT_TRUE(server_->Notify(disconnect));
  ASSERT_TRUE(PushAndWait(changed, *sink, 2));
  const auto calls = sink->Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].method, "OnTargetAdded");
  EXPECT_EQ(calls[1].method, "OnDefaultTargetChanged");
  root_->UnadviseServerEvents(sink);
  sink->Release();
}

TEST_F(EventDeliveryTest, AdviseRulesGoByTheSinksIdentity) {
  auto* sink = new RecordingSink();
  EXPECT_EQ(target_->AdviseTargetEvents(nullptr), E_POINTER);
  ASSERT_EQ(target_->AdviseTargetEvents(sink), S_OK);
  // The same object through another of its interfaces is the same sink.
  auto* as_later = reinterpret_cast<IEventTarget*>(static_cast<IEventTarget9*>(sink));
  ASSERT_NE(static_cast<void*>(as_later), static_cast<void*>(static_cast<IEventTarget*>(sink)));
  EXPECT_EQ(target_->AdviseTargetEvents(as_later), KXAPI_ALREADY_REGISTERED);
  EXPECT_EQ(client_->RegistrationCount(EventGroup::Target, kHandle), 1u);
  EXPECT_EQ(Requests(CRequestTargetEventsRequest::kTypeNumber).size(), 1u);

  auto* other = new RecordingSink();
  ASSERT_EQ(target_->AdviseTargetEvents(other), S_OK);
  EXPECT_EQ(target_->UnadviseTargetEvents(as_later), S_OK);
  EXPECT_EQ(client_->RegistrationCount(EventGroup::Target, kHandle), 1u);
  EXPECT_TRUE(Requests(CCancelTargetEventsRequest::kTypeNumber).empty());  // `other` remains
  EXPECT_EQ(target_->UnadviseTargetEvents(other), S_OK);
  EXPECT_EQ(client_->RegistrationCount(EventGroup::Target, kHandle), 0u);
  ASSERT_EQ(Requests(CCancelTargetEventsRequest::kTypeNumber).size(), 1u);
  EXPECT_EQ(Requests(CCancelTargetEventsRequest::kTypeNumber)[0].target_handle, kHandle);
  sink->Release();
  other->Release();
}

TEST_F(EventDeliveryTest, AHandlerMayUnadviseItselfAndEachCallIsLogged) {
  const std::string log_path = ::testing::TempDir() + "vkxevt_notify.log";
  std::remove(log_path.c_str());
  Log& log = LibraryLog();
  ASSERT_TRUE(log.SetFile(log_path));
  log.SetLevel(Log::kPackets);

  auto* sink = new RecordingSink();
  ASSERT_EQ(target_->AdviseTargetEvents(sink), S_OK);
  // On the notification thread, inside the group's delivery.
  sink->OnCall([&] { target_->UnadviseTargetEvents(sink); });
  CConnectedNotification connected;
  connected.TargetKey = kHandle;
  ASSERT_TRUE(PushAndWait(connected, *sink, 1));
  ASSERT_TRUE(
      WaitUntil([&] { return !Requests(CCancelTargetEventsRequest::kTypeNumber).empty(); }));
  EXPECT_EQ(client_->RegistrationCount(EventGroup::Target, kHandle), 0u);

  // Nothing more reaches it; a server sink pushed after proves the second one was handled.
  auto* fence = new RecordingSink();
  ASSERT_EQ(root_->AdviseServerEvents(fence), S_OK);
  CTargetAddedNotification added;
  added.TargetKey = kNoTarget;
  ASSERT_TRUE(server_->Notify(connected));
  ASSERT_TRUE(PushAndWait(added, *fence, 1));
  EXPECT_EQ(sink->CallCount(), 1u);

  log.SetLevel(Log::kSilent);
  log.SetStandardError();
  std::ifstream in(log_path, std::ios::binary);
  const std::string logged((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(logged.find("MSG\tEVENT NOTIFY OnConnected\n"), std::string::npos) << logged;
  EXPECT_NE(logged.find("MSG\tEVENT NOTIFY OnTargetAdded\n"), std::string::npos) << logged;
  root_->UnadviseServerEvents(fence);
  sink->Release();
  fence->Release();
}

TEST_F(EventDeliveryTest, ServerEventsNeedACheckedRoot) {
  vekx::ComPtr<IVEKXAPI12> unchecked;
  ASSERT_EQ(CreateRootObject(client_, IID_IVEKXAPI12, reinterpret_cast<void**>(unchecked.Put())),
            S_OK);
  auto* sink = new RecordingSink();
  EXPECT_EQ(unchecked->AdviseServerEvents(sink), KXAPI_INCOMPATIBLE_CLIENT);
  EXPECT_EQ(root_->AdviseServerEvents(nullptr), E_POINTER);
  EXPECT_TRUE(Requests(CRequestServerEventsRequest::kTypeNumber).empty());
  sink->Release();
}

TEST_F(EventDeliveryTest, ConsoleOutputIsAcknowledgedEvenWithoutASink) {
  CConsoleOutputNotification output;
  output.TargetKey = kHandle;
  output.Text = u"boot";
  ASSERT_TRUE(server_->Notify(output));
  ASSERT_TRUE(server_->Notify(output));
  ASSERT_TRUE(
      WaitUntil([&] { return Requests(CAckConsoleOutputRequest::kTypeNumber).size() == 2; }));
  for (const auto& ack : Requests(CAckConsoleOutputRequest::kTypeNumber)) {
    EXPECT_EQ(ack.target_handle, kHandle);
  }
  // Buffer-ready is not acknowledged.
  auto* sink = new RecordingSink();
  ASSERT_EQ(target_->AdviseConsoleOutputEvents(sink), S_OK);
  CBufferReadyNotification ready;
  ready.TargetKey = kHandle;
  ASSERT_TRUE(PushAndWait(ready, *sink, 1));
  EXPECT_EQ(Requests(CAckConsoleOutputRequest::kTypeNumber).size(), 2u);
  target_->UnadviseConsoleOutputEvents(sink);
  sink->Release();
}

TEST_F(EventDeliveryTest, ConsoleInputIsCutAtTheFirstNullAndNeverEmpty) {
  struct Case {
    std::u16string text;
    HRESULT result;
    const char16_t* sent;  // null: nothing sent
  };
  const Case cases[] = {
      {std::u16string(u"ls\0rm -rf", 9), S_OK, u"ls"},
      {u"help", S_OK, u"help"},
      {u"", E_INVALIDARG, nullptr},
  };
  for (const bool echo : {false, true}) {
    for (const Case& c : cases) {
      vekx::Bstr text(c.text);
      const uint32_t type = echo ? CSendConsoleInputWithEchoRequest::kTypeNumber
                                 : CSendConsoleInputRequest::kTypeNumber;
      const size_t before = Requests(type).size();
      const HRESULT hr =
          echo ? target_->SendConsoleInputWithEcho(STREAM_USER3, PROCESS_OUTPUT,
                                                   static_cast<ULONG>(BROADCAST_PID), text.Get())
               : target_->SendConsoleInput(STREAM_USER3, PROCESS_OUTPUT,
                                           static_cast<ULONG>(BROADCAST_PID), text.Get());
      EXPECT_EQ(hr, c.result);
      const auto sent = Requests(type);
      ASSERT_EQ(sent.size(), before + (c.sent ? 1 : 0));
      if (!c.sent) continue;
      if (echo) {
        const auto& echoed =
            static_cast<const CSendConsoleInputWithEchoRequest&>(*sent.back().request);
        EXPECT_EQ(echoed.Text, c.sent);
        EXPECT_EQ(echoed.ProcessId, 0xFFFFFFFFu);
        EXPECT_EQ(echoed.Port, 3u);
        EXPECT_EQ(echoed.Category, 1u);
      } else {
        const auto& request = static_cast<const CSendConsoleInputRequest&>(*sent.back().request);
        EXPECT_EQ(request.Text, c.sent);
        EXPECT_EQ(request.ProcessId, 0xFFFFFFFFu);
        EXPECT_EQ(request.Port, 3u);
        EXPECT_EQ(request.Category, 1u);
      }
      EXPECT_EQ(sent.back().target_handle, kHandle);
    }
  }
  EXPECT_EQ(target_->SendConsoleInput(STREAM_STDIO, KERNEL_OUTPUT, 0, nullptr), E_POINTER);
}

TEST_F(EventDeliveryTest, TheConsoleCacheIsReadForwardAndSized) {
  Answer([](const testing::ReceivedRequest& in) {
    Reply reply;
    if (in.type_number == CFetchConsoleCacheRequest::kTypeNumber) {
      const auto start = static_cast<const CFetchConsoleCacheRequest&>(*in.request).StartIndex;
      if (start >= 100) {
        reply.result = KXAPI_SERVER_INVALID_TARGET;
        return reply;
      }
      reply.fill = [start](CResponse& response) {
        auto& fetched = static_cast<CFetchConsoleCacheResponse&>(response);
        fetched.NextIndex = start + 2;
        for (uint32_t i = 0; i < 2; ++i) {
          ConsoleCacheRecord record;
          record.Port = 144 + i;
          record.Category = 128;
          record.Timestamp = (uint64_t{1} << 33) + start + i;
          record.ProcessId = 40 + i;
          record.ThreadId = 50 + i;
          record.Text =
              std::u16string(u"a\0b", 3) + platform::Utf8ToUtf16(std::to_string(start + i));
          fetched.Records.push_back(record);
        }
      };
    } else if (in.type_number == CGetConsoleCacheSizeRequest::kTypeNumber) {
      reply.fill = [](CResponse& r) { static_cast<CGetConsoleCacheSizeResponse&>(r).Size = 4096; };
    } else if (in.type_number == CGetConsoleCacheUBoundRequest::kTypeNumber) {
      reply.fill = [](CResponse& r) {
        static_cast<CGetConsoleCacheUBoundResponse&>(r).UpperBound = 77;
      };
    }
    return reply;
  });

  ULONG index = 10;
  for (uint32_t round = 0; round < 2; ++round) {
    vekx::Variant output;
    ASSERT_EQ(target_->CachedConsoleOutput(&index, output.Put()), S_OK);
    EXPECT_EQ(index, 12 + 2 * round);
    ASSERT_EQ(output.Get().vt, VT_ARRAY | VT_VARIANT);
    LONG upper = -1;
    SafeArrayGetUBound(output.Get().parray, 1, &upper);
    ASSERT_EQ(upper, 1);
    for (LONG i = 0; i <= upper; ++i) {
      VARIANT element;
      VariantInit(&element);
      ASSERT_EQ(SafeArrayGetElement(output.Get().parray, &i, &element), S_OK);
      ASSERT_EQ(element.vt, VT_DISPATCH);
      vekx::ComPtr<IConsoleOutput> piece;
      ASSERT_EQ(element.pdispVal->QueryInterface(IID_IConsoleOutput,
                                                 reinterpret_cast<void**>(piece.Put())),
                S_OK);
      VariantClear(&element);
      const uint32_t number = 10 + 2 * round + static_cast<uint32_t>(i);
      eConsoleOutputPort port{};
      ULONGLONG timestamp = 0;
      ULONG thread = 0;
      BSTR text = nullptr;
      EXPECT_EQ(piece->get_Port(&port), S_OK);
      EXPECT_EQ(piece->get_Timestamp(&timestamp), S_OK);
      EXPECT_EQ(piece->get_ThreadId(&thread), S_OK);
      EXPECT_EQ(piece->get_Text(&text), S_OK);
      EXPECT_EQ(port, static_cast<eConsoleOutputPort>(144 + i));
      EXPECT_EQ(timestamp, (uint64_t{1} << 33) + number);
      EXPECT_EQ(thread, static_cast<ULONG>(50 + i));
      EXPECT_EQ(std::u16string(platform::BstrView(text)),
                std::u16string(u"a\0b", 3) + platform::Utf8ToUtf16(std::to_string(number)));
      SysFreeString(text);
      EXPECT_EQ(piece->get_Text(nullptr), E_POINTER);
    }
  }
  // A refused fetch leaves the index and the output as they were.
  index = 100;
  vekx::Variant untouched;
  EXPECT_EQ(target_->CachedConsoleOutput(&index, untouched.Put()), KXAPI_SERVER_INVALID_TARGET);
  EXPECT_EQ(index, 100u);
  EXPECT_EQ(untouched.Get().vt, VT_EMPTY);
  EXPECT_EQ(target_->CachedConsoleOutput(nullptr, untouched.Put()), E_POINTER);

  ULONG size = 0;
  EXPECT_EQ(target_->get_ConsoleCacheSize(&size), S_OK);
  EXPECT_EQ(size, 4096u);
  EXPECT_EQ(target_->put_ConsoleCacheSize(512), S_OK);
  ASSERT_EQ(Requests(CSetConsoleCacheSizeRequest::kTypeNumber).size(), 1u);
  EXPECT_EQ(static_cast<const CSetConsoleCacheSizeRequest&>(
                *Requests(CSetConsoleCacheSizeRequest::kTypeNumber)[0].request)
                .Size,
            512u);
  ULONG upper_bound = 0;
  EXPECT_EQ(target_->get_ConsoleCacheIndex(&upper_bound), S_OK);
  EXPECT_EQ(upper_bound, 77u);
  EXPECT_EQ(target_->ClearConsoleCache(), S_OK);
  EXPECT_EQ(Requests(CClearConsoleCacheRequest::kTypeNumber).size(), 1u);
}

}  // namespace
}  // namespace qv::apitest
