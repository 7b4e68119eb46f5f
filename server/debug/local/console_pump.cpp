#include "server/debug/local/console_pump.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/wide_string.h"
#include "requests/notifications.h"

namespace qv::server {
namespace {

constexpr uint32_t kProcessOutput = 1;  // eConsoleOutputCategory PROCESS_OUTPUT

// How many bytes at the end of `text` begin a UTF-8 sequence that is not complete yet.
size_t IncompleteTail(const std::string& text) {
  for (size_t back = 1; back <= 3 && back <= text.size(); ++back) {
    const auto byte = static_cast<unsigned char>(text[text.size() - back]);
    if ((byte & 0xC0) == 0x80) continue;  // a continuation byte: look further back
    const size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return length > back ? back : 0;
  }
  return 0;
}

}  // namespace

ConsolePump::ConsolePump(pid_t pid, int output, int error, std::shared_ptr<DebugEvents> events)
    : pid_(pid), output_(output), error_(error), events_(std::move(events)) {
  stop_ = eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread(&ConsolePump::Loop, this);
}

ConsolePump::~ConsolePump() {
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t ignored = write(stop_, &one, sizeof one);
  if (thread_.joinable()) thread_.join();
  close(stop_);
  close(output_);
  close(error_);
}

void ConsolePump::Post(uint32_t port, std::string& pending, bool flush) {
  const size_t keep = flush ? 0 : IncompleteTail(pending);
  if (pending.size() == keep) return;
  CConsoleOutputNotification output;
  output.TargetKey = events_->Target();
  output.Port = port;
  output.Category = kProcessOutput;
  output.ProcessId = static_cast<uint32_t>(pid_);
  output.Timestamp = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                               std::chrono::system_clock::now().time_since_epoch())
                                               .count());
  output.Text = platform::Utf8ToUtf16(pending.substr(0, pending.size() - keep));
  pending.erase(0, pending.size() - keep);
  events_->Post(output);
}

void ConsolePump::Loop() {
  pollfd fds[3] = {{output_, POLLIN, 0}, {error_, POLLIN, 0}, {stop_, POLLIN, 0}};
  std::string pending[2];
  int open = 2;
  while (open > 0) {
    if (poll(fds, 3, -1) < 0) continue;
    if (fds[2].revents != 0) break;
    for (uint32_t port = 0; port < 2; ++port) {
      if (fds[port].revents == 0) continue;
      char buffer[4096];
      const ssize_t got = read(fds[port].fd, buffer, sizeof buffer);
      if (got <= 0) {
        Post(port, pending[port], true);
        fds[port].fd = -1;  // poll skips it from now on
        --open;
        continue;
      }
      pending[port].append(buffer, static_cast<size_t>(got));
      Post(port, pending[port], false);
    }
  }
  std::lock_guard lock(mutex_);
  drained_ = true;
  drained_changed_.notify_all();
}

void ConsolePump::WaitDrained(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  drained_changed_.wait_for(lock, timeout, [this] { return drained_; });
}

}  // namespace qv::server
