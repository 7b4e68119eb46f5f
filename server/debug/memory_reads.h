#pragma once
// The memory reads every debug backend answers alike, from anything that reads like a process:
// `Read(address, size, data, bad)` into Bytes and into BulkBytes, the bytes it cannot read
// counted in `bad`.

#include <cstdint>

#include "requests/catalogue.h"
#include "server/core/status.h"
#include "server/debug/debug_backend.h"

namespace qv::server {

template <class Reader>
Status ReadMemory(Reader& reader, const CGetMemoryRequest& request, CGetMemoryResponse& response) {
  if (Status status = CheckReadSize(request.Size); !status.ok()) return status;
  reader.Read(request.BaseAddress, request.Size, response.ReadData, response.BadBytes);
  return Status::Ok();
}

template <class Reader>
Status ReadLargeMemory(Reader& reader, const CGetLargeMemoryRequest& request,
                       CGetLargeMemoryResponse& response) {
  if (Status status = CheckLargeRead(request.Size, request.Compression); !status.ok()) {
    return status;
  }
  uint32_t bad = 0;
  reader.Read(request.BaseAddress, request.Size, response.ReadData, bad);
  return Status::Ok();
}

// Each region as GET_MEMORY reads it; all of them must fit in one answer.
template <class Reader>
Status ReadScatteredMemory(Reader& reader, const CGetScatteredMemoryRequest& request,
                           CGetScatteredMemoryResponse& response) {
  uint64_t total = 0;
  for (const ScatteredReadRegion& region : request.Regions)
    total += region.Length;
  if (Status status = CheckReadSize(total); !status.ok()) return status;
  for (const ScatteredReadRegion& region : request.Regions) {
    ScatteredDataElement& element = response.Data.emplace_back();
    element.BaseAddress = region.Address;
    uint32_t bad = 0;
    reader.Read(region.Address, region.Length, element.Data, bad);
  }
  return Status::Ok();
}

}  // namespace qv::server
