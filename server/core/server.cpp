#include "server/core/server.h"

#include <chrono>
#include <exception>

#include "platform/process_identity.h"
#include "platform/wide_string.h"
#include "server/core/server_log.h"
#include "server/handlers/handlers.h"
#include "serverlink/handshake.h"

namespace qv::server {
namespace {

std::u16string Hex(uint64_t value) {
  static constexpr char16_t kDigits[] = u"0123456789abcdef";
  std::u16string text;
  for (int shift = 60; shift >= 0; shift -= 4)
    text += kDigits[(value >> shift) & 15];
  return text;
}

}  // namespace

Server::Server(const Scenario& scenario, std::chrono::milliseconds frame_timeout)
    : registry_(scenario,
                [this](uint64_t client_id, const CNotification& notification) {
                  packet_log_.RecordNotification(client_id, notification);
                }),
      frame_timeout_(frame_timeout),
      pipe_names_(std::random_device{}()) {
  RegisterHandlers(dispatcher_, registry_, packet_log_);
  RegisterRootHandlers(dispatcher_, registry_, switches_);
  RegisterNetworkManagerHandlers(dispatcher_, registry_, network_manager_);
}

Server::~Server() {
  StopAll();
}

int Server::Start(const std::u16string& user, std::string& message) {
  user_ = user.empty() ? platform::CurrentUserName() : user;
  std::string problem;
  const std::optional<std::string> run_dir = platform::ServerRuntimeDirectory(&problem);
  if (user_.empty() || !run_dir.has_value()) {
    message = problem.empty() ? "cannot use the runtime directory (it must be ours and closed to "
                                "others)"
                              : "cannot use the runtime directory: " + problem;
    return kExitError;
  }
  runtime_dir_ = *run_dir;
  platform::InstanceLockFailure failure = platform::InstanceLockFailure::kSystemError;
  instance_lock_ = platform::InstanceLock::TryAcquire(user_, runtime_dir_, &failure);
  if (instance_lock_ == nullptr) {
    if (failure == platform::InstanceLockFailure::kHeldElsewhere) {
      message = "another vesta-kx already serves user " + platform::Utf16ToUtf8(user_) +
                (runtime_dir_.empty() ? "" : " in " + runtime_dir_) + "; this one exits";
      return kExitAlreadyRunning;
    }
    message = "cannot take the instance lock" + (runtime_dir_.empty() ? "" : " in " + runtime_dir_);
    return kExitError;
  }
  uint32_t error = 0;
  const std::u16string name = std::u16string(kWellKnownPipeNamePrefix) + user_;
  if (platform::PipeListener::Create(name, listener_, error) != platform::IoResult::kOk) {
    message = "cannot listen on " + platform::Utf16ToUtf8(name) + " (system error " +
              std::to_string(error) + ")";
    return kExitError;
  }
  readiness_ = platform::ReadinessMarker::Create(user_, runtime_dir_);
  if (readiness_ == nullptr) {
    message = "cannot signal readiness";
    return kExitError;
  }
  return kExitOk;
}

void Server::Run(const platform::StopSignal& stop) {
  std::thread janitor;
  try {
    janitor = std::thread(&Server::Janitor, this);
  } catch (const std::exception&) {
    ServerLog(kLogErrors, "cannot start the session janitor");
    return;
  }
  ServerLog(kLogClients, "serving " + platform::Utf16ToUtf8(user_) +
                             (runtime_dir_.empty() ? "" : " in " + runtime_dir_));
  const std::u16string prefix =
      u"vkx_" + platform::Utf8ToUtf16(std::to_string(platform::CurrentProcessId())) + u"_";
  while (!stop.IsSet()) {
    std::unique_ptr<platform::Pipe> pipe;
    const platform::IoResult result = listener_->Accept(pipe, stop);
    if (result == platform::IoResult::kStopped) break;
    if (result != platform::IoResult::kOk) {
      ServerLog(kLogErrors, "accepting a client failed (system error " +
                                std::to_string(listener_->LastSystemError()) + ")");
      // Not a busy loop when the system keeps refusing.
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    std::lock_guard lock(sessions_mutex_);
    const uint64_t id = next_client_id_++;
    const std::u16string pipe_name =
        prefix + platform::Utf8ToUtf16(std::to_string(id)) + u"_" + Hex(pipe_names_());
    try {
      auto session = std::make_unique<ClientSession>(id, pipe_name, std::move(pipe), registry_,
                                                     dispatcher_, frame_budget_);
      if (session->Start()) sessions_.push_back(std::move(session));
    } catch (const std::exception&) {
      ServerLog(kLogErrors, "no memory for a new client");
    }
  }
  {
    std::lock_guard lock(sessions_mutex_);
    stopping_ = true;
    janitor_cv_.notify_all();
  }
  janitor.join();
  StopAll();
  ServerLog(kLogClients, "stopped");
}

void Server::Janitor() {
  std::unique_lock lock(sessions_mutex_);
  while (!stopping_) {
    janitor_cv_.wait_for(lock, std::chrono::milliseconds(200));
    const auto now = std::chrono::steady_clock::now();
    for (auto it = sessions_.begin(); it != sessions_.end();) {
      ClientSession& session = **it;
      if (session.HandshakeOverdue(now)) session.Stop();
      if (session.FrameOverdue(now, frame_timeout_)) {
        ServerLog(kLogRefusals, "client " + std::to_string(session.Id()) +
                                    " stalled in the middle of a frame; closing");
        session.Stop();
      }
      if (session.Finished()) {
        session.Join();
        it = sessions_.erase(it);
      } else {
        ++it;
      }
    }
  }
}

void Server::StopAll() {
  registry_.Shutdown();
  std::list<std::unique_ptr<ClientSession>> sessions;
  {
    std::lock_guard lock(sessions_mutex_);
    stopping_ = true;
    sessions.swap(sessions_);
  }
  for (auto& session : sessions)
    session->Stop();
  for (auto& session : sessions)
    session->Join();
  sessions.clear();
  // Not ready any more before the pipe goes, so that no client connects to nothing.
  readiness_.reset();
  listener_.reset();
  instance_lock_.reset();
}

}  // namespace qv::server
