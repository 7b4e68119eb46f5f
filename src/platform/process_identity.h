#pragma once
// Who this process is, as the server's handshake wants to know.

#include <cstdint>

namespace qv::platform {

// The id of the calling process (GetCurrentProcessId / getpid).
uint32_t CurrentProcessId() noexcept;

}  // namespace qv::platform
