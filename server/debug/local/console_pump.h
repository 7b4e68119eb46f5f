#pragma once
// A local process's standard output and error, as its target's console output: a thread reads
// both pipes and posts each piece as CONSOLE_OUTPUT (port STREAM_STDIO or STREAM_STDERR, category
// PROCESS_OUTPUT) until both are closed or the pump is stopped.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "server/debug/debug_backend.h"

namespace qv::server {

class ConsolePump {
 public:
  // Takes the two descriptors.
  ConsolePump(pid_t pid, int output, int error, std::shared_ptr<DebugEvents> events);
  // Stops reading and joins the thread.
  ~ConsolePump();
  ConsolePump(const ConsolePump&) = delete;
  ConsolePump& operator=(const ConsolePump&) = delete;

  // Waits up to `timeout` until both pipes are closed and all they held has been posted: the
  // process's last words go out before the news of its end. (A child that keeps the pipes open
  // makes this wait the whole time.)
  void WaitDrained(std::chrono::milliseconds timeout);

 private:
  void Loop();
  void Post(uint32_t port, std::string& pending, bool flush);

  const pid_t pid_;
  const int output_;
  const int error_;
  const std::shared_ptr<DebugEvents> events_;
  int stop_ = -1;  // eventfd that ends the loop
  std::mutex mutex_;
  std::condition_variable drained_changed_;
  bool drained_ = false;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace qv::server
