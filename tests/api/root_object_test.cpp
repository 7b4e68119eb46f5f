// The root object end to end: against the real vesta-kx for its methods, and against the
// scripted stand-in, started by the library from PATH, for a server that dies in a call.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <signal.h>
#endif

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "api/automation_object.h"
#include "api/error_descriptions.h"
#include "api/live_api.h"
#include "api/result_values.h"
#include "platform/process_identity.h"
#include "platform/server_process.h"
#include "platform/wide_string.h"
#include "support/test_environment.h"
#include "vekxapi/result_codes.h"

namespace qv::apitest {
namespace {

using vekx::Bstr;
using vekx::ComPtr;
using vekx::Variant;

// The table text of `code`, as the error object starts with it.
std::string TableText(HRESULT code) {
  return platform::Utf16ToUtf8(LookupErrorDescription(code).value_or(u"(none)"));
}

// The handles of the targets of a list a root method returned.
std::vector<ULONG> Handles(const Variant& list) {
  EXPECT_EQ(list.Type(), VT_ARRAY | VT_VARIANT);
  std::vector<ULONG> handles;
  for (const auto& target : Objects<ITarget>(list, IID_ITarget)) {
    EXPECT_TRUE(target);
    handles.push_back(target ? HandleOf(target) : 0);
  }
  return handles;
}

// VT_ARRAY | VT_VARIANT holding `rules` as dispatch pointers, as a script would pass them.
Variant RuleArray(const std::vector<IDispatch*>& rules) {
  std::vector<ComPtr<IDispatch>> objects;
  for (IDispatch* rule : rules)
    objects.emplace_back(rule);
  Variant array;
  EXPECT_OK(OutObjectArray(objects, array.Put()));
  return array;
}

// A rule whose end address cannot be read.
class BrokenRule final : public AutomationObject<BrokenRule, ITargetFindRule> {
 public:
  static bool IsFamily(REFIID iid) { return IsEqualIID(iid, IID_ITargetFindRule); }
  static const IID& DispatchIid() { return IID_ITargetFindRule; }
  HRESULT STDMETHODCALLTYPE get_StartAddress(ULONG* value) override {
    *value = 1;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_StartAddress(ULONG) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE get_EndAddress(ULONG*) override { return E_ACCESSDENIED; }
  HRESULT STDMETHODCALLTYPE put_EndAddress(ULONG) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE get_SubnetMask(ULONG* value) override {
    *value = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_SubnetMask(ULONG) override { return S_OK; }
};

using RootObjectTest = LiveApiTest;

TEST_F(RootObjectTest, CompatibilityVersionsAndErrorTextsBeforeAndAfterDispose) {
  ComPtr<IVEKXAPI12> fresh;
  ASSERT_OK(NewRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(fresh.Put())));
  ULONG v[4] = {};
  // What the library answers on its own: the same before the check, after it and after Dispose.
  const auto expect_local = [&] {
    ASSERT_OK(fresh->Version(&v[0], &v[1], &v[2], &v[3]));
    EXPECT_EQ(std::vector<ULONG>(v, v + 4), (std::vector<ULONG>{5, 0, 0, 10}));
    EXPECT_EQ(fresh->Version(&v[0], nullptr, &v[2], &v[3]), E_POINTER);
    Bstr text;
    for (const auto& [code, expected] :
         {std::pair<HRESULT, const char*>{0, "Success."},
          {KXAPI_COMMS_ERR_NO_ENTRY, "Target error - The entry does not exist."}}) {
      EXPECT_OK(fresh->GetErrorDescription(code, text.Put()));
      EXPECT_EQ(text.Utf8(), expected);
    }
    EXPECT_EQ(fresh->GetErrorDescription(E_INVALIDARG, text.Put()), E_INVALIDARG);
    EXPECT_EQ(fresh->GetErrorDescription(0, nullptr), E_POINTER);
  };
  expect_local();

  // Nothing but the exceptions works before CheckCompatibility, and a failed check changes that
  // no more than none.
  Variant targets;
  EXPECT_EQ(fresh->get_Targets(targets.Put()), KXAPI_INCOMPATIBLE_CLIENT);
  EXPECT_EQ(TakeErrorText(), TableText(KXAPI_INCOMPATIBLE_CLIENT));
  EXPECT_EQ(fresh->UnadviseServerEvents(nullptr), KXAPI_INCOMPATIBLE_CLIENT);
  EXPECT_EQ(fresh->CheckCompatibility(20), KXAPI_INCOMPATIBLE_CLIENT_TOO_OLD);
  EXPECT_EQ(fresh->CheckCompatibility(22), KXAPI_INCOMPATIBLE_CLIENT_TOO_NEW);
  EXPECT_EQ(fresh->get_Targets(targets.Put()), KXAPI_INCOMPATIBLE_CLIENT);
  ASSERT_OK(ServerVersion(fresh.Get(), v));
  EXPECT_EQ(std::vector<ULONG>(v, v + 4), (std::vector<ULONG>{5, 0, 10, 0}));
  EXPECT_OK(fresh->CheckCompatibility(21));
  expect_local();
  EXPECT_OK(fresh->get_Targets(targets.Put()));

  const ComPtr<ITarget47> target_before = Target("kit-one", fresh.Get());
  ASSERT_TRUE(target_before);
  const ULONG handle_before = HandleOf(target_before);
  EXPECT_OK(fresh->Dispose());
  EXPECT_OK(fresh->Dispose());
  expect_local();
  EXPECT_EQ(HandleOf(target_before), handle_before);

  // Stop the server: a disposed root neither reaches nor starts one.
  StopServer();
  testing::ScopedVariable path(
      "PATH", testing::PathStartingWith(
                  std::filesystem::path(VEKX_SERVER_EXECUTABLE).parent_path().string()));
  ComPtr<ITarget> target;
  Variant list;
  BSTR name = nullptr;
  ULONG driver = 0;
  eLoggingLevel level{};
  VARIANT_BOOL flag = VARIANT_FALSE;
  ComPtr<ITargetFindRule> rule;
  const std::vector<std::function<HRESULT()>> calls = {
      [&] { return fresh->CheckCompatibility(21); },
      [&] { return fresh->AddTarget(B("kit-one").Get(), target.Put()); },
      [&] { return fresh->get_Targets(list.Put()); },
      [&] { return fresh->DiscoverTargets(list.Put()); },
      [&] { return fresh->TargetInfo(B("kit-one").Get(), list.Put()); },
      [&] { return ServerVersion(fresh.Get()); },
      [&] { return fresh->FileSystemDriverVersion(&v[0], &v[1], &v[2], &v[3], &driver, &name); },
      [&] { return fresh->GetCoreDumpTargetByHost(B("dump").Get(), target.Put()); },
      [&] { return fresh->get_DefaultTarget(target.Put()); },
      [&] { return fresh->GetTargetsByName(B("One").Get(), list.Put()); },
      [&] { return fresh->AllocTargetFindRule(rule.Put()); },
      [&] { return fresh->CancelFindTargets(); },
      [&] { return fresh->ShowTargetPicker(0, target.Put()); },
      [&] { return fresh->GetLoggingLevel(&level); },
      [&] { return fresh->HostExecEnabled(&flag); },
      [&] { return fresh->GetClientPids(list.Put()); },
      [&] { return fresh->AdviseServerEvents(nullptr); },
      [&] { return fresh->CancelCopy(1); },
      // The target objects it handed out: the client check comes before every other check.
      [&] { return target_before->Connect(); },
      [&] { return target_before->SDKVersion(nullptr, nullptr, nullptr, nullptr); },
      [&] { return target_before->put_Default(VARIANT_TRUE); },
      [&] { return target_before->get_Default(&flag); },
      [&] { return target_before->put_Name(nullptr); },
      [&] { return target_before->put_MacAddress(list.Get()); },
      [&] { return target_before->GetProtocolInfo(1, list.Put()); },
      [&] { return target_before->Suspend(); },
      [&] { return target_before->ScreenShot(nullptr); },
  };
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i](), E_UNEXPECTED) << "call " << i;
  }
  ComPtr<IVEKXAPI12> never_checked;
  ASSERT_OK(NewRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(never_checked.Put())));
  ASSERT_OK(never_checked->Dispose());  // never connected: nothing to end
  EXPECT_EQ(ServerVersion(never_checked.Get()), E_UNEXPECTED);
  // A server the library starts serves the account's own name.
  EXPECT_FALSE(platform::ServerIsReady(platform::CurrentUserName(), servertest::RunDir(), 0));
}

