#include "server/debug/virtual/virtual_debug_backend.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/wide_string.h"
#include "requests/notifications.h"
#include "server/core/server_log.h"
#include "server/debug/reporting.h"
#include "server/debug/stop_reasons.h"
#include "server/debug/virtual/core_dump.h"
#include "serverlink/frame.h"

namespace qv::server {

VirtualDebugBackend::VirtualDebugBackend(std::vector<ProgramImage> images, uint32_t step_ms,
                                         std::shared_ptr<DebugEvents> events)
    : images_(std::move(images)),
      events_(std::move(events)),
      step_(std::max<uint32_t>(1, step_ms)) {
  // Nobody can be subscribed yet, so the start is not announced.
  for (const ProgramImage& image : images_) {
    if (image.running) Start(image, false);
  }
  clock_ = std::thread(&VirtualDebugBackend::RunClock, this);
}

VirtualDebugBackend::~VirtualDebugBackend() {
  Shutdown();
}

void VirtualDebugBackend::Shutdown() {
  {
    std::lock_guard lock(clock_mutex_);
    stopping_ = true;
    clock_wake_.notify_all();
  }
  if (clock_.joinable() && clock_.get_id() != std::this_thread::get_id()) clock_.join();
}

void VirtualDebugBackend::RunClock() {
  std::unique_lock lock(clock_mutex_);
  while (!clock_wake_.wait_for(lock, step_, [this] { return stopping_; })) {
    lock.unlock();
    std::vector<ProcessPtr> processes;
    {
      std::lock_guard table(mutex_);
      for (const auto& entry : processes_)
        processes.push_back(entry.second);
    }
    for (const ProcessPtr& process : processes) {
      if (process->Advance(*events_)) continue;
      std::lock_guard table(mutex_);
      const auto it = processes_.find(process->pid());
      if (it != processes_.end() && it->second == process) processes_.erase(it);
    }
    lock.lock();
  }
}

VirtualDebugBackend::ProcessPtr VirtualDebugBackend::Start(const ProgramImage& image,
                                                           bool stopped) {
  std::lock_guard lock(mutex_);
  auto process = std::make_shared<VirtualProcess>(next_pid_, next_tid_, image, stopped);
  processes_[next_pid_++] = process;
  next_tid_ += static_cast<uint32_t>(image.threads.size());
  return process;
}

Status VirtualDebugBackend::Find(uint32_t pid, ProcessPtr& process) const {
  std::lock_guard lock(mutex_);
  const auto it = processes_.find(pid);
  if (it == processes_.end()) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PID, u"no process has the id " + Decimal(pid));
  }
  process = it->second;
  return Status::Ok();
}

Status VirtualDebugBackend::LoadProcess(const DebugCall& call, CLoadProcessRequest& request,
                                        CLoadProcessResponse& response) {
  const ProgramImage* image = nullptr;
  for (const ProgramImage& candidate : images_) {
    if (candidate.path == request.Path) image = &candidate;
  }
  if (image == nullptr) {
    return Status::Fail(KXAPI_COMMS_ERR_FILE_DOES_NOT_EXIST,
                        u"the kit has no program \"" + request.Path + u"\"");
  }
  const bool stopped = (request.Flags & kLoadStopAtEntry) != 0;
  // Created stopped, so that the clock moves none of its threads before it is announced.
  const ProcessPtr process = Start(*image, true);
  response.Pid = process->pid();

  CProcessLoadingNotification loading;
  loading.TargetKey = call.target;
  loading.Percentage = 100;
  events_->Post(loading);
  CProcessCreateNotification created;
  created.TargetKey = call.target;
  created.ProcessId = process->pid();
  created.Timestamp = SteadyNanoseconds();
  events_->Post(created);
  for (uint32_t tid : process->ThreadIds()) {
    CThreadCreateNotification thread;
    thread.TargetKey = call.target;
    thread.ProcessId = process->pid();
    thread.ThreadId = tid;
    thread.Timestamp = SteadyNanoseconds();
    events_->Post(thread);
  }
  for (const ModuleInfoRecord& module : process->Objects().Modules()) {
    CDynamicLibraryLoadNotification library;
    library.TargetKey = call.target;
    library.ProcessId = process->pid();
    library.Module = module;
    library.Timestamp = SteadyNanoseconds();
    events_->Post(library);
  }
  if (stopped) {
    process->Stop(kStopEntry, *events_);
  } else {
    U32List failed;
    process->Resume({}, failed);
  }
  return Status::Ok();
}

