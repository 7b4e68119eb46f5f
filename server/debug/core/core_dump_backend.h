#pragma once
// The debug backend of a core dump target (ADD_TARGET of type "CoreDump"): one stopped process,
// read from the ELF core file LOAD_CORE_DUMP names. Everything that reads answers from the file;
// everything that would write, run, stop or break is refused as the read-only dump it is.
//
// The loaded core is immutable once published: calls take a reference to it under the lock and
// read without it, so a long read holds up nobody.

#include <memory>
#include <mutex>
#include <string>

#include "server/debug/core/core_records.h"
#include "server/debug/debug_backend.h"

namespace qv::server {

class CoreDumpBackend final : public DebugBackend {
 public:
  // `host`: the target's pseudo host, named in errors.
  explicit CoreDumpBackend(std::u16string host) : host_(std::move(host)) {}

  // Opens and parses `path` (absolute, on the server's host). A target holds one core for its
  // lifetime; a second load is refused.
  Status Load(const std::u16string& path);

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
  Status GetScatteredMemory(const DebugCall&, CGetScatteredMemoryRequest&,
                            CGetScatteredMemoryResponse&) override;
  Status GetRegisters(const DebugCall&, CGetRegistersRequest&, CGetRegistersResponse&) override;
  Status GetModuleInfoList(const DebugCall&, CGetModuleInfoListRequest&,
                           CGetModuleInfoListResponse&) override;
  Status GetVmemInfo(const DebugCall&, CGetVmemInfoRequest&, CGetVmemInfoResponse&) override;
  Status GetSoftwareBreakPointList(const DebugCall&, CGetSoftwareBreakPointListRequest&,
                                   CGetSoftwareBreakPointListResponse&) override;
  Status GetHardwareBreakPointList(const DebugCall&, CGetHardwareBreakPointListRequest&,
                                   CGetHardwareBreakPointListResponse&) override;

  // What would change the process or run it: refused, naming the operation.
#define VEKX_CORE_REFUSES(Camel) \
  Status Camel(const DebugCall&, C##Camel##Request&, C##Camel##Response&) override;
#include "server/debug/core/core_refusals.def"

 private:
  // The loaded core, or a failure when none is loaded yet.
  Status Loaded(std::shared_ptr<const LoadedCore>& loaded) const;
  // The loaded core, when `pid` is its process.
  Status Process(uint32_t pid, std::shared_ptr<const LoadedCore>& loaded) const;
  Status Refuse(std::u16string_view operation) const;

  const std::u16string host_;
  mutable std::mutex mutex_;  // guards loaded_ and path_
  std::shared_ptr<const LoadedCore> loaded_;
  std::u16string path_;
};

}  // namespace qv::server
