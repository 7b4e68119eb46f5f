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

std::error_code PendingResponseStore::Wait(uint32_t sequence, uint64_t epoch,
                                           std::shared_ptr<CResponse>& response) {
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
    woken->wait(lock);
  }
}

void PendingResponseStore::Abort() {
  std::lock_guard lock(store_mutex_);
  aborted_ = true;
  WakeAllLocked();
}

}  // namespace qv
