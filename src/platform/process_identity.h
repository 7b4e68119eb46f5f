#pragma once
// Who this process is, as the server's handshake wants to know.

#include <cstdint>
#include <optional>
#include <string>

namespace qv::platform {

// The id of the calling process (GetCurrentProcessId / getpid).
uint32_t CurrentProcessId() noexcept;

// Where the server's sockets and lock files live: the runtime directory on POSIX; empty on
// Windows, whose pipes and events have names of their own. nullopt when the POSIX directory
// cannot be used (created, owned by us, closed to others), with `problem` (when given) set to a
// sentence that says what is wrong with it.
std::optional<std::string> ServerRuntimeDirectory(std::string* problem = nullptr) noexcept;

}  // namespace qv::platform
