#include "server/debug/local/local_debug_backend.h"

#include <unistd.h>

#include <utility>

#include "platform/wide_string.h"
#include "requests/notifications.h"
#include "server/debug/local/proc_files.h"
#include "server/debug/local/process_info.h"
#include "server/debug/local/process_modules.h"
#include "server/debug/reporting.h"
#include "server/debug/virtual/core_dump.h"
#include "serverlink/frame.h"

namespace qv::server {
namespace {

std::string Utf8(const std::u16string& text) {
  return platform::Utf16ToUtf8(text);
}

}  // namespace

LocalDebugBackend::LocalDebugBackend(std::shared_ptr<DebugEvents> events)
    : events_(std::move(events)) {}

LocalDebugBackend::~LocalDebugBackend() {
  Shutdown();
}

void LocalDebugBackend::Shutdown() {
  std::map<uint32_t, Ptr> processes;
  {
    std::lock_guard lock(mutex_);
    shut_down_ = true;
    processes.swap(processes_);
  }
  for (auto& [pid, process] : processes)
    process->Shutdown();
}

Status LocalDebugBackend::Find(uint32_t pid, Ptr& process) {
  Ptr gone;  // destroyed outside the lock: its tracer thread is joined
  {
    std::lock_guard lock(mutex_);
    const auto it = processes_.find(pid);
    if (it != processes_.end() && it->second->gone()) {
      gone = std::move(it->second);
      processes_.erase(it);
    } else if (it != processes_.end()) {
      process = it->second;
    }
  }
  if (process != nullptr && process->traced()) return Status::Ok();
  process.reset();
  if (OwnerOf(static_cast<pid_t>(pid)).has_value()) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_ATTACHED,
                        u"process " + Decimal(pid) + u" is not being debugged; attach to it first");
  }
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_PID, u"no process has the id " + Decimal(pid));
}

std::vector<LocalDebugBackend::Ptr> LocalDebugBackend::Processes() {
  std::vector<Ptr> processes;
  std::vector<Ptr> gone;  // destroyed after the lock is let go: their tracer threads are joined
  std::lock_guard lock(mutex_);
  for (auto it = processes_.begin(); it != processes_.end();) {
    if (it->second->gone()) {
      gone.push_back(std::move(it->second));
      it = processes_.erase(it);
    } else {
      processes.push_back((it++)->second);
    }
  }
  return processes;
}

Status LocalDebugBackend::CheckAttachable(pid_t pid) {
  if (pid == getpid()) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_SELF,
                        u"process " + Decimal(static_cast<uint64_t>(pid)) +
                            u" is vesta-kx itself, which cannot debug itself");
  }
  for (pid_t ancestor = getppid(); ancestor > 1;) {
    if (ancestor == pid) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_SELF,
                          u"process " + Decimal(static_cast<uint64_t>(pid)) +
                              u" started vesta-kx; stopping it could stop the server");
    }
    const auto stat = ReadTaskStat("/proc/" + std::to_string(ancestor) + "/stat");
    if (!stat || stat->parent == ancestor) break;
    ancestor = stat->parent;
  }
  return Status::Ok();
}

Status LocalDebugBackend::LoadProcess(const DebugCall&, CLoadProcessRequest& request,
                                      CLoadProcessResponse& response) {
  LaunchPlan plan;
  plan.path = Utf8(request.Path);
  for (const std::u16string& arg : request.Args)
    plan.args.push_back(Utf8(arg));
  plan.directory = Utf8(request.WorkingDir);
  if (plan.path.empty()) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG, u"the program's path is empty");
  }
  Processes();  // those that ended leave the table, with their threads
  Ptr process;
  if (Status status =
          TracedProcess::Load(plan, (request.Flags & kLoadStopAtEntry) != 0, events_, process);
      !status.ok()) {
    return status;
  }
  response.Pid = static_cast<uint32_t>(process->pid());
  std::lock_guard lock(mutex_);
  if (shut_down_) {
    return Status::Fail(KXAPI_COMMS_ERR_SHUTTINGDOWN, u"the server is shutting down");
  }
  processes_[response.Pid] = std::move(process);
  return Status::Ok();
}

Status LocalDebugBackend::AttachProcess(const DebugCall&, CAttachProcessRequest& request,
                                        CAttachProcessResponse&) {
  const auto pid = static_cast<pid_t>(request.ProcessID);
  Ptr known;
  {
    std::lock_guard lock(mutex_);
    const auto it = processes_.find(request.ProcessID);
    if (it != processes_.end() && !it->second->gone()) known = it->second;
  }
  if (known != nullptr) return known->Reattach();  // ours: loaded here, detached since
  if (Status status = CheckAttachable(pid); !status.ok()) return status;
  Ptr process;
  if (Status status = TracedProcess::Attach(pid, events_, process); !status.ok()) return status;
  std::lock_guard lock(mutex_);
  if (shut_down_) {
    return Status::Fail(KXAPI_COMMS_ERR_SHUTTINGDOWN, u"the server is shutting down");
  }
  processes_[request.ProcessID] = std::move(process);
  return Status::Ok();
}

