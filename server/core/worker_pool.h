#pragma once
// Threads that run one client's requests whose handlers may wait (power changes, debug calls), so
// that its other requests are answered meanwhile. A thread that finished a job waits for the next
// one instead of ending: a debugger reading memory in a loop does not start a thread per read.
// There are as many threads as jobs ever ran at once.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace qv::server {

class WorkerPool {
 public:
  WorkerPool() = default;
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;
  ~WorkerPool() { Stop(); }

  // Runs `job` on an idle thread, or on a new one when none is idle; false (and `job` not run)
  // when no thread can be had or the pool was stopped.
  bool Run(std::function<void()> job) noexcept;
  // Drops the jobs that have not started, waits for the running ones and joins every thread.
  void Stop() noexcept;

 private:
  void Loop();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;  // guarded by mutex_
  std::vector<std::thread> threads_;        // guarded by mutex_
  size_t idle_ = 0;                         // guarded by mutex_
  bool stopping_ = false;                   // guarded by mutex_
};

}  // namespace qv::server
