#include "serverlink/pending_responses.h"

#include <new>

namespace qv {

uint64_t PendingResponseStore::Reset() {
  {
    std::lock_guard lock(awaited_mutex_);
    awaited_.clear();
  }
  uint64_t epoch;
  {
    std::lock_guard lock(store_mutex_);
    entries_.clear();
    aborted_ = false;
    epoch = ++epoch_;
  }
  arrived_.notify_all();
  return epoch;
}

uint64_t PendingResponseStore::Epoch() const {
  std::lock_guard lock(store_mutex_);
  return epoch_;
}

bool PendingResponseStore::Await(uint32_t sequence) {
  std::lock_guard lock(awaited_mutex_);
  try {
    awaited_.insert(sequence);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
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
  {
    std::lock_guard lock(store_mutex_);
    try {
      Entry& entry = entries_[sequence];
      entry.ready = true;
      entry.response = std::move(response);
    } catch (const std::bad_alloc&) {
      return false;
    }
  }
  arrived_.notify_all();
  return true;
}

std::error_code PendingResponseStore::Wait(uint32_t sequence, uint64_t epoch,
                                           std::shared_ptr<CResponse>& response) {
  std::unique_lock lock(store_mutex_);
  for (;;) {
    if (aborted_ || epoch_ != epoch) return WaitError::kWaitAbort;
    auto it = entries_.find(sequence);
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
    arrived_.wait(lock);
  }
}

void PendingResponseStore::Abort() {
  {
    std::lock_guard lock(store_mutex_);
    aborted_ = true;
  }
  arrived_.notify_all();
}

}  // namespace qv
