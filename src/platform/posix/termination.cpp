#include "platform/termination.h"

#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace qv::platform {
namespace {

// The eventfd of the stop signal. A signal handler may only write to it: write() is
// async-signal-safe, and StopSignal::Set is exactly that write.
std::atomic<int> g_stop_fd{-1};

extern "C" void OnTerminationSignal(int) {
  const int saved_errno = errno;
  const int fd = g_stop_fd.load();
  if (fd >= 0) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof one);
  }
  errno = saved_errno;
}

}  // namespace

bool StopOnTermination(StopSignal& stop) noexcept {
  if (!stop.IsValid()) return false;
  g_stop_fd.store(stop.native_handle());
  struct sigaction action {};
  action.sa_handler = &OnTerminationSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  return sigaction(SIGTERM, &action, nullptr) == 0 && sigaction(SIGINT, &action, nullptr) == 0 &&
         sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

}  // namespace qv::platform
