#pragma once
// Where responses wait for their callers. A caller registers its sequence number as awaited before
// its request is written; the read thread hands each arriving response in; the caller blocks until
// its own entry is ready or the connection ends.
//
// Locks: one mutex guards every entry, from its Await to its taking; a call takes it four times
// (await, wait, deliver, take), and the entries lie in one small array so that a call allocates
// nothing once the array has grown to the number of callers.
//
// Wake-ups: each calling thread blocks on a condition variable of its own, which its entry
// shares while it waits, so that a response wakes its own caller and no other. The entry's share
// keeps the condition variable alive, so the read thread notifies after letting the mutex go and
// the woken caller does not find it still held.
//
// Who reads the pipe: the read thread, or a caller waiting for its own answer. A caller that may
// wait without limit reads the pipe itself when nobody else does, handing on every other frame,
// so that its answer wakes it directly instead of waking the read thread, which would then have
// to wake it. The read thread stands aside while callers read for themselves, and until a short
// while after the last of them stopped, so that a caller's next call finds the pipe free instead
// of the read thread blocked in it; it reads at once for a caller whose wait has a deadline (that
// caller cannot block in the pipe). Callers do not wake it when they stop: it looks again on its
// own, each time a little later while the calls go on, so that a run of calls costs it a few
// wake-ups rather than two for every call. When a reading caller has its answer, it passes the pipe
// on to another waiting caller, or to the read thread when only callers with a deadline wait.
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
#include <vector>

#include "platform/pipe.h"
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
  // be null), and reports in `epoch`, when given, the connection it belongs to. False only when
  // memory runs out.
  bool Await(uint32_t sequence, std::shared_ptr<BulkLanding> landing = nullptr,
             uint64_t* epoch = nullptr);
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
  // response is dropped when it comes. With `may_read` (and no deadline), kWaitReadYourself when
  // the caller now holds the pipe: it reads frames until IsReady(sequence) or the pipe fails,
  // then calls EndCallerRead and waits again.
  std::error_code Wait(uint32_t sequence, uint64_t epoch, std::shared_ptr<CResponse>& response,
                       std::optional<std::chrono::steady_clock::time_point> deadline = {},
                       bool may_read = false);
  // Whether the response for `sequence` has been filed.
  bool IsReady(uint32_t sequence) const;
  // A reading caller lets go of the pipe; with `taken`, it read its answer to that sequence
  // number itself, which is then no longer awaited.
  void EndCallerRead(std::optional<uint32_t> taken = std::nullopt);
  // EndCallerRead, then Wait without a deadline, under one taking of the lock.
  std::error_code EndCallerReadAndWait(uint32_t sequence, uint64_t epoch,
                                       std::shared_ptr<CResponse>& response);

  // Read thread: blocks until it is to read the pipe (see above), true; or until the store is
  // aborted, false: a caller may then still be reading, and the pipe is not the read thread's.
  [[nodiscard]] bool AwaitReadThreadsTurn();
  // Read thread: it lets go of the pipe. What it found there tunes how long it stands aside
  // after callers' reads: shorter once it read a notification nobody else would have, longer
  // once it watched the pipe in vain (a caller took what woke it).
  enum class Found { kFrame, kNotification, kNothing };
  void EndReadThreadsTurn(Found found = Found::kFrame);
  // Blocks until no caller reads the pipe; after Abort, none starts again until Reset.
  void AwaitNoCallerReading();

  // The connection ended: every waiter wakes with kWaitAbort.
  void Abort();

 private:
  struct Entry {
    uint32_t sequence = 0;
    bool ready = false;
    bool may_read = false;  // its caller may read the pipe itself
    std::shared_ptr<CResponse> response;
    std::shared_ptr<std::condition_variable> waiter;  // set while its caller waits
    std::shared_ptr<BulkLanding> landing;             // until the read thread takes it
  };
  enum class Reader { kNobody, kReadThread, kCaller };
  // How long the read thread stands aside after a caller last read for itself. Where it holds
  // the pipe while it waits, a caller that comes then waits for it to hand the answer over: it
  // stands aside for long. Where it watches the pipe without holding it
  // (platform::Pipe::kWaitsWithoutReading), standing aside only saves the wake-ups a caller's
  // answers would give it, while a notification that comes meanwhile waits: it stands aside
  // between the two bounds, longer while calls follow each other, shorter while notifications
  // come between them.
  static constexpr std::chrono::microseconds kReadThreadStandsAside{200};
  static constexpr std::chrono::microseconds kReadThreadStandsAsideLeast{
      platform::Pipe::kWaitsWithoutReading ? 20 : 200};
  // The longest it looks away while calls go on: how late a notification that arrives just after
  // a long run of calls may be read.
  static constexpr std::chrono::microseconds kReadThreadLooksAwayAtMost{1600};

  // The entry of `sequence`, or null; store_mutex_ held.
  Entry* FindLocked(uint32_t sequence);
  const Entry* FindLocked(uint32_t sequence) const;
  void EraseLocked(Entry& entry);
  std::error_code WaitLocked(uint32_t sequence, uint64_t epoch,
                             std::shared_ptr<CResponse>& response,
                             std::optional<std::chrono::steady_clock::time_point> deadline,
                             bool may_read, std::unique_lock<std::mutex>& lock);
  void EndCallerReadLocked();
  // With nobody reading, wakes a caller that may read and still waits, or the read thread when a
  // caller with a deadline waits; store_mutex_ held.
  void PassThePipeLocked();
  // The waiting callers, of either kind, whose answers have not come; store_mutex_ held.
  bool AnyWaiterLocked(bool may_read) const;
  // Wakes every waiting caller; store_mutex_ held.
  void WakeAllLocked();

  mutable std::mutex store_mutex_;
  // The awaited sequence numbers, in no order; guarded by store_mutex_.
  std::vector<Entry> entries_;
  uint64_t epoch_ = 0;               // guarded by store_mutex_
  bool aborted_ = false;             // guarded by store_mutex_
  Reader reader_ = Reader::kNobody;  // guarded by store_mutex_
  // When a caller last read for itself, or was handed its answer; guarded by store_mutex_.
  std::chrono::steady_clock::time_point callers_read_at_;
  // How long the read thread stands aside now; guarded by store_mutex_.
  std::chrono::microseconds stands_aside_ = kReadThreadStandsAsideLeast;
  std::condition_variable read_thread_cv_;
  std::condition_variable caller_read_ended_;
};

}  // namespace qv
