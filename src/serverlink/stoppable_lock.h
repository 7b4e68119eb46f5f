#pragma once
// A lock whose waits also end when its owner is stopped: the pipe channel's write and read locks,
// which a caller waits for "until it is free or the connection is being torn down".

#include <condition_variable>
#include <mutex>

namespace qv {

class StoppableLock {
 public:
  // Takes the lock; false (without it) once Stop has been called.
  bool Lock() {
    std::unique_lock guard(mutex_);
    free_.wait(guard, [this] { return stopped_ || !held_; });
    if (stopped_) return false;
    held_ = true;
    return true;
  }
  // Takes the lock whether or not the owner has been stopped: for the owner tearing down what the
  // lock guards.
  void LockEvenIfStopped() {
    std::unique_lock guard(mutex_);
    free_.wait(guard, [this] { return !held_; });
    held_ = true;
  }
  void Unlock() {
    {
      std::lock_guard guard(mutex_);
      held_ = false;
    }
    free_.notify_one();
  }
  // Ends every wait, present and future, until Reset.
  void Stop() {
    {
      std::lock_guard guard(mutex_);
      stopped_ = true;
    }
    free_.notify_all();
  }
  void Reset() {
    std::lock_guard guard(mutex_);
    stopped_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable free_;
  bool held_ = false;     // guarded by mutex_
  bool stopped_ = false;  // guarded by mutex_
};

}  // namespace qv
