#pragma once
// Running the real vesta-kx for a test: a private runtime directory per test process (through
// XDG_RUNTIME_DIR, which the server and this process both read), a user name per test (its
// pipes, events and lock files are the test's own, also where pipe names are system-wide), a
// scenario file, the process itself, and clients that talk to it through the server link or
// byte by byte.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "platform/child_process.h"
#include "platform/pipe.h"
#include "platform/process_identity.h"
#include "platform/server_process.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/frame.h"
#include "serverlink/handshake.h"
#include "serverlink/server_link.h"
#include "support/child_program.h"
#include "support/scripted_server.h"
#include "support/test_environment.h"
#include "vekxapi/result_codes.h"

namespace qv::servertest {

inline constexpr uint32_t kNone = 0xFFFFFFFF;

// A result code as a response's Result holds it.
constexpr uint32_t Code(eErrorCode code) {
  return static_cast<uint32_t>(code);
}

// The response class of each request class.
template <class Request>
struct ResponseOf;
#define VEKX_RESPONSE_OF(Camel, ...)     \
  template <>                            \
  struct ResponseOf<C##Camel##Request> { \
    using type = C##Camel##Response;     \
  };
#define VEKX_OPERATION VEKX_RESPONSE_OF
#include "requests/operations.def"
#define VEKX_OPERATION VEKX_RESPONSE_OF
#include "requests/debug_operations.def"
#undef VEKX_RESPONSE_OF

// A user name for one test's server.
inline std::u16string TestUser() {
  return testing::UniqueUser("vkxsrv");
}

// A scenario with short timings, so that power and connection changes take a few milliseconds.
inline constexpr char kQuickScenario[] = R"(kits:
  - host: kit-one
    name: One
    mac: "02:00:00:00:00:01"
    sdk_version: 5.1.2.3
    power: on
    default: true
    address: 10.1.0.1
    timings: {boot_ms: 30, power_off_ms: 20, connect_ms: 10}
  - host: kit-two
    name: Two
    power: off
    address: 10.1.0.2
    timings: {boot_ms: 30, power_off_ms: 20, connect_ms: 10}
  - host: kit-gone
    reachable: false
  - host: kit-slow
    power: off
    timings: {boot_ms: 20000}
  - host: kit-spare
    registered: false
  - host: mirador-one
    name: Mirador One
    mac: "02:00:00:00:00:09"
    address: 10.1.0.9
    mirador: true
    registered: false
)";

inline std::atomic<bool> g_test_root_made{false};

// The runtime directory of this test process, set up once.
inline const std::filesystem::path& TestRoot() {
  static const std::filesystem::path root = [] {
    const auto base = std::filesystem::temp_directory_path() /
                      ("vkx-srv-" + std::to_string(platform::CurrentProcessId()));
    std::filesystem::remove_all(base);
    std::filesystem::create_directories(base);
    std::filesystem::permissions(base, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace);
    platform::SetEnvironmentValue("XDG_RUNTIME_DIR", base.string());
    g_test_root_made = true;
    return base;
  }();
  return root;
}

// Removes the test process's directory at the end when every test passed; after a failure it
// stays, with the servers' output files, for a look.
class TestRootCleanup : public ::testing::Environment {
 public:
  void TearDown() override {
    if (g_test_root_made && ::testing::UnitTest::GetInstance()->Passed()) {
      std::error_code ignored;
      std::filesystem::remove_all(TestRoot(), ignored);
    }
  }
};

inline const bool kTestRootCleanupRegistered =
    (::testing::AddGlobalTestEnvironment(new TestRootCleanup), true);

inline std::string RunDir() {
  TestRoot();
  return platform::ServerRuntimeDirectory().value_or("");
}

inline std::string ReadText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline bool WaitUntil(const std::function<bool()>& done, int timeout_ms = 10000) {
  return testing::WaitUntil(done, std::chrono::milliseconds(timeout_ms));
}

