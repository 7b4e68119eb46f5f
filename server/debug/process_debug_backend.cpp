#include "server/debug/process_debug_backend.h"

#include "platform/wide_string.h"
#include "requests/notifications.h"
#include "server/debug/reporting.h"
#include "server/debug/virtual/core_dump.h"

namespace qv::server {

Status TriggerCoreDump(const DebugCall& call, const CTriggerCoredumpRequest& request,
                       DebugEvents& events, const CoreWriter& write) {
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
  bool started = false;
  const Status status = write(path, request.DumpType == kCoreDumpFull, [&](uint32_t percent) {
    started = true;
    CCoredumpInProgressNotification progress;
    progress.TargetKey = call.target;
    progress.ProcessId = request.ProcessID;
    progress.Percentage = percent;
    events.Post(progress);
  });
  if (started) {
    CCoredumpCompletedNotification completed;
    completed.TargetKey = call.target;
    completed.ProcessId = request.ProcessID;
    completed.Result = status.ok() ? 0 : status.code;
    events.Post(completed);
  }
  return status;
}

}  // namespace qv::server
