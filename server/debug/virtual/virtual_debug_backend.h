#pragma once
// The debug backend of a virtual kit: the processes it loads from the program images its
// scenario describes (docs/debugging.md).

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "server/debug/process_debug_backend.h"
#include "server/debug/virtual/virtual_process.h"
#include "server/kits/scenario.h"

namespace qv::server {

class VirtualDebugBackend final : public ProcessDebugBackend<VirtualProcess> {
 public:
  // Starts a process of each image marked running, and the clock that moves running threads
  // along their paths every `step_ms`.
  VirtualDebugBackend(std::vector<ProgramImage> images, uint32_t step_ms,
                      std::shared_ptr<DebugEvents> events);
  ~VirtualDebugBackend() override;
  void Shutdown() override;

  // The operations each process backend answers its own way.
#define VEKX_PROCESS_OWN(Camel) \
  Status Camel(const DebugCall&, C##Camel##Request&, C##Camel##Response&) override;
#include "server/debug/process_operations.def"

  Status DumpVRInfo(const DebugCall&, CDumpVRInfoRequest&, CDumpVRInfoResponse&) override;
  Status GetCoredumpUserData(const DebugCall&, CGetCoredumpUserDataRequest&,
                             CGetCoredumpUserDataResponse&) override;
  Status GetNetworkEmulationSettings(const DebugCall&, CGetNetworkEmulationSettingsRequest&,
                                     CGetNetworkEmulationSettingsResponse&) override;
  Status SetNetworkEmulationSettings(const DebugCall&, CSetNetworkEmulationSettingsRequest&,
                                     CSetNetworkEmulationSettingsResponse&) override;

 private:
  // The process, or a failure naming the pid; the backend's lock is held only for the lookup.
  Status Find(uint32_t pid, ProcessPtr& process) override;
  ProcessPtr Start(const ProgramImage& image, bool stopped);
  // The clock's thread: each tick advances every process, outside the table's lock.
  void RunClock();

  const std::vector<ProgramImage> images_;
  std::mutex mutex_;  // the table of processes, not the processes themselves
  std::map<uint32_t, ProcessPtr> processes_;
  uint32_t next_pid_ = 100;
  uint32_t next_tid_ = 1000;

  const std::chrono::milliseconds step_;
  std::mutex clock_mutex_;
  std::condition_variable clock_wake_;
  bool stopping_ = false;
  std::thread clock_;  // last: it uses everything above
};

}  // namespace qv::server
