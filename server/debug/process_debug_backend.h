#pragma once
// The debug backends whose processes are objects of their own (a virtual kit's, the local
// target's): an operation on one process finds it by the request's pid, through the backend's
// Find, and then calls it. The operations such processes answer alike are written here once, for
// any `Process` class that has the methods they call; a backend writes its others with OnProcess.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "server/debug/debug_backend.h"
#include "server/debug/memory_reads.h"

namespace qv::server {

// TRIGGER_COREDUMP's course on any target: the dump type and the path are checked, then
// `write(path, full, progress)` writes the file. Notifications go out before the answer:
// COREDUMP_IN_PROGRESS each time `progress` hears a percentage, then, once it has heard one,
// COREDUMP_COMPLETED with the request's result. A dump that cannot start is only refused.
using CoreProgress = std::function<void(uint32_t percent)>;
using CoreWriter =
    std::function<Status(const std::string& path, bool full, const CoreProgress& progress)>;
Status TriggerCoreDump(const DebugCall& call, const CTriggerCoredumpRequest& request,
                       DebugEvents& events, const CoreWriter& write);

template <class Process>
class ProcessDebugBackend : public DebugBackend {
 public:
  // The operations every such backend answers alike; each declares its own the same way.
#define VEKX_PROCESS_ALIKE(Camel) \
  Status Camel(const DebugCall&, C##Camel##Request&, C##Camel##Response&) override;
#include "server/debug/process_operations.def"

 protected:
  using ProcessPtr = std::shared_ptr<Process>;

  explicit ProcessDebugBackend(std::shared_ptr<DebugEvents> events) : events_(std::move(events)) {}

  // The process with that pid, or a failure naming the pid.
  virtual Status Find(uint32_t pid, ProcessPtr& process) = 0;

  // `body(process)` on the process the request names: what it returns, Ok when it returns
  // nothing, or Find's failure without calling it.
  template <class Request, class Body>
  Status OnProcess(const Request& request, Body&& body) {
    ProcessPtr process;
    if (Status status = Find(request.ProcessID, process); !status.ok()) return status;
    if constexpr (std::is_void_v<std::invoke_result_t<Body&, Process&>>) {
      body(*process);
      return Status::Ok();
    } else {
      return body(*process);
    }
  }

  const std::shared_ptr<DebugEvents> events_;
};

// The names of the threads GET_THREAD_INFO_SNAPSHOT lists.
template <class Process>
Status ProcessDebugBackend<Process>::ThreadNames(const DebugCall& call,
                                                 CThreadNamesRequest& request,
                                                 CThreadNamesResponse& response) {
  CGetThreadInfoSnapshotRequest snapshot;
  snapshot.ProcessID = request.ProcessID;
  CGetThreadInfoSnapshotResponse threads;
  if (Status status = GetThreadInfoSnapshot(call, snapshot, threads); !status.ok()) return status;
  for (const ThreadInfoRecord& thread : threads.ThreadInfoList) {
    response.PidTidList.push_back({request.ProcessID, thread.Tid});
    response.Names.push_back(thread.Name);
  }
  return Status::Ok();
}

template <class Process>
Status ProcessDebugBackend<Process>::GetMemory(const DebugCall&, CGetMemoryRequest& request,
                                               CGetMemoryResponse& response) {
  return OnProcess(request,
                   [&](Process& process) { return ReadMemory(process, request, response); });
}

template <class Process>
Status ProcessDebugBackend<Process>::GetLargeMemory(const DebugCall&,
                                                    CGetLargeMemoryRequest& request,
                                                    CGetLargeMemoryResponse& response) {
  return OnProcess(request,
                   [&](Process& process) { return ReadLargeMemory(process, request, response); });
}

template <class Process>
Status ProcessDebugBackend<Process>::SetMemory(const DebugCall&, CSetMemoryRequest& request,
                                               CSetMemoryResponse& response) {
  return OnProcess(request, [&](Process& process) {
    if (Status status = process.Write(request.BaseAddress, request.WriteData); !status.ok()) {
      return status;
    }
    response.BytesWritten = static_cast<uint32_t>(request.WriteData.size());
    return Status::Ok();
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::GetScatteredMemory(const DebugCall&,
                                                        CGetScatteredMemoryRequest& request,
                                                        CGetScatteredMemoryResponse& response) {
  return OnProcess(
      request, [&](Process& process) { return ReadScatteredMemory(process, request, response); });
}

// One result per region, the bytes written: all of a region, or 0 where the process refused the
// write.
template <class Process>
Status ProcessDebugBackend<Process>::SetScatteredMemory(const DebugCall&,
                                                        CSetScatteredMemoryRequest& request,
                                                        CSetScatteredMemoryResponse& response) {
  return OnProcess(request, [&](Process& process) {
    for (const ScatteredDataElement& region : request.Regions) {
      const bool written = process.Write(region.BaseAddress, region.Data).ok();
      response.Results.push_back(written ? static_cast<uint32_t>(region.Data.size()) : 0);
    }
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::GetRegisters(const DebugCall&, CGetRegistersRequest& request,
                                                  CGetRegistersResponse& response) {
  return OnProcess(request, [&](Process& process) {
    return process.GetRegisters(request.ThreadID, request.RegisterIndices, response.RegisterValues);
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::SetRegisters(const DebugCall&, CSetRegistersRequest& request,
                                                  CSetRegistersResponse&) {
  return OnProcess(request, [&](Process& process) {
    return process.SetRegisters(request.ThreadID, request.RegisterIndices, request.RegisterValues);
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::SetSoftwareBreakPoint(
    const DebugCall&, CSetSoftwareBreakPointRequest& request,
    CSetSoftwareBreakPointResponse& response) {
  return OnProcess(request, [&](Process& process) {
    return process.SetSoftwareBreakpoint(request, response.OriginalOpcode, response.BreakPtId);
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::ClearSoftwareBreakPoint(
    const DebugCall&, CClearSoftwareBreakPointRequest& request, CClearSoftwareBreakPointResponse&) {
  return OnProcess(request, [&](Process& process) {
    return process.ClearSoftwareBreakpoint(request.BreakPtId);
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::SetHardwareBreakPoint(
    const DebugCall&, CSetHardwareBreakPointRequest& request,
    CSetHardwareBreakPointResponse& response) {
  return OnProcess(request, [&](Process& process) {
    return process.SetHardwareBreakpoint(request.Address, request.Flags, request.RegionSize,
                                         response.BreakPtId);
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::ClearHardwareBreakPoint(
    const DebugCall&, CClearHardwareBreakPointRequest& request, CClearHardwareBreakPointResponse&) {
  return OnProcess(request, [&](Process& process) {
    return process.ClearHardwareBreakpoint(request.BreakPtId);
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::SuspendThread(const DebugCall&, CSuspendThreadRequest& request,
                                                   CSuspendThreadResponse& response) {
  return OnProcess(request, [&](Process& process) {
    return process.SuspendThread(request.ThreadID, response.ThreadStatus);
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::ResumeThread(const DebugCall&, CResumeThreadRequest& request,
                                                  CResumeThreadResponse&) {
  return OnProcess(request,
                   [&](Process& process) { return process.ResumeThread(request.ThreadID); });
}

template <class Process>
Status ProcessDebugBackend<Process>::GetCallstackSignature(
    const DebugCall&, CGetCallstackSignatureRequest& request,
    CGetCallstackSignatureResponse& response) {
  return OnProcess(request,
                   [&](Process& process) { return process.CallstackSignature(response.Hash); });
}

template <class Process>
Status ProcessDebugBackend<Process>::TriggerCoredump(const DebugCall& call,
                                                     CTriggerCoredumpRequest& request,
                                                     CTriggerCoredumpResponse&) {
  return OnProcess(request, [&](Process& process) {
    return TriggerCoreDump(call, request, *events_,
                           [&](const std::string& path, bool full, const CoreProgress& progress) {
                             return process.WriteCore(path, full, progress);
                           });
  });
}

template <class Process>
Status ProcessDebugBackend<Process>::CancelCoredump(const DebugCall&,
                                                    CCancelCoredumpRequest& request,
                                                    CCancelCoredumpResponse&) {
  return OnProcess(request, [](Process& process) { return process.CancelDump(); });
}

}  // namespace qv::server
