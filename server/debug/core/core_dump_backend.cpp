#include "server/debug/core/core_dump_backend.h"

#include <filesystem>
#include <utility>

#include "server/debug/memory_reads.h"
#include "server/debug/reporting.h"
#include "serverlink/frame.h"

namespace qv::server {

Status CoreDumpBackend::Load(const std::u16string& path) {
  const std::filesystem::path file(path);
  if (path.empty() || !file.is_absolute()) {
    return Status::Fail(
        KXAPI_COMMS_ERR_INVALID_ARG,
        u"the core file needs an absolute path on the server's host, not \"" + path + u"\"");
  }
  {
    std::lock_guard lock(mutex_);
    if (loaded_ != nullptr) {
      return Status::Fail(KXAPI_ERR_NOT_SUPPORTED_BY_THIS_TARGET_TYPE,
                          u"'" + host_ + u"' holds the core " + path_ +
                              u" already; delete the target to load another");
    }
  }
  auto loaded = std::make_shared<LoadedCore>();
  if (Status status = OpenCoreFile(file, loaded->bytes); !status.ok()) return status;
  if (Status status = ParseElfCore(*loaded->bytes, loaded->core); !status.ok()) {
    status.text = path + u": " + status.text;
    return status;
  }
  loaded->files = std::make_unique<MappedFiles>(true);
  std::lock_guard lock(mutex_);
  if (loaded_ != nullptr) {
    return Status::Fail(KXAPI_ERR_NOT_SUPPORTED_BY_THIS_TARGET_TYPE,
                        u"'" + host_ + u"' holds the core " + path_ + u" already");
  }
  loaded_ = std::move(loaded);
  path_ = path;
  return Status::Ok();
}

Status CoreDumpBackend::Loaded(std::shared_ptr<const LoadedCore>& loaded) const {
  std::lock_guard lock(mutex_);
  loaded = loaded_;
  if (loaded != nullptr) return Status::Ok();
  return Status::Fail(KXAPI_ERR_DATA_NOT_IN_COREDUMP,
                      u"no core file is loaded at '" + host_ + u"' (LoadCoreDump loads one)");
}

Status CoreDumpBackend::Process(uint32_t pid, std::shared_ptr<const LoadedCore>& loaded) const {
  if (Status status = Loaded(loaded); !status.ok()) return status;
  if (loaded->core.pid == pid) return Status::Ok();
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_PID,
                      u"the core dump at '" + host_ + u"' holds process " +
                          Decimal(loaded->core.pid) + u", not " + Decimal(pid));
}

Status CoreDumpBackend::Refuse(std::u16string_view operation) const {
  return Status::Fail(
      KXAPI_ERR_NOT_SUPPORTED_BY_THIS_TARGET_TYPE,
      std::u16string(operation) + u" is refused: '" + host_ + u"' is a read-only core dump");
}

#define VEKX_CORE_REFUSES(Camel)                                                             \
  Status CoreDumpBackend::Camel(const DebugCall&, C##Camel##Request&, C##Camel##Response&) { \
    return Refuse(C##Camel##Request::kName);                                                 \
  }
#include "server/debug/core/core_refusals.def"

Status CoreDumpBackend::GetProcessInfoSnapshot(const DebugCall&, CGetProcessInfoSnapshotRequest&,
                                               CGetProcessInfoSnapshotResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Loaded(loaded); !status.ok()) return status;
  response.ProcessInfoList.push_back(CoreProcessRecord(*loaded));
  return Status::Ok();
}

Status CoreDumpBackend::GetThreadInfoSnapshot(const DebugCall&,
                                              CGetThreadInfoSnapshotRequest& request,
                                              CGetThreadInfoSnapshotResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  response.ThreadInfoList = CoreThreadRecords(loaded->core);
  return Status::Ok();
}

Status CoreDumpBackend::ThreadNames(const DebugCall&, CThreadNamesRequest& request,
                                    CThreadNamesResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  for (const ThreadInfoRecord& thread : CoreThreadRecords(loaded->core)) {
    response.PidTidList.push_back({request.ProcessID, thread.Tid});
    response.Names.push_back(thread.Name);
  }
  return Status::Ok();
}

Status CoreDumpBackend::GetMemoryRanges(const DebugCall&, CGetMemoryRangesRequest&,
                                        CGetMemoryRangesResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Loaded(loaded); !status.ok()) return status;
  for (const VirtualMemoryRecord& region : CoreMemoryMap(loaded->core))
    response.MemoryRanges.push_back({region.StartAddr, region.EndAddr - region.StartAddr});
  return Status::Ok();
}

Status CoreDumpBackend::GetMemory(const DebugCall&, CGetMemoryRequest& request,
                                  CGetMemoryResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  return ReadMemory(*loaded, request, response);
}

Status CoreDumpBackend::GetLargeMemory(const DebugCall&, CGetLargeMemoryRequest& request,
                                       CGetLargeMemoryResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  return ReadLargeMemory(*loaded, request, response);
}

Status CoreDumpBackend::GetScatteredMemory(const DebugCall&, CGetScatteredMemoryRequest& request,
                                           CGetScatteredMemoryResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  return ReadScatteredMemory(*loaded, request, response);
}

Status CoreDumpBackend::GetRegisters(const DebugCall&, CGetRegistersRequest& request,
                                     CGetRegistersResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  for (const ElfCoreThread& thread : loaded->core.threads) {
    if (thread.tid == request.ThreadID)
      return ReadCoreRegisters(thread, request.RegisterIndices, response.RegisterValues);
  }
  return Status::Fail(KXAPI_COMMS_ERR_INVALID_TID, u"process " + Decimal(request.ProcessID) +
                                                       u" has no thread " +
                                                       Decimal(request.ThreadID) + u" in its core");
}

Status CoreDumpBackend::GetModuleInfoList(const DebugCall&, CGetModuleInfoListRequest& request,
                                          CGetModuleInfoListResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  response.ModuleInfoList = CoreModules(*loaded);
  return Status::Ok();
}

Status CoreDumpBackend::GetVmemInfo(const DebugCall&, CGetVmemInfoRequest& request,
                                    CGetVmemInfoResponse& response) {
  std::shared_ptr<const LoadedCore> loaded;
  if (Status status = Process(request.ProcessID, loaded); !status.ok()) return status;
  response.VirtualMemoryList = CoreMemoryMap(loaded->core);
  return Status::Ok();
}

// A core has no breakpoints: the lists are empty.
Status CoreDumpBackend::GetSoftwareBreakPointList(const DebugCall&,
                                                  CGetSoftwareBreakPointListRequest& request,
                                                  CGetSoftwareBreakPointListResponse&) {
  std::shared_ptr<const LoadedCore> loaded;
  return Process(request.ProcessID, loaded);
}

Status CoreDumpBackend::GetHardwareBreakPointList(const DebugCall&,
                                                  CGetHardwareBreakPointListRequest& request,
                                                  CGetHardwareBreakPointListResponse&) {
  std::shared_ptr<const LoadedCore> loaded;
  return Process(request.ProcessID, loaded);
}

}  // namespace qv::server