TEST_F(RootObjectTest, TargetsListsAndLookups) {
  // Each call gives a new object for the one target (kit-one is the scenario's default).
  ComPtr<ITarget> objects[4];  // two by AddTarget, two by get_DefaultTarget
  for (size_t i = 0; i < std::size(objects); ++i) {
    ASSERT_OK(i < 2 ? api_->AddTarget(B("kit-one").Get(), objects[i].Put())
                    : api_->get_DefaultTarget(objects[i].Put()));
    EXPECT_TRUE(i == 0 || objects[i].Get() != objects[i - 1].Get()) << i;
    EXPECT_EQ(HandleOf(objects[i]), HandleOf(objects[0])) << i;
  }
  const ULONG one = HandleOf(objects[0]);

  Variant list;
  ASSERT_OK(api_->get_Targets(list.Put()));
  const std::vector<ULONG> all = Handles(list);
  EXPECT_NE(std::find(all.begin(), all.end(), one), all.end());
  // Lookups by host and by name, found and not, are vesta-ctrl's, which resolves a target so
  // (tests/cli/vesta_ctrl_test.cpp: TargetsPowerDefaultAddAndDelete, FailuresExitWithOneAndSayWhy).
  EXPECT_EQ(api_->GetTargetsByHost(B("").Get(), list.Put()), E_INVALIDARG);
  EXPECT_EQ(api_->GetTargetsByName(B("One").Get(), nullptr), E_POINTER);
  EXPECT_EQ(api_->AddTarget(nullptr, objects[0].Put()), E_POINTER);
  EXPECT_EQ(api_->AddTarget(B("kit-one").Get(), nullptr), E_POINTER);

  ASSERT_OK(api_->TargetInfo(B("kit-one").Get(), list.Put()));
  const std::vector<std::string> texts = Pairs(list);
  EXPECT_NE(std::find(texts.begin(), texts.end(), "Name=One"), texts.end());
  EXPECT_NE(std::find(texts.begin(), texts.end(), "HostName=kit-one"), texts.end());

  // A server failure: the table's text, a blank and the server's own.
  EXPECT_EQ(api_->TargetInfo(B("kit-gone").Get(), list.Put()), KXAPI_COMMS_ERR_NO_CONNECT);
  const std::string failure = TakeErrorText();
  EXPECT_EQ(failure.rfind(TableText(KXAPI_COMMS_ERR_NO_CONNECT) + " no kit answers at", 0), 0u)
      << failure;

  ASSERT_OK(api_->DiscoverTargets(list.Put()));
  EXPECT_EQ(list.Type(), VT_ARRAY | VT_BSTR);
  std::vector<Variant> addresses;
  ASSERT_OK(vekx::ArrayElements(list.Get(), addresses));
  std::vector<std::string> found;
  for (const Variant& address : addresses)
    found.push_back(Bstr(platform::BstrView(address.Get().bstrVal)).Utf8());
  EXPECT_EQ(found, (std::vector<std::string>{"10.1.0.1", "10.1.0.2"}));
}

