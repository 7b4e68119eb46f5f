#include "platform/word_wait.h"

#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace qv::platform {
namespace {

// Sleepers park on one of a few slots, chosen by the word's address. Neither the system's address
// waits (Windows 8 and later, beyond the API level we build for) nor std::atomic's wait: the MinGW
// C++ library looks at the word and then sleeps on a condition variable whose notifier takes no
// lock, so a wake that falls between the two is lost and the sleeper sleeps for good. Here the
// look and the sleep are one step under the slot's lock, and a wake takes that lock first.
struct Slot {
  SRWLOCK lock = SRWLOCK_INIT;
  CONDITION_VARIABLE woken = CONDITION_VARIABLE_INIT;
};

Slot& SlotOf(const void* word) {
  static Slot slots[64];
  return slots[(reinterpret_cast<uintptr_t>(word) / alignof(std::max_align_t)) % 64];
}

// Wakes every sleeper of the slot, since sleepers on other words may share it: each looks again
// and sleeps again if its word has not changed.
void WakeSlot(const void* word) {
  Slot& slot = SlotOf(word);
  AcquireSRWLockExclusive(&slot.lock);
  ReleaseSRWLockExclusive(&slot.lock);
  WakeAllConditionVariable(&slot.woken);
}

}  // namespace

void WaitWhileEquals(std::atomic<uint32_t>& word, uint32_t expected) noexcept {
  Slot& slot = SlotOf(&word);
  AcquireSRWLockExclusive(&slot.lock);
  if (word.load(std::memory_order_relaxed) == expected) {
    SleepConditionVariableSRW(&slot.woken, &slot.lock, INFINITE, 0);
  }
  ReleaseSRWLockExclusive(&slot.lock);
}

void WakeOne(std::atomic<uint32_t>& word) noexcept {
  WakeSlot(&word);
}

void WakeAll(std::atomic<uint32_t>& word) noexcept {
  WakeSlot(&word);
}

}  // namespace qv::platform