// One vesta-kx process.
class ServerProcess {
 public:
  // Starts vesta-kx serving `user` with `args`; its output goes to a file that Output() reads.
  ServerProcess(const std::u16string& user, std::vector<std::string> args,
                const std::string& tag = "server")
      : user_(user) {
    output_ = TestRoot() / (tag + "-" + platform::Utf16ToUtf8(user) + ".out");
    args.insert(args.begin(), {"--user", platform::Utf16ToUtf8(user)});
    process_ = testing::ChildProgram::Start(VEKX_SERVER_EXECUTABLE, args, output_.string());
  }
  bool Started() const { return process_ != nullptr; }
  // Waits until the server signals readiness.
  bool WaitReady() const {
    return WaitUntil([this] { return platform::ServerIsReady(user_, RunDir(), 0); });
  }
  // A server that never started has nothing to wait for, stop or kill.
  std::optional<int> Wait(uint32_t ms) { return process_ ? process_->Wait(ms) : std::nullopt; }
  // Asks the server to end as its user would and waits up to 10 s for its exit status. Where
  // the request cannot be delivered (under Wine no console carries a Ctrl+Break to it), the
  // server is killed instead and `asked` is false.
  std::optional<int> Stop(bool& asked) {
    asked = false;
    if (process_ == nullptr) return std::nullopt;
    asked = process_->RequestStop();
    if (!asked) process_->Kill();
    return process_->Wait(10000);
  }
  // Asks the server to end and expects a clean exit where it can be asked.
  // One that does not end says what its threads were doing, and is killed.
  void StopCleanly() {
    bool asked = false;
    const std::optional<int> code = Stop(asked);
    if (!asked) return;
    const std::string stacks = code.has_value() ? "" : process_->ThreadStacks();
    if (!code.has_value()) Kill();
    EXPECT_EQ(code, std::optional<int>(0)) << Output() << stacks;
  }
  // Ends the server at once, as a crash would, and waits for it.
  void Kill() {
    if (process_ == nullptr) return;
    process_->Kill();
    process_->Wait(10000);
  }
  std::string Output() const { return ReadText(output_); }

 private:
  std::u16string user_;
  std::filesystem::path output_;
  std::unique_ptr<testing::ChildProgram> process_;
};

// Starts vesta-kx for `user` with `args` into `server` and waits until it serves.
inline void StartReady(std::unique_ptr<ServerProcess>& server, const std::u16string& user,
                       const std::vector<std::string>& args) {
  server = std::make_unique<ServerProcess>(user, args);
  ASSERT_TRUE(server->Started());
  ASSERT_TRUE(server->WaitReady()) << server->Output();
}

// The wire names of `notifications`, in order.
inline std::vector<std::string> NamesOf(
    const std::vector<std::shared_ptr<CNotification>>& notifications) {
  std::vector<std::string> names;
  for (const auto& notification : notifications)
    names.push_back(platform::Utf16ToUtf8(notification->GetName()));
  return names;
}

// Writes `text` to a scenario file and returns its path.
inline std::string WriteScenario(const std::string& text, const std::string& name = "scenario") {
  const auto path = TestRoot() / (name + ".yaml");
  std::ofstream(path, std::ios::binary) << text;
  return path.string();
}

// A client over the library's server link, keeping every notification it receives.
class Client {
 public:
  explicit Client(const std::u16string& user) {
    ServerLink::Hooks hooks;
    hooks.notification = [this](std::shared_ptr<CNotification> notification) {
      std::lock_guard lock(mutex_);
      notifications_.push_back(std::move(notification));
      cv_.notify_all();
    };
    link_ = std::make_unique<ServerLink>(ResponseFactory(), NotificationFactory(),
                                         ServerLink::ServerNames{user, RunDir()}, std::move(hooks));
  }
  ~Client() { link_->Shutdown(); }

  // Sends `request` about `target` and returns the response (LinkStatus failures fail the test
  // and leave Result at KXAPI_UNKNOWN).
  template <class Response = void, class Request>
  auto Call(uint32_t target, const Request& request) {
    std::conditional_t<std::is_void_v<Response>, typename ResponseOf<Request>::type, Response>
        response;
    uint32_t sequence = 0;
    const LinkStatus status = link_->SendAndWait(target, request, response, sequence);
    EXPECT_EQ(status, LinkStatus::kSuccess) << platform::Utf16ToUtf8(request.GetName());
    if (status != LinkStatus::kSuccess) response.Result = static_cast<uint32_t>(KXAPI_UNKNOWN);
    return response;
  }

  // The handle of a host the scenario registers.
  uint32_t HandleOf(const std::u16string& host) {
    CGetTargetsByHostRequest request;
    request.HostName = host;
    const auto response = Call(kNone, request);
    EXPECT_EQ(response.Result, 0u);
    EXPECT_EQ(response.Targets.size(), 1u) << platform::Utf16ToUtf8(host);
    return response.Targets.empty() ? kNone : response.Targets[0];
  }

  // Waits until `count` notifications have arrived (at most 10 s) and returns all of them.
  std::vector<std::shared_ptr<CNotification>> WaitNotifications(size_t count) {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, std::chrono::seconds(10), [&] { return notifications_.size() >= count; });
    return notifications_;
  }
  std::vector<std::shared_ptr<CNotification>> Notifications() {
    std::lock_guard lock(mutex_);
    return notifications_;
  }
  // The wire names of the notifications so far, in order.
  std::vector<std::string> NotificationNames() { return NamesOf(Notifications()); }
  ServerLink& link() { return *link_; }

 private:
  std::unique_ptr<ServerLink> link_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::shared_ptr<CNotification>> notifications_;
};

