#pragma once
// The real vesta-kx for a benchmark: a runtime directory of its own under the temporary directory
// (XDG_RUNTIME_DIR points there for this process), a user name of its own, so that it meets no
// other server; stopped, and the directory removed, at the end.

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/child_process.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace qv::bench {

class BenchServer {
 public:
  // Makes the directory, named after `tag` and this process. False when it cannot.
  bool Prepare(const std::string& tag);
  ~BenchServer();

  const std::filesystem::path& root() const { return root_; }
  const std::u16string& user() const { return user_; }
  const std::string& run_dir() const { return run_dir_; }

  // Starts vesta-kx with `args` for this user and waits until it is ready.
  bool Start(std::vector<std::string> args);
  // Start, logging warnings only, on `scenario` (YAML, written into the directory) or, when it is
  // empty, on the built-in scenario.
  bool StartOnScenario(std::string_view scenario);
  // Asks it to end; false when it did not end cleanly.
  bool Stop();
  // A root object bound to the server that has passed CheckCompatibility.
  bool OpenRoot(vekx::ComPtr<IVEKXAPI>& api) const;
  // Stop, and its output on stderr when it did not end cleanly or the run failed (`ok` false).
  // Whether both went well.
  bool Finish(bool ok);
  // Copies its output to stderr (after a failure).
  void PrintOutput() const;
  // Its process id while it runs, else 0.
  int Pid() const { return process_ != nullptr ? process_->Id() : 0; }

 private:
  std::filesystem::path root_;
  std::u16string user_;
  std::string run_dir_;
  std::unique_ptr<platform::ChildProcess> process_;
};

// The sizes of a POWER_STATUS request and response frame, so that a floor moves as many bytes as
// the benchmarks' small requests.
std::pair<size_t, size_t> PowerStatusFrameSizes();

// The sizes of a CONSOLE_OUTPUT notification frame carrying `text_length` characters and of the
// ACK_CONSOLE_OUTPUT request frame that acknowledges it, so that a floor streams what the server
// and the library exchange for each piece of console output.
std::pair<size_t, size_t> ConsoleOutputFrameSizes(size_t text_length);

}  // namespace qv::bench
