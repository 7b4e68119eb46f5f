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

#include "server/debug/debug_backend.h"
#include "server/debug/virtual/virtual_process.h"
#include "server/kits/scenario.h"

namespace qv::server {

class VirtualDebugBackend final : public DebugBackend {
 public:
  // Starts a process of each image marked running, and the clock that moves running threads
  // along their paths every `step_ms`.
  VirtualDebugBackend(std::vector<ProgramImage> images, uint32_t step_ms,
                      std::shared_ptr<DebugEvents> events);
  ~VirtualDebugBackend() override;
  void Shutdown() override;

  Status LoadProcess(const DebugCall&, CLoadProcessRequest&, CLoadProcessResponse&) override;
  Status KillProcess(const DebugCall&, CKillProcessRequest&, CKillProcessResponse&) override;
  Status AttachProcess(const DebugCall&, CAttachProcessRequest&, CAttachProcessResponse&) override;
  Status DetachProcess(const DebugCall&, CDetachProcessRequest&, CDetachProcessResponse&) override;
  Status GetProcessInfoSnapshot(const DebugCall&, CGetProcessInfoSnapshotRequest&,
                                CGetProcessInfoSnapshotResponse&) override;
  Status GetThreadInfoSnapshot(const DebugCall&, CGetThreadInfoSnapshotRequest&,
                               CGetThreadInfoSnapshotResponse&) override;
  Status ThreadNames(const DebugCall&, CThreadNamesRequest&, CThreadNamesResponse&) override;
  Status GetMemoryRanges(const DebugCall&, CGetMemoryRangesRequest&,
                         CGetMemoryRangesResponse&) override;
  Status GetMemory(const DebugCall&, CGetMemoryRequest&, CGetMemoryResponse&) override;
  Status GetLargeMemory(const DebugCall&, CGetLargeMemoryRequest&,
                        CGetLargeMemoryResponse&) override;
  Status SetMemory(const DebugCall&, CSetMemoryRequest&, CSetMemoryResponse&) override;
  Status GetScatteredMemory(const DebugCall&, CGetScatteredMemoryRequest&,
                            CGetScatteredMemoryResponse&) override;
  Status SetScatteredMemory(const DebugCall&, CSetScatteredMemoryRequest&,
                            CSetScatteredMemoryResponse&) override;
  Status GetRegisters(const DebugCall&, CGetRegistersRequest&, CGetRegistersResponse&) override;
  Status SetRegisters(const DebugCall&, CSetRegistersRequest&, CSetRegistersResponse&) override;
  Status SetSoftwareBreakPoint(const DebugCall&, CSetSoftwareBreakPointRequest&,
                               CSetSoftwareBreakPointResponse&) override;
  Status ClearSoftwareBreakPoint(const DebugCall&, CClearSoftwareBreakPointRequest&,
                                 CClearSoftwareBreakPointResponse&) override;
  Status GetSoftwareBreakPointList(const DebugCall&, CGetSoftwareBreakPointListRequest&,
                                   CGetSoftwareBreakPointListResponse&) override;
  Status SetHardwareBreakPoint(const DebugCall&, CSetHardwareBreakPointRequest&,
                               CSetHardwareBreakPointResponse&) override;
  Status ClearHardwareBreakPoint(const DebugCall&, CClearHardwareBreakPointRequest&,
                                 CClearHardwareBreakPointResponse&) override;
  Status GetHardwareBreakPointList(const DebugCall&, CGetHardwareBreakPointListRequest&,
                                   CGetHardwareBreakPointListResponse&) override;
  Status SuspendProcess(const DebugCall&, CSuspendProcessRequest&,
                        CSuspendProcessResponse&) override;
  Status ResumeProcess(const DebugCall&, CResumeProcessRequest&, CResumeProcessResponse&) override;
  Status SuspendThread(const DebugCall&, CSuspendThreadRequest&, CSuspendThreadResponse&) override;
  Status ResumeThread(const DebugCall&, CResumeThreadRequest&, CResumeThreadResponse&) override;
  Status GetModuleInfoList(const DebugCall&, CGetModuleInfoListRequest&,
                           CGetModuleInfoListResponse&) override;
  Status GetVmemInfo(const DebugCall&, CGetVmemInfoRequest&, CGetVmemInfoResponse&) override;
  Status AllocateExecutablePage(const DebugCall&, CAllocateExecutablePageRequest&,
                                CAllocateExecutablePageResponse&) override;
  Status AllocateDataPage(const DebugCall&, CAllocateDataPageRequest&,
                          CAllocateDataPageResponse&) override;
  Status DeallocateExecutablePage(const DebugCall&, CDeallocateExecutablePageRequest&,
                                  CDeallocateExecutablePageResponse&) override;
  Status DeallocateDataPage(const DebugCall&, CDeallocateDataPageRequest&,
                            CDeallocateDataPageResponse&) override;
  Status GetSyncPrimInfoList(const DebugCall&, CGetSyncPrimInfoListRequest&,
                             CGetSyncPrimInfoListResponse&) override;
  Status GetAppObjectInfo(const DebugCall&, CGetAppObjectInfoRequest&,
                          CGetAppObjectInfoResponse&) override;
  Status GetSocketInfo(const DebugCall&, CGetSocketInfoRequest&, CGetSocketInfoResponse&) override;
  Status GetFiles(const DebugCall&, CGetFilesRequest&, CGetFilesResponse&) override;
  Status GetCallstackSignature(const DebugCall&, CGetCallstackSignatureRequest&,
                               CGetCallstackSignatureResponse&) override;
  Status ReadGpuInfo(const DebugCall&, CReadGpuInfoRequest&, CReadGpuInfoResponse&) override;
  Status DumpVRInfo(const DebugCall&, CDumpVRInfoRequest&, CDumpVRInfoResponse&) override;
  Status TriggerCoredump(const DebugCall&, CTriggerCoredumpRequest&,
                         CTriggerCoredumpResponse&) override;
  Status CancelCoredump(const DebugCall&, CCancelCoredumpRequest&,
                        CCancelCoredumpResponse&) override;
  Status GetCoredumpUserData(const DebugCall&, CGetCoredumpUserDataRequest&,
                             CGetCoredumpUserDataResponse&) override;
  Status GetNetworkEmulationSettings(const DebugCall&, CGetNetworkEmulationSettingsRequest&,
                                     CGetNetworkEmulationSettingsResponse&) override;
  Status SetNetworkEmulationSettings(const DebugCall&, CSetNetworkEmulationSettingsRequest&,
                                     CSetNetworkEmulationSettingsResponse&) override;

 private:
  using ProcessPtr = std::shared_ptr<VirtualProcess>;
  // The process, or a failure naming the pid; the backend's lock is held only for the lookup.
  Status Find(uint32_t pid, ProcessPtr& process) const;
  ProcessPtr Start(const ProgramImage& image, bool stopped);
  // The clock's thread: each tick advances every process, outside the table's lock.
  void RunClock();

  const std::vector<ProgramImage> images_;
  const std::shared_ptr<DebugEvents> events_;
  mutable std::mutex mutex_;  // the table of processes, not the processes themselves
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
