#include "server/core/worker_pool.h"

#include <exception>
#include <utility>

namespace qv::server {

bool WorkerPool::Run(std::function<void()> job) noexcept {
  try {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return false;
      // Only jobs that an idle thread will take wait in the queue.
      if (idle_ <= jobs_.size()) threads_.emplace_back(&WorkerPool::Loop, this);
      jobs_.push_back(std::move(job));
    }
    // Woken after the lock is released, the thread does not wake only to wait for it.
    wake_.notify_one();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void WorkerPool::Stop() noexcept {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    jobs_.clear();
    threads.swap(threads_);
    wake_.notify_all();
  }
  for (std::thread& thread : threads)
    thread.join();
}

void WorkerPool::Loop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    --idle_;
    if (stopping_) return;
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    try {
      job();
    } catch (const std::exception&) {
      // A job answers its own failures; nothing may end the thread while others wait on it.
    }
    lock.lock();
  }
}

}  // namespace qv::server
