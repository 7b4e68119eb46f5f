#pragma once
// Ending a long-running process cleanly when its user or the system asks it to stop.

#include "platform/pipe.h"

namespace qv::platform {

// From now on, a request to terminate sets `stop` instead of killing the process: SIGTERM and
// SIGINT on POSIX (SIGPIPE is ignored there as well), console close, Ctrl+C and log-off on
// Windows, and on Windows also the named event "Local\vesta-kx-stop-<process id>" that
// RequestServerStop sets (a server started without a console gets no Ctrl+C). `stop` must outlive
// the process's use of it; only one signal is served at a time and a later call replaces the
// earlier one. False when the system refuses the handlers.
bool StopOnTermination(StopSignal& stop) noexcept;

}  // namespace qv::platform
