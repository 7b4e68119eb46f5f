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
  std::lock_guard lock(store_mutex_);
  WakeAllLocked();
  entries_.clear();
  aborted_ = false;
  reader_ = Reader::kNobody;
  callers_read_at_ = {};
  return ++epoch_;
}

void PendingResponseStore::WakeAllLocked() {
  for (Entry& entry : entries_) {
    if (entry.waiter != nullptr) entry.waiter->notify_one();
  }
}

PendingResponseStore::Entry* PendingResponseStore::FindLocked(uint32_t sequence) {
  for (Entry& entry : entries_) {
    if (entry.sequence == sequence) return &entry;
  }
  return nullptr;
}

const PendingResponseStore::Entry* PendingResponseStore::FindLocked(uint32_t sequence) const {
  return const_cast<PendingResponseStore*>(this)->FindLocked(sequence);
}

void PendingResponseStore::EraseLocked(Entry& entry) {
  // Order does not matter: the last entry takes the place of the one that goes.
  if (&entry != &entries_.back()) entry = std::move(entries_.back());
  entries_.pop_back();
}

uint64_t PendingResponseStore::Epoch() const {
  std::lock_guard lock(store_mutex_);
  return epoch_;
}

bool PendingResponseStore::Await(uint32_t sequence, std::shared_ptr<BulkLanding> landing,
                                 uint64_t* epoch) {
  std::lock_guard lock(store_mutex_);
  if (epoch != nullptr) *epoch = epoch_;
  try {
    Entry* entry = FindLocked(sequence);
    if (entry == nullptr) entry = &entries_.emplace_back();
    *entry = Entry{};
    entry->sequence = sequence;
    entry->landing = std::move(landing);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

std::shared_ptr<BulkLanding> PendingResponseStore::TakeLanding(uint32_t sequence) {
  std::lock_guard lock(store_mutex_);
  Entry* entry = FindLocked(sequence);
  return entry != nullptr && !entry->ready ? std::move(entry->landing) : nullptr;
}

void PendingResponseStore::Forget(uint32_t sequence) {
  std::lock_guard lock(store_mutex_);
  if (Entry* entry = FindLocked(sequence)) EraseLocked(*entry);
}

bool PendingResponseStore::Deliver(std::shared_ptr<CResponse> response) {
  if (response == nullptr) return false;
  std::shared_ptr<std::condition_variable> waiter;
  {
    std::lock_guard lock(store_mutex_);
    Entry* entry = FindLocked(response->Sequence);
    if (entry == nullptr || entry->ready) return false;  // awaited once, answered once
    entry->ready = true;
    entry->response = std::move(response);
    entry->landing.reset();
    waiter = std::move(entry->waiter);
    // Handed to a caller that could have read it itself: the read thread stands aside for
    // that caller's next call.
    if (waiter != nullptr && entry->may_read) callers_read_at_ = std::chrono::steady_clock::now();
  }
  if (waiter != nullptr) waiter->notify_one();
  return true;
}

std::error_code PendingResponseStore::Wait(
    uint32_t sequence, uint64_t epoch, std::shared_ptr<CResponse>& response,
    std::optional<std::chrono::steady_clock::time_point> deadline, bool may_read) {
  std::unique_lock lock(store_mutex_);
  return WaitLocked(sequence, epoch, response, deadline, may_read, lock);
}

std::error_code PendingResponseStore::EndCallerReadAndWait(uint32_t sequence, uint64_t epoch,
                                                           std::shared_ptr<CResponse>& response) {
  std::unique_lock lock(store_mutex_);
  EndCallerReadLocked();
  return WaitLocked(sequence, epoch, response, {}, /*may_read=*/true, lock);
}

std::error_code PendingResponseStore::WaitLocked(
    uint32_t sequence, uint64_t epoch, std::shared_ptr<CResponse>& response,
    std::optional<std::chrono::steady_clock::time_point> deadline, bool may_read,
    std::unique_lock<std::mutex>& lock) {
  const std::shared_ptr<std::condition_variable>& woken = ThisThreadsWaiter();
  if (woken == nullptr) return WaitError::kWaitAbandoned;
  for (;;) {
    // Found afresh after every wake-up: a new connection may have cleared the entries.
    Entry* entry = epoch_ == epoch ? FindLocked(sequence) : nullptr;
    if (aborted_ || entry == nullptr) {
      // Not awaited on this connection (a new one came, or the number was withdrawn): the
      // connection it went out on is over for this caller.
      if (entry != nullptr) EraseLocked(*entry);
      return WaitError::kWaitAbort;
    }
    if (entry->ready) {
      response = std::move(entry->response);
      EraseLocked(*entry);
      PassThePipeLocked();
      return WaitError::kWaitSuccess;
    }
    entry->may_read = may_read && !deadline;
    if (entry->may_read && reader_ == Reader::kNobody) {
      reader_ = Reader::kCaller;
      entry->waiter.reset();
      return WaitError::kWaitReadYourself;
    }
    entry->waiter = woken;
    // A caller with a deadline cannot read the pipe itself: the read thread reads for it.
    if (!entry->may_read && reader_ == Reader::kNobody) read_thread_cv_.notify_one();
    if (!deadline) {
      woken->wait(lock);
    } else if (woken->wait_until(lock, *deadline) == std::cv_status::timeout) {
      // An answer filed meanwhile is taken; otherwise the number is withdrawn, and the answer
      // is dropped when it comes.
      entry = epoch_ == epoch ? FindLocked(sequence) : nullptr;
      if (entry != nullptr && !entry->ready && !aborted_) {
        EraseLocked(*entry);
        PassThePipeLocked();
        return WaitError::kWaitTimedOut;
      }
      deadline.reset();
    }
  }
}

bool PendingResponseStore::IsReady(uint32_t sequence) const {
  std::lock_guard lock(store_mutex_);
  const Entry* entry = FindLocked(sequence);
  return entry != nullptr && entry->ready;
}

void PendingResponseStore::EndCallerRead(std::optional<uint32_t> taken) {
  std::lock_guard lock(store_mutex_);
  if (Entry* entry = taken ? FindLocked(*taken) : nullptr) EraseLocked(*entry);
  EndCallerReadLocked();
}

void PendingResponseStore::EndCallerReadLocked() {
  if (reader_ == Reader::kCaller) reader_ = Reader::kNobody;
  callers_read_at_ = std::chrono::steady_clock::now();
  PassThePipeLocked();
  caller_read_ended_.notify_all();
}

bool PendingResponseStore::AnyWaiterLocked(bool may_read) const {
  for (const Entry& entry : entries_) {
    if (entry.waiter != nullptr && !entry.ready && entry.may_read == may_read) return true;
  }
  return false;
}

void PendingResponseStore::PassThePipeLocked() {
  if (reader_ != Reader::kNobody || aborted_) return;
  for (Entry& entry : entries_) {
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

void PendingResponseStore::Abort() {
  std::lock_guard lock(store_mutex_);
  aborted_ = true;
  WakeAllLocked();
  read_thread_cv_.notify_all();
}

}  // namespace qv