Status LocalDebugBackend::DetachProcess(const DebugCall&, CDetachProcessRequest& request,
                                        CDetachProcessResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Detach();
}

Status LocalDebugBackend::KillProcess(const DebugCall&, CKillProcessRequest& request,
                                      CKillProcessResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Kill();
}

// Every process of the server's user, as /proc has it; those under the debugger with their stop.
Status LocalDebugBackend::GetProcessInfoSnapshot(const DebugCall&, CGetProcessInfoSnapshotRequest&,
                                                 CGetProcessInfoSnapshotResponse& response) {
  std::map<uint32_t, Ptr> traced;
  for (const Ptr& process : Processes()) {
    if (process->traced()) traced[static_cast<uint32_t>(process->pid())] = process;
  }
  const uid_t user = geteuid();
  for (pid_t pid : AllProcessIds()) {
    if (OwnerOf(pid) != user) continue;
    const auto it = traced.find(static_cast<uint32_t>(pid));
    ProcessInfoRecord record;
    if (it != traced.end() && it->second->Info(record).ok()) {
      response.ProcessInfoList.push_back(std::move(record));
    } else if (auto info = ProcessInfoOf(pid)) {
      response.ProcessInfoList.push_back(std::move(*info));
    }
  }
  return Status::Ok();
}

Status LocalDebugBackend::GetThreadInfoSnapshot(const DebugCall&,
                                                CGetThreadInfoSnapshotRequest& request,
                                                CGetThreadInfoSnapshotResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Threads(response.ThreadInfoList);
}

Status LocalDebugBackend::ThreadNames(const DebugCall&, CThreadNamesRequest& request,
                                      CThreadNamesResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  ThreadInfoList threads;
  if (Status status = process->Threads(threads); !status.ok()) return status;
  for (const ThreadInfoRecord& thread : threads) {
    response.PidTidList.push_back({request.ProcessID, thread.Tid});
    response.Names.push_back(thread.Name);
  }
  return Status::Ok();
}

// The target's memory: the mapped ranges of every process under the debugger.
Status LocalDebugBackend::GetMemoryRanges(const DebugCall&, CGetMemoryRangesRequest&,
                                          CGetMemoryRangesResponse& response) {
  for (const Ptr& process : Processes()) {
    for (const Mapping& mapping : ReadMappings(process->pid()))
      response.MemoryRanges.push_back({mapping.start, mapping.end - mapping.start});
  }
  return Status::Ok();
}

Status LocalDebugBackend::GetMemory(const DebugCall&, CGetMemoryRequest& request,
                                    CGetMemoryResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (Status status = CheckReadSize(request.Size); !status.ok()) return status;
  Bytes data;
  process->Read(request.BaseAddress, request.Size, data, response.BadBytes);
  response.ReadData = BulkBytes(std::move(data));
  return Status::Ok();
}

Status LocalDebugBackend::GetLargeMemory(const DebugCall&, CGetLargeMemoryRequest& request,
                                         CGetLargeMemoryResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (Status status = CheckLargeRead(request.Size, request.Compression); !status.ok()) {
    return status;
  }
  uint32_t bad = 0;
  Bytes data;
  process->Read(request.BaseAddress, request.Size, data, bad);
  response.ReadData = BulkBytes(std::move(data));
  return Status::Ok();
}

Status LocalDebugBackend::SetMemory(const DebugCall&, CSetMemoryRequest& request,
                                    CSetMemoryResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (Status status = process->Write(request.BaseAddress, request.WriteData); !status.ok()) {
    return status;
  }
  response.BytesWritten = static_cast<uint32_t>(request.WriteData.size());
  return Status::Ok();
}

Status LocalDebugBackend::GetScatteredMemory(const DebugCall&, CGetScatteredMemoryRequest& request,
                                             CGetScatteredMemoryResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  uint64_t total = 0;
  for (const ScatteredReadRegion& region : request.Regions)
    total += region.Length;
  if (Status status = CheckReadSize(total); !status.ok()) return status;
  for (const ScatteredReadRegion& region : request.Regions) {
    ScatteredDataElement element;
    element.BaseAddress = region.Address;
    uint32_t bad = 0;
    process->Read(region.Address, region.Length, element.Data, bad);
    response.Data.push_back(std::move(element));
  }
  return Status::Ok();
}

