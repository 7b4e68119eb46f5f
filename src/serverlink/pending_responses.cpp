#include "serverlink/pending_responses.h"

#include <new>

namespace qv {

namespace {

// The calling thread's own condition variable, made on its first wait; null when memory runs out.
const std::shared_ptr<std::condition_variable>& ThisThreadsWaiter() {
  thread_local std::shared_ptr<std::condition_variable> waiter;
  if (waiter == nullptr) {
    try {
      waiter = std::make_shared<std::condition_variable>();
    } catch (const std::bad_alloc&) {
    }
  }
  return waiter;
}

}  // namespace

uint64_t PendingResponseStore::Reset() {
  {
    std::lock_guard lock(awaited_mutex_);
    awaited_.clear();
  }
  std::lock_guard lock(store_mutex_);
  WakeAllLocked();
  entries_.clear();
  aborted_ = false;
  return ++epoch_;
}

void PendingResponseStore::WakeAllLocked() {
  for (auto& [sequence, entry] : entries_) {
    if (entry.waiter != nullptr) entry.waiter->notify_one();
  }
}

uint64_t PendingResponseStore::Epoch() const {
  std::lock_guard lock(store_mutex_);
  return epoch_;
}

bool PendingResponseStore::Await(uint32_t sequence, std::shared_ptr<BulkLanding> landing) {
  std::lock_guard lock(awaited_mutex_);
  try {
    awaited_[sequence] = std::move(landing);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

std::shared_ptr<BulkLanding> PendingResponseStore::TakeLanding(uint32_t sequence) {
  std::lock_guard lock(awaited_mutex_);
  const auto it = awaited_.find(sequence);
  return it != awaited_.end() ? std::move(it->second) : nullptr;
}

void PendingResponseStore::Forget(uint32_t sequence) {
  std::lock_guard lock(awaited_mutex_);
  awaited_.erase(sequence);
}

bool PendingResponseStore::Deliver(std::shared_ptr<CResponse> response) {
  if (response == nullptr) return false;
  const uint32_t sequence = response->Sequence;
  {
    std::lock_guard lock(awaited_mutex_);
    if (awaited_.erase(sequence) == 0) return false;
  }
  std::shared_ptr<std::condition_variable> waiter;
  {
    std::lock_guard lock(store_mutex_);
    try {
      Entry& entry = entries_[sequence];
      entry.ready = true;
      entry.response = std::move(response);
      waiter = std::move(entry.waiter);
    } catch (const std::bad_alloc&) {
      return false;
    }
  }
  if (waiter != nullptr) waiter->notify_one();
  return true;
}

std::error_code PendingResponseStore::Wait(
    uint32_t sequence, uint64_t epoch, std::shared_ptr<CResponse>& response,
    std::optional<std::chrono::steady_clock::time_point> deadline) {
  const std::shared_ptr<std::condition_variable>& woken = ThisThreadsWaiter();
  if (woken == nullptr) return WaitError::kWaitAbandoned;
  std::unique_lock lock(store_mutex_);
  for (;;) {
    // Found afresh after every wake-up: a new connection may have cleared the entries.
    auto it = entries_.find(sequence);
    if (aborted_ || epoch_ != epoch) {
      if (it != entries_.end() && it->second.waiter == woken) entries_.erase(it);
      return WaitError::kWaitAbort;
    }
    if (it == entries_.end()) {
      try {
        it = entries_.emplace(sequence, Entry{}).first;
      } catch (const std::bad_alloc&) {
        return WaitError::kWaitAbandoned;
      }
    }
    if (it->second.ready) {
      response = std::move(it->second.response);
      entries_.erase(it);
      return WaitError::kWaitSuccess;
    }
    it->second.waiter = woken;
    if (!deadline) {
      woken->wait(lock);
    } else if (woken->wait_until(lock, *deadline) == std::cv_status::timeout) {
      if (GiveUpLocked(sequence, lock)) return WaitError::kWaitTimedOut;
      deadline.reset();  // the answer is being filed: it is here at once
    }
  }
}

bool PendingResponseStore::GiveUpLocked(uint32_t sequence, std::unique_lock<std::mutex>& lock) {
  // The awaited mark goes first, with the store let go (no path holds both locks). A read thread
  // that took the mark before us is filing the response: wait for it rather than leave it filed
  // for nobody.
  lock.unlock();
  bool withdrawn = false;
  {
    std::lock_guard awaited(awaited_mutex_);
    withdrawn = awaited_.erase(sequence) != 0;
  }
  lock.lock();
  if (!withdrawn) return false;
  entries_.erase(sequence);
  return true;
}

void PendingResponseStore::Abort() {
  std::lock_guard lock(store_mutex_);
  aborted_ = true;
  WakeAllLocked();
}

}  // namespace qv