Status VirtualDebugBackend::KillProcess(const DebugCall& call, CKillProcessRequest& request,
                                        CKillProcessResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  process->Kill();  // nothing it does is heard after this
  {
    std::lock_guard lock(mutex_);
    processes_.erase(request.ProcessID);
  }
  CProcessKillNotification killed;
  killed.TargetKey = call.target;
  killed.ProcessId = request.ProcessID;
  killed.Timestamp = SteadyNanoseconds();
  events_->Post(killed);
  return Status::Ok();
}

// A virtual process is always under the debugger: attaching and detaching only check the pid.
Status VirtualDebugBackend::AttachProcess(const DebugCall&, CAttachProcessRequest& request,
                                          CAttachProcessResponse&) {
  ProcessPtr process;
  return Find(request.ProcessID, process);
}

Status VirtualDebugBackend::DetachProcess(const DebugCall&, CDetachProcessRequest& request,
                                          CDetachProcessResponse&) {
  ProcessPtr process;
  return Find(request.ProcessID, process);
}

Status VirtualDebugBackend::GetProcessInfoSnapshot(const DebugCall&,
                                                   CGetProcessInfoSnapshotRequest&,
                                                   CGetProcessInfoSnapshotResponse& response) {
  std::vector<ProcessPtr> processes;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : processes_)
      processes.push_back(entry.second);
  }
  for (const ProcessPtr& process : processes)
    response.ProcessInfoList.push_back(process->Info());
  return Status::Ok();
}

Status VirtualDebugBackend::GetThreadInfoSnapshot(const DebugCall&,
                                                  CGetThreadInfoSnapshotRequest& request,
                                                  CGetThreadInfoSnapshotResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.ThreadInfoList = process->Threads();
  return Status::Ok();
}

Status VirtualDebugBackend::ThreadNames(const DebugCall&, CThreadNamesRequest& request,
                                        CThreadNamesResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  for (const ThreadInfoRecord& thread : process->Threads()) {
    response.PidTidList.push_back({request.ProcessID, thread.Tid});
    response.Names.push_back(thread.Name);
  }
  return Status::Ok();
}

// The target's memory: the regions of every process it runs.
Status VirtualDebugBackend::GetMemoryRanges(const DebugCall&, CGetMemoryRangesRequest&,
                                            CGetMemoryRangesResponse& response) {
  std::vector<ProcessPtr> processes;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : processes_)
      processes.push_back(entry.second);
  }
  for (const ProcessPtr& process : processes) {
    const MemoryRangeList ranges = process->Ranges();
    response.MemoryRanges.insert(response.MemoryRanges.end(), ranges.begin(), ranges.end());
  }
  return Status::Ok();
}

Status VirtualDebugBackend::GetMemory(const DebugCall&, CGetMemoryRequest& request,
                                      CGetMemoryResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (Status status = CheckReadSize(request.Size); !status.ok()) return status;
  process->Read(request.BaseAddress, request.Size, response.ReadData, response.BadBytes);
  return Status::Ok();
}

Status VirtualDebugBackend::GetLargeMemory(const DebugCall&, CGetLargeMemoryRequest& request,
                                           CGetLargeMemoryResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (Status status = CheckLargeRead(request.Size, request.Compression); !status.ok()) {
    return status;
  }
  uint32_t bad = 0;
  process->Read(request.BaseAddress, request.Size, response.ReadData, bad);
  return Status::Ok();
}

