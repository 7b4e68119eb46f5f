#include "server/debug/local/tracer_thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <string>

#include "server/core/server_log.h"

namespace qv::server {
namespace {

const int kWakeSignal = SIGRTMIN + 5;

void IgnoreWake(int) {}

// The thread's own boundary: what escapes a piece of work or a handler (only an allocation
// failure can) is logged, and the thread goes on.
template <class Work>
void Guarded(const Work& work) {
  try {
    work();
  } catch (const std::exception& error) {
    ServerLog(kLogErrors, std::string("the tracer of a local process failed: ") + error.what());
  }
}

// The wake signal's handler, installed once for the server: without SA_RESTART, so that it
// breaks the tracer out of waitpid.
void InstallWakeHandler() {
  static const bool installed = [] {
    struct sigaction action {};
    action.sa_handler = IgnoreWake;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    return sigaction(kWakeSignal, &action, nullptr) == 0;
  }();
  (void)installed;
}

}  // namespace

TracerThread::TracerThread(WaitHandler on_wait_status)
    : on_wait_status_(std::move(on_wait_status)) {
  InstallWakeHandler();
  std::unique_lock lock(mutex_);
  thread_ = std::thread(&TracerThread::Loop, this);
  changed_.wait(lock, [this] { return tid_ != 0; });
}

TracerThread::~TracerThread() {
  Stop();
}

void TracerThread::Stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
    if (!ended_) syscall(SYS_tgkill, getpid(), tid_, kWakeSignal);
  }
  if (!thread_.joinable() || OnThread()) return;
  {
    std::unique_lock lock(mutex_);
    wakes_sent_.wait(lock, [this] { return waking_ == 0; });
  }
  thread_.join();
}

bool TracerThread::Run(const std::function<void()>& work) {
  if (OnThread()) {
    work();
    return true;
  }
  Item item{work};
  {
    std::lock_guard lock(mutex_);
    if (ended_ || stopping_) return false;
    queue_.push_back(&item);
  }
  // Wakes are sent with the lock released: a tracer woken on this CPU then takes the lock at once
  // instead of waking only to wait for it.
  changed_.notify_all();
  std::unique_lock lock(mutex_);
  while (!item.done) {
    if (ended_) {
      std::erase(queue_, &item);
      return false;
    }
    if (!idle_ && !item.taken) {
      ++waking_;  // Stop does not join the thread while a wake is on its way to it
      lock.unlock();
      pthread_kill(thread_.native_handle(), kWakeSignal);
      lock.lock();
      if (--waking_ == 0 && stopping_) wakes_sent_.notify_all();
    }
    changed_.wait_for(lock, std::chrono::milliseconds(2), [&] { return item.done || ended_; });
  }
  return true;
}

pid_t TracerThread::Wait(pid_t pid, int& status, int flags) {
  for (;;) {
    const pid_t got = waitpid(pid, &status, flags);
    if (got >= 0 || errno != EINTR) return got;
  }
}

void TracerThread::RunQueued() {
  std::unique_lock lock(mutex_);
  while (!queue_.empty()) {
    Item* item = queue_.front();
    queue_.pop_front();
    item->taken = true;
    lock.unlock();
    Guarded(item->work);
    lock.lock();
    item->done = true;
    // The waiter is woken once the lock is free, so that it does not wake only to wait for it.
    lock.unlock();
    changed_.notify_all();
    lock.lock();
  }
}

void TracerThread::Loop() {
  sigset_t wake;
  sigemptyset(&wake);
  sigaddset(&wake, kWakeSignal);
  pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
  {
    std::lock_guard lock(mutex_);
    tid_ = static_cast<pid_t>(syscall(SYS_gettid));
    changed_.notify_all();
  }
  for (;;) {
    RunQueued();
    {
      std::lock_guard lock(mutex_);
      if (stopping_ && queue_.empty()) break;
    }
    int status = 0;
    const pid_t tid = waitpid(-1, &status, __WALL | __WNOTHREAD);
    if (tid > 0) {
      Guarded([&] { on_wait_status_(tid, status); });
      continue;
    }
    if (errno != ECHILD) continue;  // EINTR: woken for work
    // Nothing traced: sleep until there is work.
    std::unique_lock lock(mutex_);
    idle_ = true;
    changed_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    idle_ = false;
  }
  std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

}  // namespace qv::server
