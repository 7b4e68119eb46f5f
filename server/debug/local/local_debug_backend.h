#pragma once
// The debug backend of the local target: the host's own processes, run or attached under ptrace
// (docs/debugging.md). Processes are kept by pid; each has its own tracer thread and its own
// state, so the backend's lock guards only the table and is never held while a process works.

#include <map>
#include <memory>
#include <mutex>

#include "server/debug/local/traced_process.h"
#include "server/debug/process_debug_backend.h"

namespace qv::server {

class LocalDebugBackend final : public ProcessDebugBackend<TracedProcess> {
 public:
  explicit LocalDebugBackend(std::shared_ptr<DebugEvents> events);
  ~LocalDebugBackend() override;
  void Shutdown() override;

  // The operations each process backend answers its own way.
#define VEKX_PROCESS_OWN(Camel) \
  Status Camel(const DebugCall&, C##Camel##Request&, C##Camel##Response&) override;
#include "server/debug/process_operations.def"

  void ConsoleInput(uint32_t process_id, const std::string& text) override;

 private:
  // The process under the debugger with that pid, or a failure naming it. A process that has
  // ended leaves the table here.
  Status Find(uint32_t pid, ProcessPtr& process) override;
  // Every process in the table that is not gone; the gone ones leave it.
  std::vector<ProcessPtr> Processes();
  // Refuses the server itself and its ancestors, which tracing would freeze.
  static Status CheckAttachable(pid_t pid);

  std::mutex mutex_;  // guards processes_ and shut_down_, never held while a process works
  std::map<uint32_t, ProcessPtr> processes_;
  bool shut_down_ = false;
};

}  // namespace qv::server