Status VirtualDebugBackend::SetMemory(const DebugCall&, CSetMemoryRequest& request,
                                      CSetMemoryResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (Status status = process->Write(request.BaseAddress, request.WriteData); !status.ok()) {
    return status;
  }
  response.BytesWritten = static_cast<uint32_t>(request.WriteData.size());
  return Status::Ok();
}

// Each region as GET_MEMORY reads it (unmapped bytes as zero); all of them must fit in one answer.
Status VirtualDebugBackend::GetScatteredMemory(const DebugCall&,
                                               CGetScatteredMemoryRequest& request,
                                               CGetScatteredMemoryResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  uint64_t total = 0;
  for (const ScatteredReadRegion& region : request.Regions)
    total += region.Length;
  if (Status status = CheckReadSize(total > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(total));
      !status.ok()) {
    return status;
  }
  for (const ScatteredReadRegion& region : request.Regions) {
    ScatteredDataElement element;
    element.BaseAddress = region.Address;
    uint32_t bad = 0;
    process->Read(region.Address, region.Length, element.Data, bad);
    response.Data.push_back(std::move(element));
  }
  return Status::Ok();
}

// One result per region, the bytes written: all of a region, or none of it where any of it is
// not mapped.
Status VirtualDebugBackend::SetScatteredMemory(const DebugCall&,
                                               CSetScatteredMemoryRequest& request,
                                               CSetScatteredMemoryResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  for (const ScatteredDataElement& region : request.Regions) {
    const bool written = process->Write(region.BaseAddress, region.Data).ok();
    response.Results.push_back(written ? static_cast<uint32_t>(region.Data.size()) : 0);
  }
  return Status::Ok();
}

Status VirtualDebugBackend::GetRegisters(const DebugCall&, CGetRegistersRequest& request,
                                         CGetRegistersResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->GetRegisters(request.ThreadID, request.RegisterIndices, response.RegisterValues);
}

Status VirtualDebugBackend::SetRegisters(const DebugCall&, CSetRegistersRequest& request,
                                         CSetRegistersResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SetRegisters(request.ThreadID, request.RegisterIndices, request.RegisterValues);
}

Status VirtualDebugBackend::SetSoftwareBreakPoint(const DebugCall&,
                                                  CSetSoftwareBreakPointRequest& request,
                                                  CSetSoftwareBreakPointResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SetSoftwareBreakpoint(request, response.OriginalOpcode, response.BreakPtId);
}

Status VirtualDebugBackend::ClearSoftwareBreakPoint(const DebugCall&,
                                                    CClearSoftwareBreakPointRequest& request,
                                                    CClearSoftwareBreakPointResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->ClearSoftwareBreakpoint(request.BreakPtId);
}

Status VirtualDebugBackend::GetSoftwareBreakPointList(
    const DebugCall&, CGetSoftwareBreakPointListRequest& request,
    CGetSoftwareBreakPointListResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.SoftwareBreakPointList = process->SoftwareBreakpoints();
  return Status::Ok();
}

Status VirtualDebugBackend::SetHardwareBreakPoint(const DebugCall&,
                                                  CSetHardwareBreakPointRequest& request,
                                                  CSetHardwareBreakPointResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SetHardwareBreakpoint(request.Address, request.Flags, request.RegionSize,
                                        response.BreakPtId);
}

Status VirtualDebugBackend::ClearHardwareBreakPoint(const DebugCall&,
                                                    CClearHardwareBreakPointRequest& request,
                                                    CClearHardwareBreakPointResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->ClearHardwareBreakpoint(request.BreakPtId);
}

Status VirtualDebugBackend::GetHardwareBreakPointList(
    const DebugCall&, CGetHardwareBreakPointListRequest& request,
    CGetHardwareBreakPointListResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.HardwareBreakPointList = process->HardwareBreakpoints();
  return Status::Ok();
}

