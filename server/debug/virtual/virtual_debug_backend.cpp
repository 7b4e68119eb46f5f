#include "server/debug/virtual/virtual_debug_backend.h"

#include <algorithm>
#include <string>
#include <utility>

#include "requests/notifications.h"
#include "server/core/server_log.h"
#include "server/debug/reporting.h"
#include "server/debug/stop_reasons.h"

namespace qv::server {

VirtualDebugBackend::VirtualDebugBackend(std::vector<ProgramImage> images, uint32_t step_ms,
                                         std::shared_ptr<DebugEvents> events)
    : ProcessDebugBackend(std::move(events)),
      images_(std::move(images)),
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

Status VirtualDebugBackend::Find(uint32_t pid, ProcessPtr& process) {
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
  return OnProcess(request, [&](VirtualProcess& process) {
    process.Kill();  // nothing it does is heard after this
    {
      std::lock_guard lock(mutex_);
      processes_.erase(request.ProcessID);
    }
    CProcessKillNotification killed;
    killed.TargetKey = call.target;
    killed.ProcessId = request.ProcessID;
    killed.Timestamp = SteadyNanoseconds();
    events_->Post(killed);
  });
}

// A virtual process is always under the debugger: attaching and detaching only check the pid.
Status VirtualDebugBackend::AttachProcess(const DebugCall&, CAttachProcessRequest& request,
                                          CAttachProcessResponse&) {
  return OnProcess(request, [](VirtualProcess&) {});
}

Status VirtualDebugBackend::DetachProcess(const DebugCall&, CDetachProcessRequest& request,
                                          CDetachProcessResponse&) {
  return OnProcess(request, [](VirtualProcess&) {});
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
  return OnProcess(request,
                   [&](VirtualProcess& process) { response.ThreadInfoList = process.Threads(); });
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

Status VirtualDebugBackend::GetSoftwareBreakPointList(
    const DebugCall&, CGetSoftwareBreakPointListRequest& request,
    CGetSoftwareBreakPointListResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    response.SoftwareBreakPointList = process.SoftwareBreakpoints();
  });
}

Status VirtualDebugBackend::GetHardwareBreakPointList(
    const DebugCall&, CGetHardwareBreakPointListRequest& request,
    CGetHardwareBreakPointListResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    response.HardwareBreakPointList = process.HardwareBreakpoints();
  });
}

Status VirtualDebugBackend::SuspendProcess(const DebugCall&, CSuspendProcessRequest& request,
                                           CSuspendProcessResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    process.Suspend();
    response.ProcessInfo = process.Info();
    response.ThreadInfoList = process.Threads();
  });
}

Status VirtualDebugBackend::ResumeProcess(const DebugCall&, CResumeProcessRequest& request,
                                          CResumeProcessResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    process.Resume(request.ThreadsToStep, response.FailedToStartThreadList);
  });
}

Status VirtualDebugBackend::GetModuleInfoList(const DebugCall&, CGetModuleInfoListRequest& request,
                                              CGetModuleInfoListResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    response.ModuleInfoList = process.Objects().Modules();
  });
}

Status VirtualDebugBackend::GetVmemInfo(const DebugCall&, CGetVmemInfoRequest& request,
                                        CGetVmemInfoResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    response.VirtualMemoryList = process.VirtualMemory();
  });
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
  return OnProcess(request, [&](VirtualProcess& process) {
    return AllocatePage(process, VirtualProcess::PageKind::kExecutable, request, response.Address);
  });
}

Status VirtualDebugBackend::AllocateDataPage(const DebugCall&, CAllocateDataPageRequest& request,
                                             CAllocateDataPageResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    return AllocatePage(process, VirtualProcess::PageKind::kData, request, response.Address);
  });
}

Status VirtualDebugBackend::DeallocateExecutablePage(const DebugCall&,
                                                     CDeallocateExecutablePageRequest& request,
                                                     CDeallocateExecutablePageResponse&) {
  return OnProcess(request, [&](VirtualProcess& process) {
    return process.Deallocate(VirtualProcess::PageKind::kExecutable, request.Address);
  });
}

Status VirtualDebugBackend::DeallocateDataPage(const DebugCall&,
                                               CDeallocateDataPageRequest& request,
                                               CDeallocateDataPageResponse&) {
  return OnProcess(request, [&](VirtualProcess& process) {
    return process.Deallocate(VirtualProcess::PageKind::kData, request.Address);
  });
}

Status VirtualDebugBackend::GetSyncPrimInfoList(const DebugCall&,
                                                CGetSyncPrimInfoListRequest& request,
                                                CGetSyncPrimInfoListResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    return process.Objects().Sync(request.Types, request.IDs, response.SyncPrimInfo);
  });
}

Status VirtualDebugBackend::GetAppObjectInfo(const DebugCall&, CGetAppObjectInfoRequest& request,
                                             CGetAppObjectInfoResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    response.AppObjectInfo = process.Objects().AppObjects(request.Flags);
  });
}

Status VirtualDebugBackend::GetSocketInfo(const DebugCall&, CGetSocketInfoRequest& request,
                                          CGetSocketInfoResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    response.SocketInfoList = process.Objects().Sockets();
  });
}

Status VirtualDebugBackend::GetFiles(const DebugCall&, CGetFilesRequest& request,
                                     CGetFilesResponse& response) {
  return OnProcess(request,
                   [&](VirtualProcess& process) { response.FileList = process.Objects().Files(); });
}

Status VirtualDebugBackend::ReadGpuInfo(const DebugCall&, CReadGpuInfoRequest& request,
                                        CReadGpuInfoResponse& response) {
  return OnProcess(
      request, [&](VirtualProcess& process) { response.GpuInfo = process.Objects().GpuInfo(); });
}

// A virtual process has no VR state: the request is only noted.
Status VirtualDebugBackend::DumpVRInfo(const DebugCall& call, CDumpVRInfoRequest& request,
                                       CDumpVRInfoResponse&) {
  return OnProcess(request, [&](VirtualProcess&) {
    ServerLog(kLogClients, "target " + std::to_string(call.target) + " process " +
                               std::to_string(request.ProcessID) +
                               ": VR information dumped (a virtual process has none)");
  });
}

Status VirtualDebugBackend::GetCoredumpUserData(const DebugCall&,
                                                CGetCoredumpUserDataRequest& request,
                                                CGetCoredumpUserDataResponse& response) {
  return OnProcess(request, [&](VirtualProcess& process) {
    SanitizerReport report;
    if (Status status = process.SanitizerReportOf(request.ThreadID, report); !status.ok()) {
      return status;
    }
    response.ErrorType = report.error_type;
    response.Address = report.address;
    response.AccessSize = report.access_size;
    response.IsWrite = report.is_write ? 1 : 0;
    response.Report = report.report;
    return Status::Ok();
  });
}

Status VirtualDebugBackend::GetNetworkEmulationSettings(
    const DebugCall&, CGetNetworkEmulationSettingsRequest& request,
    CGetNetworkEmulationSettingsResponse& response) {
  return OnProcess(request,
                   [&](VirtualProcess& process) { response.Params = process.NetworkEmulation(); });
}

Status VirtualDebugBackend::SetNetworkEmulationSettings(
    const DebugCall&, CSetNetworkEmulationSettingsRequest& request,
    CSetNetworkEmulationSettingsResponse&) {
  return OnProcess(request, [&](VirtualProcess& process) {
    return process.SetNetworkEmulation(request.Port, request.Params);
  });
}

}  // namespace qv::server
