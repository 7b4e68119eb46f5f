#pragma once
// The public objects against a real vesta-kx: each test starts its own server, under a user name
// of its own in the test process's runtime directory (see server/server_harness.h), on a scenario
// with quick timings, and gets a root object bound to it that has passed CheckCompatibility.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "api/root_object.h"
#include "server/server_harness.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/variant.h"
#include "vekxapi/vekxapi.h"

namespace qv::apitest {

using servertest::kQuickScenario;

// The call succeeds; a failure shows the thread's error text with the code.
#define EXPECT_OK(call) EXPECT_EQ((call), S_OK) << ::qv::apitest::TakeErrorText()
#define ASSERT_OK(call) ASSERT_EQ((call), S_OK) << ::qv::apitest::TakeErrorText()

inline vekx::Bstr B(std::string_view text) {
  return vekx::Bstr::FromUtf8(text);
}

// The version of the server behind `root`, its process id last, in `v` when given: a call that
// goes to the server and back.
inline HRESULT ServerVersion(IVEKXAPI* root, ULONG* v = nullptr) {
  ULONG own[4] = {};
  if (v == nullptr) v = own;
  return root->ServerVersion(&v[0], &v[1], &v[2], &v[3]);
}

// The description of the calling thread's error object, taken from it; empty when it has none.
inline std::string TakeErrorText() {
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK || info == nullptr) return {};
  BSTR text = nullptr;
  info->GetDescription(&text);
  info->Release();
  return vekx::Bstr::Adopt(text).Utf8();
}

// A VARIANT holding a one-dimensional array of unsigned integers of `type` (VT_UI1 to VT_UI8):
// `values`, each cut to the element's width.
inline vekx::Variant ArrayOf(VARTYPE type, const std::vector<uint64_t>& values) {
  SAFEARRAY* array = SafeArrayCreateVector(type, 0, static_cast<ULONG>(values.size()));
  void* data = nullptr;
  SafeArrayAccessData(array, &data);
  const size_t width = SafeArrayGetElemsize(array);
  for (size_t i = 0; i < values.size(); ++i)
    std::memcpy(static_cast<char*>(data) + i * width, &values[i], width);
  SafeArrayUnaccessData(array);
  VARIANT value;
  VariantInit(&value);
  value.vt = static_cast<VARTYPE>(VT_ARRAY | type);
  value.parray = array;
  return vekx::Variant::Adopt(value);
}

// Each element of an array a method returned as the object of `iid` (null where it is none).
template <class Interface>
std::vector<vekx::ComPtr<Interface>> Objects(const vekx::Variant& array, REFIID iid) {
  std::vector<vekx::Variant> elements;
  EXPECT_OK(vekx::ArrayElements(array.Get(), elements));
  std::vector<vekx::ComPtr<Interface>> objects(elements.size());
  for (size_t i = 0; i < elements.size(); ++i) {
    if (elements[i].Type() == VT_DISPATCH)
      elements[i].Get().pdispVal->QueryInterface(iid, reinterpret_cast<void**>(objects[i].Put()));
  }
  return objects;
}

// The unsigned numbers of an array a method returned.
inline std::vector<uint64_t> Numbers(const vekx::Variant& array) {
  std::vector<vekx::Variant> elements;
  EXPECT_OK(vekx::ArrayElements(array.Get(), elements));
  std::vector<uint64_t> numbers;
  for (const vekx::Variant& element : elements) {
    const VARIANT& value = element.Get();
    numbers.push_back(value.vt == VT_UI1   ? value.bVal
                      : value.vt == VT_UI4 ? value.ulVal
                                           : value.ullVal);
  }
  return numbers;
}

// "Name=Value" for each INameValuePair of a returned array.
inline std::vector<std::string> Pairs(const vekx::Variant& array) {
  std::vector<std::string> pairs;
  for (const auto& pair : Objects<INameValuePair>(array, IID_INameValuePair)) {
    if (!pair) return {"not an INameValuePair"};
    vekx::Bstr name, value;
    EXPECT_OK(pair->get_Name(name.Put()));
    EXPECT_OK(pair->get_ValueString(value.Put()));
    pairs.push_back(name.Utf8() + "=" + value.Utf8());
  }
  return pairs;
}

// The requests the server's packet log at `path` shows, by name, in order.
inline std::vector<std::string> LoggedRequests(const std::string& path) {
  std::vector<std::string> requests;
  std::istringstream lines(servertest::ReadText(path));
  for (std::string line; std::getline(lines, line);) {
    if (const size_t at = line.find(" REQUEST "); at != std::string::npos)
      requests.push_back(line.substr(at + 9, line.find(' ', at + 9) - at - 9));
  }
  return requests;
}

// The handle of a target object; the test fails when it gives none.
template <class Target>
ULONG HandleOf(const Target& target) {
  ULONG handle = 0;
  EXPECT_OK(target->get_Handle(&handle));
  return handle;
}

// What a property getter of `object` returns; the test fails when the getter does.
template <class Object, class Interface, class Value>
Value Get(Object* object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(Value*)) {
  Value value{};
  EXPECT_OK((object->*getter)(&value));
  return value;
}
template <class Object, class Interface>
std::string GetText(Object* object, HRESULT (STDMETHODCALLTYPE Interface::*getter)(BSTR*)) {
  return vekx::Bstr::Adopt(Get(object, getter)).Utf8();
}

// The stop reason code of a process's or thread's info (all ones when it gives no reason).
template <class Info>
uint32_t StopCode(Info* info) {
  vekx::ComPtr<IStopReason> reason;
  EXPECT_OK(info->get_StopReason(reason.Put()));
  return reason ? static_cast<uint32_t>(Get(reason.Get(), &IStopReason::get_Code)) : ~0u;
}

