#pragma once
// The one thread that traces a local process. Linux lets only the thread that attached a tracee
// make ptrace requests on it, so every ptrace call for a process runs here: session threads hand
// it work and wait for it (Run), and between pieces of work it waits for its tracees' stops and
// exits (waitpid with __WNOTHREAD: its own tracees and children only) and hands each to the
// process's handler.
//
// A session thread wakes the waiting thread with a signal of our own (kWakeSignal, whose handler
// does nothing and does not restart waitpid); a wake that arrives just before the thread enters
// waitpid is repeated until the work has been taken.

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace qv::server {

class TracerThread {
 public:
  // `on_wait_status(tid, status)` runs on the thread for every status waitpid gives it.
  using WaitHandler = std::function<void(pid_t tid, int status)>;

  explicit TracerThread(WaitHandler on_wait_status);
  // Stops the thread and joins it: never destroyed from the thread itself.
  ~TracerThread();
  TracerThread(const TracerThread&) = delete;
  TracerThread& operator=(const TracerThread&) = delete;

  // Runs `work` on the thread and returns once it has run; false (and `work` not run) once the
  // thread has ended. From the thread itself, `work` runs at once.
  bool Run(const std::function<void()>& work);
  // Ends the thread after the work already queued. Its tracees are left as they are.
  void Stop();
  bool OnThread() const { return std::this_thread::get_id() == thread_.get_id(); }

  // waitpid that goes on through the wake signal's interruptions.
  static pid_t Wait(pid_t pid, int& status, int flags);

 private:
  struct Item {
    std::function<void()> work;
    bool taken = false;  // the thread runs it: no more wakes, they would break its waits
    bool done = false;
  };
  void Loop();
  void RunQueued();

  const WaitHandler on_wait_status_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  std::deque<Item*> queue_;
  bool stopping_ = false;
  bool ended_ = false;
  bool idle_ = false;  // waiting on changed_, not in waitpid
  int waking_ = 0;     // callers sending the wake signal with the lock released
  std::condition_variable wakes_sent_;
  pid_t tid_ = 0;
  std::thread thread_;  // last: it uses everything above
};

}  // namespace qv::server