template <class Notification>
const Notification* As(const std::shared_ptr<CNotification>& notification) {
  return dynamic_cast<const Notification*>(notification.get());
}

// A client that speaks the wire byte by byte, to send what the library never would. Every read
// gives up after a time limit instead of hanging the test.
class RawClient {
 public:
  explicit RawClient(const std::u16string& user) : user_(user) {
    // Ends every read after 20 s; the client's end wakes it early.
    watchdog_ = std::jthread([this](std::stop_token gone) {
      std::mutex mutex;
      std::unique_lock lock(mutex);
      std::condition_variable_any wake;
      wake.wait_for(lock, gone, std::chrono::seconds(20), [] { return false; });
      stop_.Set();
    });
  }

  bool ConnectTo(const std::u16string& name) {
    uint32_t error = 0;
    return platform::Pipe::Connect(name, 5000, pipe_, error) == platform::IoResult::kOk;
  }
  // Opens the well-known pipe only.
  bool OpenWellKnown() { return ConnectTo(std::u16string(kWellKnownPipeNamePrefix) + user_); }
  // The whole handshake, ending on the private pipe.
  bool Connect() {
    if (!OpenWellKnown()) return false;
    ConnectRequest request;
    request.process_id = platform::CurrentProcessId();
    request.client_number = 7;
    MessageBuffer out;
    std::vector<uint8_t> answer;
    if (!request.Encode(out) || !WriteFrame(out.Data(), out.Size()) || !ReadFrame(answer))
      return false;
    MessageBuffer in(answer.data(), answer.size());
    ConnectResponse response;
    if (!response.Decode(in) || response.version != kProtocolVersionWords) return false;
    pipe_.reset();
    return ConnectTo(response.private_pipe);
  }
  bool WriteRaw(const void* data, size_t size) {
    const std::span<const uint8_t> parts[] = {{static_cast<const uint8_t*>(data), size}};
    return pipe_->Write(parts, stop_) == platform::IoResult::kOk;
  }
  bool WriteFrame(const void* body, size_t size) {
    return testing::WriteFrame(*pipe_, stop_, body, size);
  }
  // A request with its header; `fields` follow it as given.
  bool WriteRequest(uint32_t type_number, uint32_t target, uint32_t sequence,
                    const std::vector<uint8_t>& fields) {
    MessageBuffer out;
    WriteRequestHeader(out, type_number, target, sequence);
    out.Write(fields.data(), fields.size());
    return WriteFrame(out.Data(), out.Size());
  }
  // Reads one frame's body; false when the pipe ends (or the time limit passes).
  bool ReadFrame(std::vector<uint8_t>& body) { return testing::ReadFrame(*pipe_, stop_, body); }
  // Reads frames until a response arrives and decodes its head.
  bool ReadResponseHead(uint32_t& type_number, CResponse& head) {
    std::vector<uint8_t> body;
    while (ReadFrame(body)) {
      MessageBuffer in(body.data(), body.size());
      uint32_t kind = 0;
      if (!ReadField(in, kind) || !ReadField(in, type_number)) return false;
      if (kind == 0) return head.CResponse::Deserialize(in);
    }
    return false;
  }
  // True when the server has closed the pipe (a read ends without data).
  bool ClosedByServer() {
    std::vector<uint8_t> body;
    return !ReadFrame(body) && !stop_.IsSet();
  }

 private:
  std::u16string user_;
  platform::StopSignal stop_;
  std::unique_ptr<platform::Pipe> pipe_;
  std::jthread watchdog_;  // last: it ends before the pipe goes
};

// A fixture that starts vesta-kx on kQuickScenario (or another scenario, or the built-in one) and
// stops it at the end, expecting a clean exit where it can be asked to stop.
class ServerTest : public ::testing::Test {
 protected:
  // Tests of a tool that serves the account's own user name pass that name.
  explicit ServerTest(std::u16string user = TestUser()) : user_(std::move(user)) {}

  void StartServer(bool built_in = false, const std::string& scenario = kQuickScenario) {
    std::vector<std::string> args{"--log-level", "2"};
    if (!built_in) args.insert(args.end(), {"--scenario", WriteScenario(scenario)});
    args.insert(args.end(), extra_args_.begin(), extra_args_.end());
    StartReady(server_, user_, args);
  }
  void SetUp() override { StartServer(); }
  void TearDown() override {
    if (server_ != nullptr) server_->StopCleanly();
  }

  const std::u16string user_;
  std::vector<std::string> extra_args_;  // more of vesta-kx's options, set before SetUp
  std::unique_ptr<ServerProcess> server_;
};

}  // namespace qv::servertest