TEST_F(RootObjectTest, FindRulesAndWhatReachesTheServer) {
  const std::string log = (servertest::TestRoot() / "root-packets.log").string();
  std::filesystem::remove(log);
  ASSERT_OK(api_->StartPacketLogging(B(log.c_str()).Get()));

  // Refused before anything is sent.
  ComPtr<ITarget> target;
  EXPECT_EQ(api_->AddTarget(B("").Get(), target.Put()), E_INVALIDARG);
  ComPtr<ITargetFindRule> good;
  ASSERT_OK(api_->AllocTargetFindRule(good.Put()));
  ASSERT_OK(good->put_StartAddress(0x0A010002));
  ASSERT_OK(good->put_EndAddress(0x0A010001));
  ASSERT_OK(good->put_SubnetMask(0xFFFFFF00));
  ComPtr<ITargetFindRule> broken;
  ASSERT_OK(CreateObject<BrokenRule>(IID_ITargetFindRule, reinterpret_cast<void**>(broken.Put())));
  EXPECT_EQ(api_->FindTargets(RuleArray({good.Get(), broken.Get()}).Get()), E_ACCESSDENIED);
  Variant not_an_array;
  not_an_array.Put()->vt = VT_I4;
  EXPECT_EQ(api_->FindTargets(not_an_array.Get()), DISP_E_TYPEMISMATCH);

  // Sent: an empty list, then one rule whose range runs backwards, which the server names, in
  // the order the rule gave its addresses.
  EXPECT_OK(api_->FindTargets(RuleArray({}).Get()));
  EXPECT_EQ(api_->FindTargets(RuleArray({good.Get()}).Get()), KXAPI_SERVER_INVALID_ARG);
  EXPECT_EQ(TakeErrorText(), TableText(KXAPI_SERVER_INVALID_ARG) +
                                 " a search range ends before it starts (10.1.0.2 to 10.1.0.1)");
  EXPECT_OK(api_->CancelFindTargets());
  EXPECT_OK(api_->FindMiradorTargets(RuleArray({}).Get()));
  ASSERT_OK(api_->StopPacketLogging());

  EXPECT_EQ(LoggedRequests(log),
            (std::vector<std::string>{"START_PACKET_LOGGING", "FIND_TARGETS", "FIND_TARGETS",
                                      "CANCEL_FIND_TARGETS", "FIND_MIRADOR_TARGETS"}));
  EXPECT_EQ(api_->StartPacketLogging(B("").Get()), E_INVALIDARG);
}

