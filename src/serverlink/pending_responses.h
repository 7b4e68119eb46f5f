#pragma once
// Where responses wait for their callers. A caller registers its sequence number as awaited before
// its request is written; the read thread hands each arriving response in; the caller blocks until
// its own entry is ready or the connection ends.
//
// Locks: the awaited set and the store have one mutex each; the read thread takes the first,
// lets it go, then takes the second, so no path holds both.
//
// Wake-ups: each calling thread blocks on a condition variable of its own, which its entry
// shares while it waits, so that a response wakes its own caller and no other. The entry's share
// keeps the condition variable alive, so the read thread notifies after letting the mutex go and
// the woken caller does not find it still held.
//
// Each connection is an epoch. Reset starts a new one; a waiter whose epoch has passed leaves
// with kWaitAbort even when a new connection has already cleared the abort mark, so a caller can
// never miss the end of the connection its request went out on.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <unordered_map>

#include "serverlink/bulk_bytes.h"
#include "serverlink/messages.h"
#include "serverlink/wait_error.h"

namespace qv {

class PendingResponseStore {
 public:
  // Starts a new connection: forgets every entry and awaited number, clears the abort mark and
  // wakes the waiters of the previous epoch. Returns the new epoch.
  uint64_t Reset();
  // The epoch that requests sent now belong to.
  uint64_t Epoch() const;

  // Marks `sequence` as awaited, with where its response's large byte field should land (may
  // be null). False only when memory runs out.
  bool Await(uint32_t sequence, std::shared_ptr<BulkLanding> landing = nullptr);
  // Read thread: the landing awaited `sequence` came with, handed over once.
  std::shared_ptr<BulkLanding> TakeLanding(uint32_t sequence);
  // Withdraws an awaited number whose request never went out.
  void Forget(uint32_t sequence);

  // Read thread: files a response under its Sequence and wakes the waiters. A response nobody
  // awaits is dropped and false returned.
  bool Deliver(std::shared_ptr<CResponse> response);

  // Blocks until the response for `sequence` has arrived (kWaitSuccess, response filled in) or
  // the connection of `epoch` has ended (kWaitAbort). kWaitAbandoned when memory runs out. With a
  // `deadline`, kWaitTimedOut once it passes: `sequence` is then no longer awaited, so its
  // response is dropped when it comes.
  std::error_code Wait(uint32_t sequence, uint64_t epoch, std::shared_ptr<CResponse>& response,
                       std::optional<std::chrono::steady_clock::time_point> deadline = {});

  // The connection ended: every waiter wakes with kWaitAbort.
  void Abort();

 private:
  struct Entry {
    bool ready = false;
    std::shared_ptr<CResponse> response;
    std::shared_ptr<std::condition_variable> waiter;  // set while its caller waits
  };

  // A timed-out waiter withdraws `sequence`; false when its response is being filed already.
  // `lock` holds store_mutex_ before and after.
  bool GiveUpLocked(uint32_t sequence, std::unique_lock<std::mutex>& lock);
  // Wakes every waiting caller; store_mutex_ held.
  void WakeAllLocked();

  mutable std::mutex awaited_mutex_;
  // Awaited sequence numbers and their landings; guarded by awaited_mutex_.
  std::unordered_map<uint32_t, std::shared_ptr<BulkLanding>> awaited_;

  mutable std::mutex store_mutex_;
  std::unordered_map<uint32_t, Entry> entries_;  // guarded by store_mutex_
  uint64_t epoch_ = 0;                           // guarded by store_mutex_
  bool aborted_ = false;                         // guarded by store_mutex_
};

}  // namespace qv
