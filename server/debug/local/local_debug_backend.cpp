#include "server/debug/local/local_debug_backend.h"

#include <unistd.h>

#include <utility>

#include "platform/wide_string.h"
#include "server/debug/local/proc_files.h"
#include "server/debug/local/process_info.h"
#include "server/debug/local/process_modules.h"
#include "server/debug/reporting.h"

namespace qv::server {
namespace {

std::string Utf8(const std::u16string& text) {
  return platform::Utf16ToUtf8(text);
}

}  // namespace

LocalDebugBackend::LocalDebugBackend(std::shared_ptr<DebugEvents> events)
    : ProcessDebugBackend(std::move(events)) {}

LocalDebugBackend::~LocalDebugBackend() {
  Shutdown();
}

void LocalDebugBackend::Shutdown() {
  std::map<uint32_t, ProcessPtr> processes;
  {
    std::lock_guard lock(mutex_);
    shut_down_ = true;
    processes.swap(processes_);
  }
  for (auto& [pid, process] : processes)
    process->Shutdown();
}

Status LocalDebugBackend::Find(uint32_t pid, ProcessPtr& process) {
  ProcessPtr gone;  // destroyed outside the lock: its tracer thread is joined
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

std::vector<LocalDebugBackend::ProcessPtr> LocalDebugBackend::Processes() {
  std::vector<ProcessPtr> processes;
  std::vector<ProcessPtr>
      gone;  // destroyed after the lock is let go: their tracer threads are joined
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
  ProcessPtr process;
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
  ProcessPtr known;
  {
    std::lock_guard lock(mutex_);
    const auto it = processes_.find(request.ProcessID);
    if (it != processes_.end() && !it->second->gone()) known = it->second;
  }
  if (known != nullptr) return known->Reattach();  // ours: loaded here, detached since
  if (Status status = CheckAttachable(pid); !status.ok()) return status;
  ProcessPtr process;
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
  return OnProcess(request, [](TracedProcess& process) { return process.Detach(); });
}

Status LocalDebugBackend::KillProcess(const DebugCall&, CKillProcessRequest& request,
                                      CKillProcessResponse&) {
  return OnProcess(request, [](TracedProcess& process) { return process.Kill(); });
}

// Every process of the server's user, as /proc has it; those under the debugger with their stop.
Status LocalDebugBackend::GetProcessInfoSnapshot(const DebugCall&, CGetProcessInfoSnapshotRequest&,
                                                 CGetProcessInfoSnapshotResponse& response) {
  std::map<uint32_t, ProcessPtr> traced;
  for (const ProcessPtr& process : Processes()) {
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
  return OnProcess(
      request, [&](TracedProcess& process) { return process.Threads(response.ThreadInfoList); });
}

// The target's memory: the mapped ranges of every process under the debugger.
Status LocalDebugBackend::GetMemoryRanges(const DebugCall&, CGetMemoryRangesRequest&,
                                          CGetMemoryRangesResponse& response) {
  for (const ProcessPtr& process : Processes()) {
    for (const Mapping& mapping : ReadMappings(process->pid()))
      response.MemoryRanges.push_back({mapping.start, mapping.end - mapping.start});
  }
  return Status::Ok();
}

Status LocalDebugBackend::GetSoftwareBreakPointList(const DebugCall&,
                                                    CGetSoftwareBreakPointListRequest& request,
                                                    CGetSoftwareBreakPointListResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.SoftwareBreakpoints(response.SoftwareBreakPointList);
  });
}

Status LocalDebugBackend::GetHardwareBreakPointList(const DebugCall&,
                                                    CGetHardwareBreakPointListRequest& request,
                                                    CGetHardwareBreakPointListResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.HardwareBreakpoints(response.HardwareBreakPointList);
  });
}

Status LocalDebugBackend::SuspendProcess(const DebugCall&, CSuspendProcessRequest& request,
                                         CSuspendProcessResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.Suspend(response.ProcessInfo, response.ThreadInfoList);
  });
}