// The objects of `iid` in the list a getter of `object` returns.
template <class Element, class Object, class Interface>
std::vector<vekx::ComPtr<Element>> ListOf(Object* object,
                                          HRESULT (STDMETHODCALLTYPE Interface::*getter)(VARIANT*),
                                          REFIID iid) {
  VARIANT list = Get(object, getter);
  return Objects<Element>(vekx::Variant::Adopt(list), iid);
}

// `path` on `device` of `target` run with `args` (none when null), stopped at its entry when
// `stopped`; null when it is not loaded.
inline vekx::ComPtr<IProcess10> LoadProcess(ITarget* target, eDevice device, const char* path,
                                            bool stopped, const char* args = nullptr) {
  vekx::ComPtr<IProcess> loaded;
  EXPECT_OK(target->LoadProcess(device, B(path).Get(), stopped ? 1 : 0, 0,
                                args ? B(args).Get() : nullptr, nullptr, loaded.Put()));
  vekx::ComPtr<IProcess10> process;
  if (loaded) loaded.QueryInto(IID_IProcess10, process);
  return process;
}

// Resumes every thread of `process`, or steps the threads `tids` names.
inline HRESULT Resume(IProcess10* process, const vekx::Variant& tids = {}) {
  vekx::Variant failed;
  return process->Resume(tids.Get(), failed.Put());
}

// A breakpoint at `address` for `thread` (0: every thread), its original code in `opcode`.
inline HRESULT Break(IProcess10* process, ULONG thread, uint64_t address, vekx::Variant& opcode,
                     ULONG& id) {
  return process->SetSoftwareBreakpoint(thread, address, SWBREAKPT_ATTR_MODE, 0,
                                        vekx::Variant().Get(), opcode.Put(), &id);
}

// The Debug group's stops: how many came, and the last one.
class StopRecorder : public vekx::EventSink<IEventDebug> {
 public:
  HRESULT STDMETHODCALLTYPE OnStopNotification(IStopNotificationEvent* event) override {
    vekx::ComPtr<IStopNotification> stop;
    const HRESULT hr = event->get_StopNotification(stop.Put());
    std::lock_guard lock(mutex_);
    last_ = stop;
    ++stops_;
    return hr;
  }

  // Waits for the stop after `stops` earlier ones: its reason code (0 on a time-out), its thread
  // in `thread` and the stop itself in `stop`.
  uint32_t WaitStop(int stops, ULONG* thread = nullptr,
                    vekx::ComPtr<IStopNotification>* stop = nullptr) {
    vekx::ComPtr<IStopNotification> last;
    if (!servertest::WaitUntil([&] {
          std::lock_guard lock(mutex_);
          last = last_;
          return stops_ > stops;
        }) ||
        !last) {
      return 0;
    }
    if (stop != nullptr) *stop = last;
    vekx::ComPtr<IProcessInfo> info;
    EXPECT_OK(last->get_ProcessInfo(info.Put()));
    const ULONG tid = Get(last.Get(), &IStopNotification::get_ThreadId);
    if (thread != nullptr) *thread = tid;
    return info ? StopCode(info.Get()) : 0;
  }

 private:
  std::mutex mutex_;
  int stops_ = 0;
  vekx::ComPtr<IStopNotification> last_;
};

class LiveApiTest : public ::testing::Test {
 protected:
  // The scenario the server starts with; a test class may override it.
  virtual std::string Scenario() const { return kQuickScenario; }

  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(StartServer());
    client_ = CKXVEPrivateAPI::Create({user_, servertest::RunDir()});
    ASSERT_OK(CreateRootObject(client_, IID_IVEKXAPI12, reinterpret_cast<void**>(api_.Put())));
    ASSERT_OK(api_->CheckCompatibility(21));
  }

  // Starts the test's server on Scenario() and waits until it serves.
  void StartServer() {
    servertest::StartReady(server_, user_, {"--scenario", servertest::WriteScenario(Scenario())});
  }

  void TearDown() override {
    if (api_) api_->Dispose();
    api_.Reset();
    client_.reset();
    StopServer();
  }

  // A new root object for this test's server (not yet checked for compatibility).
  HRESULT NewRoot(REFIID iid, void** object) {
    return CreateRootObject(CKXVEPrivateAPI::Create({user_, servertest::RunDir()}), iid, object);
  }

  // A new root object for this test's server that has passed CheckCompatibility.
  vekx::ComPtr<IVEKXAPI12> CheckedRoot() {
    vekx::ComPtr<IVEKXAPI12> root;
    EXPECT_OK(NewRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(root.Put())));
    if (root) {
      EXPECT_OK(root->CheckCompatibility(21));
    }
    return root;
  }

  // Ends the test's server and waits for it.
  void StopServer() {
    if (server_ == nullptr) return;
    bool asked = false;
    server_->Stop(asked);
    server_.reset();
  }

  // A new target object for `host`, added (or found) through `root` or else api_.
  vekx::ComPtr<ITarget47> Target(const char* host, IVEKXAPI12* root = nullptr) {
    vekx::ComPtr<ITarget> target;
    EXPECT_OK((root ? root : api_.Get())->AddTarget(B(host).Get(), target.Put()));
    vekx::ComPtr<ITarget47> latest;
    if (target) target.QueryInto(IID_ITarget47, latest);
    return latest;
  }

  const std::u16string user_ = servertest::TestUser();
  std::unique_ptr<servertest::ServerProcess> server_;
  std::shared_ptr<CKXVEPrivateAPI> client_;  // api_'s, for what no public method reaches
  vekx::ComPtr<IVEKXAPI12> api_;
};

}  // namespace qv::apitest