Status VirtualDebugBackend::SuspendProcess(const DebugCall&, CSuspendProcessRequest& request,
                                           CSuspendProcessResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  process->Suspend();
  response.ProcessInfo = process->Info();
  response.ThreadInfoList = process->Threads();
  return Status::Ok();
}

Status VirtualDebugBackend::ResumeProcess(const DebugCall&, CResumeProcessRequest& request,
                                          CResumeProcessResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  process->Resume(request.ThreadsToStep, response.FailedToStartThreadList);
  return Status::Ok();
}

Status VirtualDebugBackend::SuspendThread(const DebugCall&, CSuspendThreadRequest& request,
                                          CSuspendThreadResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SuspendThread(request.ThreadID, response.ThreadStatus);
}

Status VirtualDebugBackend::ResumeThread(const DebugCall&, CResumeThreadRequest& request,
                                         CResumeThreadResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->ResumeThread(request.ThreadID);
}

Status VirtualDebugBackend::GetModuleInfoList(const DebugCall&, CGetModuleInfoListRequest& request,
                                              CGetModuleInfoListResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.ModuleInfoList = process->Objects().Modules();
  return Status::Ok();
}

Status VirtualDebugBackend::GetVmemInfo(const DebugCall&, CGetVmemInfoRequest& request,
                                        CGetVmemInfoResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.VirtualMemoryList = process->VirtualMemory();
  return Status::Ok();
}

// The two allocations share one request's fields and differ only in the kind of page.
template <class Request>
static Status AllocatePage(VirtualProcess& process, VirtualProcess::PageKind kind,
                           const Request& request, uint64_t& address) {
  return process.Allocate(kind, request.PageSize, request.Name, request.StartAddress,
                          request.EndAddress, address);
}

Status VirtualDebugBackend::AllocateExecutablePage(const DebugCall&,
                                                   CAllocateExecutablePageRequest& request,
                                                   CAllocateExecutablePageResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return AllocatePage(*process, VirtualProcess::PageKind::kExecutable, request, response.Address);
}

Status VirtualDebugBackend::AllocateDataPage(const DebugCall&, CAllocateDataPageRequest& request,
                                             CAllocateDataPageResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return AllocatePage(*process, VirtualProcess::PageKind::kData, request, response.Address);
}

Status VirtualDebugBackend::DeallocateExecutablePage(const DebugCall&,
                                                     CDeallocateExecutablePageRequest& request,
                                                     CDeallocateExecutablePageResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Deallocate(VirtualProcess::PageKind::kExecutable, request.Address);
}

Status VirtualDebugBackend::DeallocateDataPage(const DebugCall&,
                                               CDeallocateDataPageRequest& request,
                                               CDeallocateDataPageResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Deallocate(VirtualProcess::PageKind::kData, request.Address);
}

Status VirtualDebugBackend::GetSyncPrimInfoList(const DebugCall&,
                                                CGetSyncPrimInfoListRequest& request,
                                                CGetSyncPrimInfoListResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Objects().Sync(request.Types, request.IDs, response.SyncPrimInfo);
}

Status VirtualDebugBackend::GetAppObjectInfo(const DebugCall&, CGetAppObjectInfoRequest& request,
                                             CGetAppObjectInfoResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.AppObjectInfo = process->Objects().AppObjects(request.Flags);
  return Status::Ok();
}

Status VirtualDebugBackend::GetSocketInfo(const DebugCall&, CGetSocketInfoRequest& request,
                                          CGetSocketInfoResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.SocketInfoList = process->Objects().Sockets();
  return Status::Ok();
}

Status VirtualDebugBackend::GetFiles(const DebugCall&, CGetFilesRequest& request,
                                     CGetFilesResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.FileList = process->Objects().Files();
  return Status::Ok();
}