TEST_F(RootObjectTest, ServerSwitchesClientsAndTheHostDrivesRefusal) {
  // The switches are kept by the server: another root object sees them.
  EXPECT_EQ(Get(api_.Get(), &IVEKXAPI12::HostExecEnabled), VARIANT_FALSE);
  ASSERT_OK(api_->EnableHostExec(VARIANT_TRUE));
  ASSERT_OK(api_->SetLoggingLevel(LOGGING_LEVEL_CLIENTS));
  ASSERT_OK(api_->SetNetworkManagerLogging(VARIANT_TRUE));
  const ComPtr<IVEKXAPI12> other = CheckedRoot();
  ASSERT_TRUE(other);
  EXPECT_EQ(Get(other.Get(), &IVEKXAPI12::HostExecEnabled), VARIANT_TRUE);
  EXPECT_EQ(Get(other.Get(), &IVEKXAPI12::GetLoggingLevel), LOGGING_LEVEL_CLIENTS);
  EXPECT_EQ(Get(other.Get(), &IVEKXAPI12::GetNetworkManagerLogging), VARIANT_TRUE);
  EXPECT_EQ(api_->HostExecEnabled(nullptr), E_POINTER);
  EXPECT_EQ(api_->SetLoggingLevel(static_cast<eLoggingLevel>(5)), E_INVALIDARG);

  Variant pids;
  ASSERT_OK(other->GetClientPids(pids.Put()));
  // Both root objects of this process.
  EXPECT_EQ(Numbers(pids), std::vector<uint64_t>(2, platform::CurrentProcessId()));
  // A client that has gone is no longer listed.
  EXPECT_OK(other->Dispose());
  EXPECT_TRUE(testing::WaitUntil(
      [&] { return api_->GetClientPids(pids.Put()) == S_OK && Numbers(pids).size() == 1; }));

  // A failure's error object stays through a later success.
  ComPtr<ITarget> target;
  EXPECT_EQ(api_->GetCoreDumpTargetByHost(B("no-dump").Get(), target.Put()),
            KXAPI_SERVER_INVALID_TARGET);
  ASSERT_OK(ServerVersion(api_.Get()));
  EXPECT_EQ(TakeErrorText(), TableText(KXAPI_SERVER_INVALID_TARGET) +
                                 " no core dump was loaded for the host 'no-dump'");

  // A core dump's pseudo host becomes a target whatever the later steps say.
  EXPECT_EQ(api_->LoadCoreDump(B("/tmp/core").Get(), nullptr, B("").Get(), target.Put()),
            E_INVALIDARG);
  EXPECT_TRUE(
      FAILED(api_->LoadCoreDump(B("/tmp/core").Get(), nullptr, B("dump-one").Get(), target.Put())));
  ComPtr<ITarget> dump;
  ASSERT_OK(api_->GetCoreDumpTargetByHost(B("dump-one").Get(), dump.Put()));
  EXPECT_NE(HandleOf(dump), HandleOf(Target("kit-one")));

  // The host drive has no driver on any platform the server runs on, and says so.
  unsigned char letter = 0;
  ULONG driver = 0, v[4] = {};
  Bstr name;
  for (const auto& call : std::vector<std::function<HRESULT()>>{
           [&] { return api_->StartRVS('R', 1); },
           [&] { return api_->StopRVS(); },
           [&] { return api_->GetRVSDrive(&driver, &letter); },
           [&] {
             return api_->FileSystemDriverVersion(&v[0], &v[1], &v[2], &v[3], &driver, name.Put());
           },
       }) {
    EXPECT_EQ(call(), KXAPI_SERVER_DOKAN_INVALID_DRIVE);
    EXPECT_NE(TakeErrorText().find("The host drive is not available on this platform"),
              std::string::npos);
  }
#ifndef _WIN32  // Windows has the picker dialog (tests/host/picker_test.py)
  EXPECT_EQ(api_->ShowTargetPicker(0, target.Put()), E_NOTIMPL);
#endif
}

