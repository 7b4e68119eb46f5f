#include "platform/child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <thread>

extern char** environ;

namespace qv::platform {

bool SetEnvironmentValue(const std::string& name, const std::string& value) noexcept {
  return setenv(name.c_str(), value.c_str(), 1) == 0;
}

std::unique_ptr<ChildProcess> ChildProcess::Start(const std::string& path,
                                                  const std::vector<std::string>& args,
                                                  const std::string& output_path) noexcept {
  try {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& arg : args)
      argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return nullptr;
    bool ok = true;
    if (!output_path.empty()) {
      ok = posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_path.c_str(),
                                            O_WRONLY | O_CREAT | O_TRUNC, 0600) == 0 &&
           posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO) == 0;
    }
    pid_t pid = -1;
    ok = ok && posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (!ok) return nullptr;
    return std::unique_ptr<ChildProcess>(new ChildProcess(pid));
  } catch (const std::exception&) {
    return nullptr;
  }
}

ChildProcess::~ChildProcess() {
  if (!status_.has_value()) {
    Kill();
    Wait(10000);
  }
}

void ChildProcess::RequestStop() noexcept {
  if (!status_.has_value()) kill(pid_, SIGTERM);
}

void ChildProcess::Kill() noexcept {
  if (!status_.has_value()) kill(pid_, SIGKILL);
}

std::optional<int> ChildProcess::Wait(uint32_t timeout_ms) noexcept {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!status_.has_value()) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      break;
    }
    if (done < 0 && errno != EINTR) {
      status_ = -1;
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return status_;
}

}  // namespace qv::platform
