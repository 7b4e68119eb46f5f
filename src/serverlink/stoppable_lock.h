#pragma once
// A lock whose waits also end when its owner is stopped: the pipe channel's write and read locks,
// which a caller waits for "until it is free or the connection is being torn down".
//
// One atomic word holds it: taking and letting go of a free lock is one atomic operation each,
// with no system call; only a thread that finds it held sleeps (on the word, in the system), and
// marks the word so that the holder knows to wake someone when it lets go.

#include <atomic>
#include <cstdint>

#include "platform/word_wait.h"

namespace qv {

class StoppableLock {
 public:
  // Takes the lock; false (without it) once Stop has been called.
  bool Lock() { return Take(/*even_if_stopped=*/false); }
  // Takes the lock whether or not the owner has been stopped: for the owner tearing down what the
  // lock guards.
  void LockEvenIfStopped() { Take(/*even_if_stopped=*/true); }
  void Unlock() {
    const uint32_t was = state_.fetch_and(~(kHeld | kContended), std::memory_order_release);
    if ((was & kContended) == 0) return;
    // Once stopped, the waiters that only Lock leave without the lock: every waiter is woken so
    // that one that takes it even so is not left asleep behind them.
    if ((was & kStopped) != 0) {
      platform::WakeAll(state_);
    } else {
      platform::WakeOne(state_);
    }
  }
  // Ends every wait, present and future, until Reset.
  void Stop() {
    state_.fetch_or(kStopped, std::memory_order_acq_rel);
    platform::WakeAll(state_);
  }
  void Reset() { state_.fetch_and(~kStopped, std::memory_order_acq_rel); }

 private:
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kContended = 2;  // someone may sleep waiting for it
  static constexpr uint32_t kStopped = 4;

  bool Take(bool even_if_stopped) {
    uint32_t seen = state_.load(std::memory_order_relaxed);
    // A thread that slept keeps the contended mark when it takes the lock: others may still sleep.
    uint32_t keep = 0;
    for (;;) {
      if ((seen & kStopped) != 0 && !even_if_stopped) return false;
      if ((seen & kHeld) == 0) {
        if (state_.compare_exchange_weak(seen, seen | kHeld | keep, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
          return true;
        }
        continue;
      }
      if ((seen & kContended) == 0 &&
          !state_.compare_exchange_weak(seen, seen | kContended, std::memory_order_relaxed)) {
        continue;
      }
      platform::WaitWhileEquals(state_, seen | kContended);
      keep = kContended;
      seen = state_.load(std::memory_order_relaxed);
    }
  }

  std::atomic<uint32_t> state_{0};
};

}  // namespace qv