// The scripted stand-in, found along PATH: it dies without answering CANCEL_FIND_TARGETS.
class RootObjectServerDeathTest : public ::testing::Test {
 protected:
  void TearDown() override {
    std::error_code error;
    std::filesystem::remove(alive_file_, error);  // the stand-ins exit
  }
  bool Ready() const { return platform::ServerIsReady(user_, servertest::RunDir(), 0); }

  std::u16string user_ = testing::UniqueUser("vkxroot");
  testing::TempDir dir_;
  std::filesystem::path alive_file_ = dir_.path() / "alive";
  testing::ScopedVariable scripted_user_{"VEKX_SCRIPTED_USER", platform::Utf16ToUtf8(user_)};
  testing::ScopedVariable alive_{"VEKX_SCRIPTED_ALIVE_FILE", alive_file_.string()};
  testing::ScopedVariable path_{"PATH", testing::PathStartingWith(VEKX_SCRIPTED_SERVER_DIR)};
};

TEST_F(RootObjectServerDeathTest, ACallTheServerDiesInFailsAndTheNextStartsAnother) {
  std::ofstream(alive_file_) << "serve\n";
  ComPtr<IVEKXAPI12> api;
  ASSERT_OK(CreateRootObject(CKXVEPrivateAPI::Create({user_, servertest::RunDir()}), IID_IVEKXAPI12,
                             reinterpret_cast<void**>(api.Put())));
  ASSERT_OK(api->CheckCompatibility(21));
  ULONG first[4] = {}, second[4] = {};  // the server's version, its process id last
  ASSERT_OK(ServerVersion(api.Get(), first));
  ASSERT_NE(first[3], 0u);

  EXPECT_EQ(api->CancelFindTargets(), KXAPI_WAIT_ERROR);
  EXPECT_EQ(TakeErrorText(), TableText(KXAPI_WAIT_ERROR));
  ASSERT_TRUE(testing::WaitUntil([&] { return !Ready(); }));
  EXPECT_OK(ServerVersion(api.Get(), second));
  EXPECT_NE(second[3], 0u);
  EXPECT_NE(second[3], first[3]);

  // After Dispose and with no server left, nothing starts one.
  EXPECT_OK(api->Dispose());
  EXPECT_EQ(api->CancelFindTargets(), E_UNEXPECTED);
  std::filesystem::remove(alive_file_);
  ASSERT_TRUE(testing::WaitUntil([&] { return !Ready(); }));
  std::ofstream(alive_file_) << "serve\n";
  EXPECT_EQ(ServerVersion(api.Get()), E_UNEXPECTED);
  EXPECT_FALSE(Ready());
}

