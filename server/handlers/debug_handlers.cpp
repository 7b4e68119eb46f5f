#include "server/handlers/debug_handlers.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>

#include "requests/catalogue.h"

namespace qv::server {
namespace {

constexpr uint32_t kBriefReadBytes = 1u << 20;

// What only the holder of a process's lock may do to it: run, stop, change its memory,
// registers and breakpoints, attach to it, detach from it, and (under the whole target's lock)
// load a new one. Reads stay open to everybody.
constexpr uint32_t kOwnerOnly[] = {
    CAllocateDataPageRequest::kTypeNumber,
    CAllocateExecutablePageRequest::kTypeNumber,
    CAttachProcessRequest::kTypeNumber,
    CClearHardwareBreakPointRequest::kTypeNumber,
    CClearSoftwareBreakPointRequest::kTypeNumber,
    CDeallocateDataPageRequest::kTypeNumber,
    CDeallocateExecutablePageRequest::kTypeNumber,
    CDetachProcessRequest::kTypeNumber,
    CKillProcessRequest::kTypeNumber,
    CLoadProcessRequest::kTypeNumber,
    CResumeProcessRequest::kTypeNumber,
    CResumeThreadRequest::kTypeNumber,
    CSetHardwareBreakPointRequest::kTypeNumber,
    CSetMemoryRequest::kTypeNumber,
    CSetRegistersRequest::kTypeNumber,
    CSetScatteredMemoryRequest::kTypeNumber,
    CSetSoftwareBreakPointRequest::kTypeNumber,
    CSuspendProcessRequest::kTypeNumber,
    CSuspendThreadRequest::kTypeNumber,
};

// The process a request would change, for the lock check: none for a read, 0 for a request that
// names no process.
template <class Request>
std::optional<uint32_t> ChangedProcess(const Request& request) {
  if (std::find(std::begin(kOwnerOnly), std::end(kOwnerOnly), Request::kTypeNumber) ==
      std::end(kOwnerOnly)) {
    return std::nullopt;
  }
  if constexpr (requires { request.ProcessID; }) {
    return request.ProcessID;
  } else if constexpr (requires { request.ProcessId; }) {
    return request.ProcessId;
  } else {
    return 0u;
  }
}

}  // namespace

// Every row of the debug catalogue: the backend is taken from the registry under its lock and
// called without it. The calls run off the client's reading thread (small memory reads aside), so
// a long read or a slow backend holds up neither that client's other calls nor anybody else's.
void RegisterDebugHandlers(RequestDispatcher& dispatcher, TargetRegistry& registry) {
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields)                    \
  dispatcher.Register<C##Camel##Request, C##Camel##Response>(                                   \
      [&registry](const RequestContext& context, C##Camel##Request& request,                    \
                  C##Camel##Response& response) {                                               \
        std::shared_ptr<DebugBackend> backend;                                                  \
        if (Status status = registry.DebugBackendOf(context.target, backend, context.client_id, \
                                                    ChangedProcess(request));                   \
            !status.ok()) {                                                                     \
          return status;                                                                        \
        }                                                                                       \
        return backend->Camel(DebugCall{context.client_id, context.target}, request, response); \
      },                                                                                        \
      RequestDispatcher::Timing::kMayWait);
#include "requests/debug_operations.def"
  // No backend waits for a read of memory (the local target reads with process_vm_readv, not
  // through its tracer), so a read of up to 1 MiB, a few hundred microseconds at most, is
  // answered on the reading thread rather than paying a worker's wake-up; a larger one still
  // goes to a worker, so that it does not hold up the client's other calls.
  dispatcher.AnswerAtOnceWhen<CGetMemoryRequest>(
      [](const CGetMemoryRequest& request) { return request.Size <= kBriefReadBytes; });
}

}  // namespace qv::server
