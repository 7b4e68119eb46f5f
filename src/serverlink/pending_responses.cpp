#include "serverlink/pending_responses.h"

#include <algorithm>
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
  reader_ = Reader::kNobody;
  callers_read_at_ = {};
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
      // Handed to a caller that could have read it itself: the read thread stands aside for
      // that caller's next call.
      if (waiter != nullptr && entry.may_read) callers_read_at_ = std::chrono::steady_clock::now();
    } catch (const std::bad_alloc&) {
      return false;
    }
  }
  if (waiter != nullptr) waiter->notify_one();
  return true;
}

std::error_code PendingResponseStore::Wait(
    uint32_t sequence, uint64_t epoch, std::shared_ptr<CResponse>& response,
    std::optional<std::chrono::steady_clock::time_point> deadline, bool may_read) {
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
    Entry& entry = it->second;
    if (entry.ready) {
      response = std::move(entry.response);
      entries_.erase(it);
      PassThePipeLocked();
      return WaitError::kWaitSuccess;
    }
    entry.may_read = may_read && !deadline;
    if (entry.may_read && reader_ == Reader::kNobody) {
      reader_ = Reader::kCaller;
      entry.waiter.reset();
      return WaitError::kWaitReadYourself;
    }
    entry.waiter = woken;
    // A caller with a deadline cannot read the pipe itself: the read thread reads for it.
    if (!entry.may_read && reader_ == Reader::kNobody) read_thread_cv_.notify_one();
    if (!deadline) {
      woken->wait(lock);
    } else if (woken->wait_until(lock, *deadline) == std::cv_status::timeout) {
      if (GiveUpLocked(sequence, lock)) {
        PassThePipeLocked();
        return WaitError::kWaitTimedOut;
      }
      deadline.reset();  // the answer is being filed: it is here at once
    }
  }
}

bool PendingResponseStore::IsReady(uint32_t sequence) const {
  std::lock_guard lock(store_mutex_);
  const auto it = entries_.find(sequence);
  return it != entries_.end() && it->second.ready;
}

void PendingResponseStore::EndCallerRead() {
  std::lock_guard lock(store_mutex_);
  if (reader_ == Reader::kCaller) reader_ = Reader::kNobody;
  callers_read_at_ = std::chrono::steady_clock::now();
  PassThePipeLocked();
  caller_read_ended_.notify_all();
}

bool PendingResponseStore::AnyWaiterLocked(bool may_read) const {
  for (const auto& [sequence, entry] : entries_) {
    if (entry.waiter != nullptr && !entry.ready && entry.may_read == may_read) return true;
  }
  return false;
}

void PendingResponseStore::PassThePipeLocked() {
  if (reader_ != Reader::kNobody || aborted_) return;
  for (auto& [sequence, entry] : entries_) {
    if (entry.waiter != nullptr && !entry.ready && entry.may_read) {
      entry.waiter->notify_one();
      return;
    }
  }
  if (AnyWaiterLocked(false)) read_thread_cv_.notify_one();
}

bool PendingResponseStore::AwaitReadThreadsTurn() {
  std::unique_lock lock(store_mutex_);
  // How much later than now to look again: nothing more than the stand-aside at first, doubled
  // each time a caller still reads or has just read.
  std::chrono::microseconds looks_away{0};
  while (!aborted_) {
    const bool pipe_free = reader_ == Reader::kNobody && !AnyWaiterLocked(true);
    if (pipe_free && AnyWaiterLocked(false)) break;
    const auto now = std::chrono::steady_clock::now();
    const auto stood_aside = callers_read_at_ + stands_aside_;
    if (pipe_free && now >= stood_aside) break;
    read_thread_cv_.wait_until(lock, std::max(stood_aside, now + looks_away));
    looks_away = std::clamp(looks_away * 2, stands_aside_, kReadThreadLooksAwayAtMost);
  }
  if (aborted_) return false;
  reader_ = Reader::kReadThread;
  return true;
}

void PendingResponseStore::EndReadThreadsTurn(Found found) {
  std::lock_guard lock(store_mutex_);
  if (found == Found::kNotification) {
    stands_aside_ = std::max(stands_aside_ / 2, kReadThreadStandsAsideLeast);
  } else if (found == Found::kNothing) {
    stands_aside_ = std::min(stands_aside_ * 2, kReadThreadStandsAside);
  }
  if (reader_ == Reader::kReadThread) reader_ = Reader::kNobody;
  PassThePipeLocked();
}

void PendingResponseStore::AwaitNoCallerReading() {
  std::unique_lock lock(store_mutex_);
  caller_read_ended_.wait(lock, [this] { return reader_ != Reader::kCaller; });
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
  read_thread_cv_.notify_all();
}

}  // namespace qv
