#pragma once
// Sleeping until another thread changes a 32-bit word. On Linux through the futex itself, with
// none of the spinning and yielding that std::atomic's wait does first, which on a busy CPU only
// holds up the thread that would change the word; on Windows through a condition variable that
// a few words share.

#include <atomic>
#include <cstdint>

namespace qv::platform {

// Sleeps while `word` holds `expected`. May return without a change: the caller looks again.
void WaitWhileEquals(std::atomic<uint32_t>& word, uint32_t expected) noexcept;
// Wakes one, or every, thread sleeping on `word`.
void WakeOne(std::atomic<uint32_t>& word) noexcept;
void WakeAll(std::atomic<uint32_t>& word) noexcept;

}  // namespace qv::platform
