#include "server/debug/debug_backends.h"

#include "server/debug/reporting.h"
#include "server/debug/virtual/virtual_debug_backend.h"
#include "serverlink/frame.h"
#ifdef __linux__
#include "server/debug/local/local_debug_backend.h"
#endif

namespace qv::server {

Status CheckReadSize(uint64_t size) {
  constexpr uint32_t kMaxRead = kMaxFrameBodyBytes - 4096;
  if (size <= kMaxRead) return Status::Ok();
  return Status::Fail(KXAPI_COMMS_ERR_EXCEED_MAX_PACKET_SIZE,
                      u"a read of " + Decimal(size) +
                          u" bytes does not fit in one answer; read at most " + Decimal(kMaxRead) +
                          u" bytes at a time");
}

Status CheckLargeRead(uint64_t size, uint32_t compression) {
  if (Status status = CheckReadSize(size); !status.ok()) return status;
  if (compression != 0) {
    return Status::Fail(
        KXAPI_COMMS_ERR_INVALID_PARAMETER_VALUE,
        u"compression " + Decimal(compression) + u" is not supported; ask for 0 (uncompressed)");
  }
  return CheckReadSize(size);
}

std::shared_ptr<DebugBackend> MakeDebugBackend(const Kit& kit,
                                               std::shared_ptr<DebugEvents> events) {
#ifdef __linux__
  if (kit.local) return std::make_shared<LocalDebugBackend>(std::move(events));
#endif
  if (kit.images.empty()) return std::make_shared<DebugBackend>();
  return std::make_shared<VirtualDebugBackend>(kit.images, kit.timings.step_ms, std::move(events));
}

}  // namespace qv::server
