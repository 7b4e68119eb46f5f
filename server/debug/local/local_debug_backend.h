#pragma once
// The debug backend of the local target: the host's own processes, run or attached under ptrace
// (docs/debugging.md). Processes are kept by pid; each has its own tracer thread and its own
// state, so the backend's lock guards only the table and is never held while a process works.

#include <map>
#include <memory>
#include <mutex>

#include "server/debug/debug_backend.h"
#include "server/debug/local/traced_process.h"

namespace qv::server {

class LocalDebugBackend final : public DebugBackend {
 public:
  explicit LocalDebugBackend(std::shared_ptr<DebugEvents> events);
  ~LocalDebugBackend() override;
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
  Status GetCallstackSignature(const DebugCall&, CGetCallstackSignatureRequest&,
                               CGetCallstackSignatureResponse&) override;
  Status GetSocketInfo(const DebugCall&, CGetSocketInfoRequest&, CGetSocketInfoResponse&) override;
  Status GetFiles(const DebugCall&, CGetFilesRequest&, CGetFilesResponse&) override;
  Status ReadGpuInfo(const DebugCall&, CReadGpuInfoRequest&, CReadGpuInfoResponse&) override;
  Status TriggerCoredump(const DebugCall&, CTriggerCoredumpRequest&,
                         CTriggerCoredumpResponse&) override;
  Status CancelCoredump(const DebugCall&, CCancelCoredumpRequest&,
                        CCancelCoredumpResponse&) override;
  void ConsoleInput(uint32_t process_id, const std::string& text) override;

 private:
  using Ptr = TracedProcess::Ptr;
  // The process under the debugger with that pid, or a failure naming it. A process that has
  // ended leaves the table here.
  Status Find(uint32_t pid, Ptr& process);
  // Every process in the table that is not gone; the gone ones leave it.
  std::vector<Ptr> Processes();
  // Refuses the server itself and its ancestors, which tracing would freeze.
  static Status CheckAttachable(pid_t pid);

  const std::shared_ptr<DebugEvents> events_;
  std::mutex mutex_;  // guards processes_ and shut_down_, never held while a process works
  std::map<uint32_t, Ptr> processes_;
  bool shut_down_ = false;
};

}  // namespace qv::server