Status VirtualDebugBackend::GetCallstackSignature(const DebugCall&,
                                                  CGetCallstackSignatureRequest& request,
                                                  CGetCallstackSignatureResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->CallstackSignature(response.Hash);
}

Status VirtualDebugBackend::ReadGpuInfo(const DebugCall&, CReadGpuInfoRequest& request,
                                        CReadGpuInfoResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.GpuInfo = process->Objects().GpuInfo();
  return Status::Ok();
}

// A virtual process has no VR state: the request is only noted.
Status VirtualDebugBackend::DumpVRInfo(const DebugCall& call, CDumpVRInfoRequest& request,
                                       CDumpVRInfoResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  ServerLog(kLogClients, "target " + std::to_string(call.target) + " process " +
                             std::to_string(request.ProcessID) +
                             ": VR information dumped (a virtual process has none)");
  return Status::Ok();
}

// Written before the answer: COREDUMP_IN_PROGRESS once the file is created and after each region,
// then COREDUMP_COMPLETED with the request's result. A dump that cannot start is only refused.
Status VirtualDebugBackend::TriggerCoredump(const DebugCall& call, CTriggerCoredumpRequest& request,
                                            CTriggerCoredumpResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (request.DumpType != kCoreDumpMini && request.DumpType != kCoreDumpFull) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG, u"dump type " + Decimal(request.DumpType) +
                                                         u" is neither 0 (mini) nor 1 (full)");
  }
  const std::string path = platform::Utf16ToUtf8(request.OutputPath);
  if (!IsAbsoluteHostPath(path)) {
    return Status::Fail(
        KXAPI_COMMS_ERR_INVALID_ARG,
        u"the dump needs an absolute path on the host, not \"" + request.OutputPath + u"\"");
  }
  if (!process->BeginDump()) {
    return Status::Fail(
        KXAPI_COMMS_ERR_COREDUMP_IN_PROGRESS,
        u"a core dump of process " + Decimal(request.ProcessID) + u" is in progress already");
  }
  bool started = false;
  const Status status = WriteCoreDump(path, process->Snapshot(request.DumpType),
                                      process->DumpCancelled(), [&](uint32_t percent) {
                                        started = true;
                                        CCoredumpInProgressNotification progress;
                                        progress.TargetKey = call.target;
                                        progress.ProcessId = request.ProcessID;
                                        progress.Percentage = percent;
                                        events_->Post(progress);
                                      });
  process->EndDump();
  if (started) {
    CCoredumpCompletedNotification completed;
    completed.TargetKey = call.target;
    completed.ProcessId = request.ProcessID;
    completed.Result = status.ok() ? 0 : status.code;
    events_->Post(completed);
  }
  return status;
}

Status VirtualDebugBackend::CancelCoredump(const DebugCall&, CCancelCoredumpRequest& request,
                                           CCancelCoredumpResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->CancelDump();
}

Status VirtualDebugBackend::GetCoredumpUserData(const DebugCall&,
                                                CGetCoredumpUserDataRequest& request,
                                                CGetCoredumpUserDataResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  SanitizerReport report;
  if (Status status = process->SanitizerReportOf(request.ThreadID, report); !status.ok()) {
    return status;
  }
  response.ErrorType = report.error_type;
  response.Address = report.address;
  response.AccessSize = report.access_size;
  response.IsWrite = report.is_write ? 1 : 0;
  response.Report = report.report;
  return Status::Ok();
}

Status VirtualDebugBackend::GetNetworkEmulationSettings(
    const DebugCall&, CGetNetworkEmulationSettingsRequest& request,
    CGetNetworkEmulationSettingsResponse& response) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.Params = process->NetworkEmulation();
  return Status::Ok();
}

Status VirtualDebugBackend::SetNetworkEmulationSettings(
    const DebugCall&, CSetNetworkEmulationSettingsRequest& request,
    CSetNetworkEmulationSettingsResponse&) {
  ProcessPtr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SetNetworkEmulation(request.Port, request.Params);
}

}  // namespace qv::server
