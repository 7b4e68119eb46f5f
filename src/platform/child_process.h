#pragma once
// Starting and watching a child program: what tests of a whole executable need (the server's
// own tests start vesta-kx this way). POSIX only for now.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qv::platform {

/// Sets the environment variable `name` of this process (and so of the children it starts
/// afterwards) to `value`. Not safe while other threads read the environment.
bool SetEnvironmentValue(const std::string& name, const std::string& value) noexcept;

#ifndef _WIN32
/// A child process started from an executable path with arguments. The destructor kills a child
/// that still runs and reaps it, so no child outlives its owner's scope.
class ChildProcess {
 public:
  /// Starts `path` with `args` (argv[1..]), inheriting the environment. Its standard output and
  /// error go to the file `output_path` (created or truncated) when that is not empty, else to
  /// this process's own. nullptr when the program cannot be started.
  static std::unique_ptr<ChildProcess> Start(const std::string& path,
                                             const std::vector<std::string>& args,
                                             const std::string& output_path) noexcept;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Asks the child to end (SIGTERM).
  void RequestStop() noexcept;
  /// Ends the child at once (SIGKILL).
  void Kill() noexcept;
  /// Waits up to `timeout_ms` for the child to end. Its exit status, or minus the number of the
  /// signal that ended it; nullopt when it still runs.
  std::optional<int> Wait(uint32_t timeout_ms) noexcept;
  int Id() const noexcept { return pid_; }

 private:
  explicit ChildProcess(int pid) noexcept : pid_(pid) {}

  int pid_;
  std::optional<int> status_;
};
#endif

}  // namespace qv::platform
