#pragma once
// How the server paces console output to each client: at most kConsoleInFlight pieces go
// unacknowledged, and a full window refills once half of it has been acknowledged, so that the
// client's writer sends pieces in batches rather than one for each acknowledgement. Up to
// kConsoleBacklog further pieces wait for the client; beyond that they are dropped for it and
// counted, and once it acknowledges again it gets a piece saying how many it missed.
//
// The window is wide because the acknowledgements cross both processes' schedulers: with 64 the
// writer stood idle waiting for them, and many busy targets on one client delivered less in all
// than a single one did. 512 pieces of 1 KiB are 1 MiB in flight, within what a pipe buffers.

#include <cstdint>

namespace qv::server {

inline constexpr uint32_t kConsoleInFlight = 512;
inline constexpr uint32_t kConsoleBacklog = 1024;

}  // namespace qv::server