#ifndef _WIN32
// Eight callers loop while the server is killed twenty times. Each call either succeeds or fails
// with one of the link's errors, none hangs (ctest's time-out would end a hang), and the first
// call after each kill starts a new server and succeeds.
TEST(ServerFaultLoopTest, CallsSurviveAServerKilledTwentyTimes) {
  testing::ScopedVariable path{
      "PATH", testing::PathStartingWith(
                  std::filesystem::path(VEKX_SERVER_EXECUTABLE).parent_path().string())};
  const std::u16string user = platform::CurrentUserName();
  const auto running = [&] { return platform::RunningServerProcessId(user, servertest::RunDir()); };
  std::vector<ComPtr<IVEKXAPI12>> roots(8);
  for (auto& root : roots) {
    ASSERT_OK(CreateRootObject(CKXVEPrivateAPI::Create({user, servertest::RunDir()}),
                               IID_IVEKXAPI12, reinterpret_cast<void**>(root.Put())));
    ASSERT_OK(root->CheckCompatibility(21));
  }
  const std::set<HRESULT> link_errors = {KXAPI_SERVER_CONNECTION_ERROR,
                                         KXAPI_SEND_ERROR,
                                         KXAPI_WRITE_ERROR,
                                         KXAPI_WAIT_ERROR,
                                         KXAPI_NOT_CONNECTED,
                                         KXAPI_SERVER_INITIALIZATION_FAILURE,
                                         KXAPI_SERVER_INITIALIZATION_CHECK_FAILED};
  std::atomic<bool> stop{false};
  std::atomic<int> succeeded{0};
  std::mutex mutex;
  std::set<HRESULT> unexpected;
  std::vector<std::thread> callers;
  for (auto& root : roots) {
    callers.emplace_back([&, api = root.Get()] {
      while (!stop) {
        const HRESULT hr = ServerVersion(api);
        if (SUCCEEDED(hr)) {
          ++succeeded;
        } else if (link_errors.count(hr) == 0) {
          std::lock_guard lock(mutex);
          unexpected.insert(hr);
        }
      }
    });
  }
  for (int kill_count = 0; kill_count < 20; ++kill_count) {
    std::optional<uint32_t> pid;
    ASSERT_TRUE(testing::WaitUntil([&] { return (pid = running()).has_value(); })) << kill_count;
    ASSERT_EQ(kill(static_cast<pid_t>(*pid), SIGKILL), 0);
    ASSERT_TRUE(testing::WaitUntil([&] { return running() != pid; })) << kill_count;
    const int before = succeeded;
    ASSERT_TRUE(testing::WaitUntil([&] { return succeeded > before; })) << kill_count;
  }
  stop = true;
  for (auto& caller : callers)
    caller.join();
  EXPECT_TRUE(unexpected.empty()) << std::hex << *unexpected.begin();
  EXPECT_OK(ServerVersion(roots[0].Get()));
  for (auto& root : roots)
    root->Dispose();
  if (const auto last = running()) platform::RequestServerStop(*last);
}
#endif

}  // namespace
}  // namespace qv::apitest