// One result per region: the bytes written, all of the region or 0.
Status LocalDebugBackend::SetScatteredMemory(const DebugCall&, CSetScatteredMemoryRequest& request,
                                             CSetScatteredMemoryResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  for (const ScatteredDataElement& region : request.Regions) {
    const bool written = process->Write(region.BaseAddress, region.Data).ok();
    response.Results.push_back(written ? static_cast<uint32_t>(region.Data.size()) : 0);
  }
  return Status::Ok();
}

Status LocalDebugBackend::GetRegisters(const DebugCall&, CGetRegistersRequest& request,
                                       CGetRegistersResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->GetRegisters(request.ThreadID, request.RegisterIndices, response.RegisterValues);
}

Status LocalDebugBackend::SetRegisters(const DebugCall&, CSetRegistersRequest& request,
                                       CSetRegistersResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SetRegisters(request.ThreadID, request.RegisterIndices, request.RegisterValues);
}

Status LocalDebugBackend::SetSoftwareBreakPoint(const DebugCall&,
                                                CSetSoftwareBreakPointRequest& request,
                                                CSetSoftwareBreakPointResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SetSoftwareBreakpoint(request, response.OriginalOpcode, response.BreakPtId);
}

Status LocalDebugBackend::ClearSoftwareBreakPoint(const DebugCall&,
                                                  CClearSoftwareBreakPointRequest& request,
                                                  CClearSoftwareBreakPointResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->ClearSoftwareBreakpoint(request.BreakPtId);
}

Status LocalDebugBackend::GetSoftwareBreakPointList(const DebugCall&,
                                                    CGetSoftwareBreakPointListRequest& request,
                                                    CGetSoftwareBreakPointListResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SoftwareBreakpoints(response.SoftwareBreakPointList);
}

Status LocalDebugBackend::SetHardwareBreakPoint(const DebugCall&,
                                                CSetHardwareBreakPointRequest& request,
                                                CSetHardwareBreakPointResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SetHardwareBreakpoint(request.Address, request.Flags, request.RegionSize,
                                        response.BreakPtId);
}

Status LocalDebugBackend::ClearHardwareBreakPoint(const DebugCall&,
                                                  CClearHardwareBreakPointRequest& request,
                                                  CClearHardwareBreakPointResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->ClearHardwareBreakpoint(request.BreakPtId);
}

Status LocalDebugBackend::GetHardwareBreakPointList(const DebugCall&,
                                                    CGetHardwareBreakPointListRequest& request,
                                                    CGetHardwareBreakPointListResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->HardwareBreakpoints(response.HardwareBreakPointList);
}

Status LocalDebugBackend::SuspendProcess(const DebugCall&, CSuspendProcessRequest& request,
                                         CSuspendProcessResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Suspend(response.ProcessInfo, response.ThreadInfoList);
}

Status LocalDebugBackend::ResumeProcess(const DebugCall&, CResumeProcessRequest& request,
                                        CResumeProcessResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->Resume(request.ThreadsToStep, response.FailedToStartThreadList);
}

Status LocalDebugBackend::SuspendThread(const DebugCall&, CSuspendThreadRequest& request,
                                        CSuspendThreadResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->SuspendThread(request.ThreadID, response.ThreadStatus);
}

Status LocalDebugBackend::ResumeThread(const DebugCall&, CResumeThreadRequest& request,
                                       CResumeThreadResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->ResumeThread(request.ThreadID);
}

Status LocalDebugBackend::GetModuleInfoList(const DebugCall&, CGetModuleInfoListRequest& request,
                                            CGetModuleInfoListResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  const pid_t pid = process->pid();
  response.ModuleInfoList =
      ModulesOf(ReadMappings(pid), ReadLink("/proc/" + std::to_string(pid) + "/exe"));
  return Status::Ok();
}

Status LocalDebugBackend::GetVmemInfo(const DebugCall&, CGetVmemInfoRequest& request,
                                      CGetVmemInfoResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  for (const Mapping& mapping : ReadMappings(process->pid(), true)) {
    VirtualMemoryRecord record;
    record.Name = platform::Utf8ToUtf16(mapping.path);
    record.StartAddr = mapping.start;
    record.EndAddr = mapping.end;
    record.Protection = mapping.protection;
    record.Flags = mapping.shared ? 1 : 0;
    record.Offset = mapping.offset;
    record.ResidentSize = mapping.resident;
    response.VirtualMemoryList.push_back(std::move(record));
  }
  return Status::Ok();
}

