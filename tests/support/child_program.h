#pragma once
// A program a test starts, watches and ends: on POSIX the platform layer's child process, on
// Windows a process of its own that the test can ask to end as its console would.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qv::platform {
class ChildProcess;
}

namespace qv::testing {

class ChildProgram {
 public:
  // Starts `path` with `args`; its standard output and error go to the file `output_path`.
  // nullptr when it cannot be started.
  static std::unique_ptr<ChildProgram> Start(const std::string& path,
                                             const std::vector<std::string>& args,
                                             const std::string& output_path);
#ifdef _WIN32
  // The same with standard error in a file of its own (POSIX tests redirect through the shell).
  static std::unique_ptr<ChildProgram> Start(const std::string& path,
                                             const std::vector<std::string>& args,
                                             const std::string& output_path,
                                             const std::string& error_path);
#endif
  // Kills a program that still runs, so that none outlives its test.
  ~ChildProgram();
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  // Asks the program to end: SIGTERM on POSIX, Ctrl+Break to its process group on Windows.
  // False when the request cannot be delivered: a Ctrl+Break needs a console that this process
  // shares with the program, and a test run under Wine has none.
  bool RequestStop();
  // Ends the program at once.
  void Kill();
  // Its exit status once it has ended (minus the signal's number when one ended it on POSIX);
  // nullopt while it still runs after `timeout_ms`.
  std::optional<int> Wait(uint32_t timeout_ms);
  // What each of its threads is doing (gdb's backtraces where gdb may attach, else each thread's
  // system call), for the message of a test whose program did not end; empty on Windows.
  std::string ThreadStacks() const;

 private:
  ChildProgram() = default;

#ifdef _WIN32
  void* process_ = nullptr;  // HANDLE
  uint32_t id_ = 0;
#else
  std::unique_ptr<platform::ChildProcess> process_;
#endif
};

}  // namespace qv::testing
