#pragma once
// How many bytes of large request bodies the server takes in at once, across all its clients.
// A body that would pass the bound waits before it is read: its bytes stay in the pipe and its
// sender waits with them, so that clients sending large frames together cost about one copy of
// each frame let in, not one of every frame sent. A body larger than the bound is let in alone.

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

namespace qv::server {

class FrameBudget {
 public:
  explicit FrameBudget(size_t limit) : limit_(limit) {}
  FrameBudget(const FrameBudget&) = delete;
  FrameBudget& operator=(const FrameBudget&) = delete;

  // Waits until `bytes` more fit, or nothing is held; false once `stopped` says so (it is asked
  // every few milliseconds while waiting).
  bool Acquire(size_t bytes, const std::function<bool()>& stopped);
  void Release(size_t bytes);
  // `bytes` acquired earlier, given back when the last copy of what this returns goes (null for
  // none).
  std::shared_ptr<void> HoldUntilDropped(size_t bytes);
  size_t Held() const;

 private:
  const size_t limit_;
  mutable std::mutex mutex_;
  std::condition_variable released_;
  size_t held_ = 0;  // guarded by mutex_
};

}  // namespace qv::server
