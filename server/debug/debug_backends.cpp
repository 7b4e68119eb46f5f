#include "server/debug/debug_backends.h"

#include "server/debug/virtual/reporting.h"
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

std::shared_ptr<DebugBackend> MakeDebugBackend(const Kit& kit,
                                               std::shared_ptr<DebugEvents> events) {
#ifdef __linux__
  if (kit.local) return std::make_shared<LocalDebugBackend>(std::move(events));
#endif
  if (kit.images.empty()) return std::make_shared<DebugBackend>();
  return std::make_shared<VirtualDebugBackend>(kit.images, kit.timings.step_ms, std::move(events));
}

}  // namespace qv::server