Status LocalDebugBackend::AllocateExecutablePage(const DebugCall&,
                                                 CAllocateExecutablePageRequest& request,
                                                 CAllocateExecutablePageResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->AllocatePages(true, request.PageSize, request.StartAddress, request.EndAddress,
                                response.Address);
}

Status LocalDebugBackend::AllocateDataPage(const DebugCall&, CAllocateDataPageRequest& request,
                                           CAllocateDataPageResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->AllocatePages(false, request.PageSize, request.StartAddress, request.EndAddress,
                                response.Address);
}

Status LocalDebugBackend::DeallocateExecutablePage(const DebugCall&,
                                                   CDeallocateExecutablePageRequest& request,
                                                   CDeallocateExecutablePageResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->DeallocatePages(true, request.Address);
}

Status LocalDebugBackend::DeallocateDataPage(const DebugCall&, CDeallocateDataPageRequest& request,
                                             CDeallocateDataPageResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->DeallocatePages(false, request.Address);
}

// A Linux process has no synchronisation objects or application objects the kernel could list:
// the answers are empty, for a process under the debugger.
Status LocalDebugBackend::GetSyncPrimInfoList(const DebugCall&,
                                              CGetSyncPrimInfoListRequest& request,
                                              CGetSyncPrimInfoListResponse&) {
  Ptr process;
  return Find(request.ProcessID, process);
}

Status LocalDebugBackend::GetAppObjectInfo(const DebugCall&, CGetAppObjectInfoRequest& request,
                                           CGetAppObjectInfoResponse&) {
  Ptr process;
  return Find(request.ProcessID, process);
}

Status LocalDebugBackend::GetCallstackSignature(const DebugCall&,
                                                CGetCallstackSignatureRequest& request,
                                                CGetCallstackSignatureResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->CallstackSignature(response.Hash);
}

Status LocalDebugBackend::GetSocketInfo(const DebugCall&, CGetSocketInfoRequest& request,
                                        CGetSocketInfoResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.SocketInfoList = Sockets(process->pid());
  return Status::Ok();
}

Status LocalDebugBackend::GetFiles(const DebugCall&, CGetFilesRequest& request,
                                   CGetFilesResponse& response) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  response.FileList = OpenFiles(process->pid());
  return Status::Ok();
}

Status LocalDebugBackend::ReadGpuInfo(const DebugCall&, CReadGpuInfoRequest& request,
                                      CReadGpuInfoResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return Status::Fail(
      KXAPI_COMMS_ERR_NO_GPU_INFO,
      u"the local target has no GPU information for process " + Decimal(request.ProcessID));
}

// Written before the answer: COREDUMP_IN_PROGRESS once the file exists and as its memory goes
// out, then COREDUMP_COMPLETED with the request's result. A dump that cannot start is only
// refused.
Status LocalDebugBackend::TriggerCoredump(const DebugCall& call, CTriggerCoredumpRequest& request,
                                          CTriggerCoredumpResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  if (request.DumpType != kCoreDumpMini && request.DumpType != kCoreDumpFull) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG, u"dump type " + Decimal(request.DumpType) +
                                                         u" is neither 0 (mini) nor 1 (full)");
  }
  const std::string path = Utf8(request.OutputPath);
  if (!IsAbsoluteHostPath(path)) {
    return Status::Fail(
        KXAPI_COMMS_ERR_INVALID_ARG,
        u"the dump needs an absolute path on the host, not \"" + request.OutputPath + u"\"");
  }
  bool started = false;
  const Status status =
      process->WriteCore(path, request.DumpType == kCoreDumpFull, [&](uint32_t percent) {
        started = true;
        CCoredumpInProgressNotification progress;
        progress.TargetKey = call.target;
        progress.ProcessId = request.ProcessID;
        progress.Percentage = percent;
        events_->Post(progress);
      });
  if (started) {
    CCoredumpCompletedNotification completed;
    completed.TargetKey = call.target;
    completed.ProcessId = request.ProcessID;
    completed.Result = status.ok() ? 0 : status.code;
    events_->Post(completed);
  }
  return status;
}

Status LocalDebugBackend::CancelCoredump(const DebugCall&, CCancelCoredumpRequest& request,
                                         CCancelCoredumpResponse&) {
  Ptr process;
  if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
  return process->CancelCore();
}

void LocalDebugBackend::ConsoleInput(uint32_t process_id, const std::string& text) {
  std::lock_guard lock(mutex_);
  for (const auto& [pid, process] : processes_) {
    if (process_id == 0 || process_id == 0xFFFFFFFF || process_id == pid) process->Input(text);
  }
}

}  // namespace qv::server
