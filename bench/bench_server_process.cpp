#include "bench_server_process.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <thread>

#include "api/root_object.h"
#include "platform/process_identity.h"
#include "platform/server_process.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/frame.h"
#include "serverlink/wire_fields.h"

namespace qv::bench {

bool BenchServer::Prepare(const std::string& tag) {
  namespace fs = std::filesystem;
  const std::string pid = std::to_string(platform::CurrentProcessId());
  root_ = fs::temp_directory_path() / ("vkx-" + tag + "-" + pid);
  std::error_code error;
  fs::remove_all(root_, error);
  if (!fs::create_directory(root_, error)) {
    std::fprintf(stderr, "cannot make %s\n", root_.c_str());
    return false;
  }
  fs::permissions(root_, fs::perms::owner_all, fs::perm_options::replace, error);
  platform::SetEnvironmentValue("XDG_RUNTIME_DIR", root_.string());
  run_dir_ = platform::ServerRuntimeDirectory().value_or("");
  user_ = u"vkx" + platform::Utf8ToUtf16(tag + pid);
  return !run_dir_.empty();
}

BenchServer::~BenchServer() {
  if (process_ != nullptr) Stop();
  std::error_code error;
  if (!root_.empty()) std::filesystem::remove_all(root_, error);
}

bool BenchServer::Start(std::vector<std::string> args) {
  args.insert(args.begin(), {"--user", platform::Utf16ToUtf8(user_)});
  process_ = platform::ChildProcess::Start(VEKX_SERVER_EXECUTABLE, args,
                                           (root_ / "vesta-kx.out").string());
  for (int i = 0; process_ != nullptr && i < 1000; ++i) {
    if (platform::ServerIsReady(user_, run_dir_, 0)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::fprintf(stderr, "vesta-kx did not become ready\n");
  return false;
}

bool BenchServer::StartOnScenario(std::string_view scenario) {
  if (scenario.empty()) return Start({"--log-level", "1"});
  const std::string file = (root_ / "scenario.yaml").string();
  std::ofstream(file, std::ios::binary | std::ios::trunc) << scenario;
  return Start({"--log-level", "1", "--scenario", file});
}

bool BenchServer::Stop() {
  if (process_ == nullptr) return true;
  process_->RequestStop();
  const bool clean = process_->Wait(10000) == std::optional<int>(0);
  process_.reset();
  if (!clean) std::fprintf(stderr, "vesta-kx did not end cleanly\n");
  return clean;
}

bool BenchServer::OpenRoot(vekx::ComPtr<IVEKXAPI>& api) const {
  return CreateRootObject(CKXVEPrivateAPI::Create({user_, run_dir_}), IID_IVEKXAPI,
                          reinterpret_cast<void**>(api.Put())) == S_OK &&
         api->CheckCompatibility(21) == S_OK;
}

bool BenchServer::Finish(bool ok) {
  ok = Stop() && ok;
  if (!ok) PrintOutput();
  return ok;
}

void BenchServer::PrintOutput() const {
  std::ifstream output(root_ / "vesta-kx.out");
  std::fprintf(stderr, "%s", std::string(std::istreambuf_iterator<char>(output), {}).c_str());
}

std::pair<size_t, size_t> PowerStatusFrameSizes() {
  MessageBuffer request, response;
  WriteRequestHeader(request, CPowerStatusRequest::kTypeNumber, 1, 1);
  CPowerStatusRequest().Serialize(request);
  WriteField(response, static_cast<uint32_t>(IncomingKind::kResponse));
  WriteField(response, CPowerStatusResponse::kTypeNumber);
  CPowerStatusResponse().Serialize(response);
  return {kFrameHeaderBytes + request.Size(), kFrameHeaderBytes + response.Size()};
}

std::pair<size_t, size_t> ConsoleOutputFrameSizes(size_t text_length) {
  CConsoleOutputNotification output;
  output.Text.assign(text_length, u'x');
  MessageBuffer notification, ack;
  WriteField(notification, static_cast<uint32_t>(IncomingKind::kNotification));
  WriteField(notification, CConsoleOutputNotification::kTypeNumber);
  output.Serialize(notification);
  WriteRequestHeader(ack, CAckConsoleOutputRequest::kTypeNumber, 1, 1);
  CAckConsoleOutputRequest().Serialize(ack);
  return {kFrameHeaderBytes + notification.Size(), kFrameHeaderBytes + ack.Size()};
}

}  // namespace qv::bench
