#include "platform/word_wait.h"

namespace qv::platform {

// The C++ library's own waits, which sleep in the system's after a short spin.
void WaitWhileEquals(std::atomic<uint32_t>& word, uint32_t expected) noexcept {
  word.wait(expected, std::memory_order_relaxed);
}

void WakeOne(std::atomic<uint32_t>& word) noexcept {
  word.notify_one();
}

void WakeAll(std::atomic<uint32_t>& word) noexcept {
  word.notify_all();
}

}  // namespace qv::platform