Status LocalDebugBackend::ResumeProcess(const DebugCall&, CResumeProcessRequest& request,
                                        CResumeProcessResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.Resume(request.ThreadsToStep, response.FailedToStartThreadList);
  });
}

Status LocalDebugBackend::GetModuleInfoList(const DebugCall&, CGetModuleInfoListRequest& request,
                                            CGetModuleInfoListResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    const pid_t pid = process.pid();
    response.ModuleInfoList =
        ModulesOf(ReadMappings(pid), ReadLink("/proc/" + std::to_string(pid) + "/exe"));
  });
}

Status LocalDebugBackend::GetVmemInfo(const DebugCall&, CGetVmemInfoRequest& request,
                                      CGetVmemInfoResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    for (const Mapping& mapping : ReadMappings(process.pid(), true)) {
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
  });
}

Status LocalDebugBackend::AllocateExecutablePage(const DebugCall&,
                                                 CAllocateExecutablePageRequest& request,
                                                 CAllocateExecutablePageResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.AllocatePages(true, request.PageSize, request.StartAddress, request.EndAddress,
                                 response.Address);
  });
}

Status LocalDebugBackend::AllocateDataPage(const DebugCall&, CAllocateDataPageRequest& request,
                                           CAllocateDataPageResponse& response) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.AllocatePages(false, request.PageSize, request.StartAddress, request.EndAddress,
                                 response.Address);
  });
}

Status LocalDebugBackend::DeallocateExecutablePage(const DebugCall&,
                                                   CDeallocateExecutablePageRequest& request,
                                                   CDeallocateExecutablePageResponse&) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.DeallocatePages(true, request.Address);
  });
}

Status LocalDebugBackend::DeallocateDataPage(const DebugCall&, CDeallocateDataPageRequest& request,
                                             CDeallocateDataPageResponse&) {
  return OnProcess(request, [&](TracedProcess& process) {
    return process.DeallocatePages(false, request.Address);
  });
}

// A Linux process has no synchronisation objects or application objects the kernel could list:
// the answers are empty, for a process under the debugger.
Status LocalDebugBackend::GetSyncPrimInfoList(const DebugCall&,
                                              CGetSyncPrimInfoListRequest& request,
                                              CGetSyncPrimInfoListResponse&) {
  return OnProcess(request, [](TracedProcess&) {});
}

Status LocalDebugBackend::GetAppObjectInfo(const DebugCall&, CGetAppObjectInfoRequest& request,
                                           CGetAppObjectInfoResponse&) {
  return OnProcess(request, [](TracedProcess&) {});
}

Status LocalDebugBackend::GetSocketInfo(const DebugCall&, CGetSocketInfoRequest& request,
                                        CGetSocketInfoResponse& response) {
  return OnProcess(
      request, [&](TracedProcess& process) { response.SocketInfoList = Sockets(process.pid()); });
}

Status LocalDebugBackend::GetFiles(const DebugCall&, CGetFilesRequest& request,
                                   CGetFilesResponse& response) {
  return OnProcess(request,
                   [&](TracedProcess& process) { response.FileList = OpenFiles(process.pid()); });
}

Status LocalDebugBackend::ReadGpuInfo(const DebugCall&, CReadGpuInfoRequest& request,
                                      CReadGpuInfoResponse&) {
  return OnProcess(request, [&](TracedProcess&) {
    return Status::Fail(
        KXAPI_COMMS_ERR_NO_GPU_INFO,
        u"the local target has no GPU information for process " + Decimal(request.ProcessID));
  });
}

void LocalDebugBackend::ConsoleInput(uint32_t process_id, const std::string& text) {
  std::lock_guard lock(mutex_);
  for (const auto& [pid, process] : processes_) {
    if (process_id == 0 || process_id == 0xFFFFFFFF || process_id == pid) process->Input(text);
  }
}

}  // namespace qv::server
