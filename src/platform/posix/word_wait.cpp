#include "platform/word_wait.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

namespace qv::platform {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex is a plain word");

namespace {

long Futex(std::atomic<uint32_t>& word, int operation, uint32_t value) noexcept {
  return syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), operation | FUTEX_PRIVATE_FLAG,
                 value, nullptr, nullptr, 0);
}

}  // namespace

void WaitWhileEquals(std::atomic<uint32_t>& word, uint32_t expected) noexcept {
  // EAGAIN (the word changed first) and EINTR both mean: look again.
  Futex(word, FUTEX_WAIT, expected);
}

void WakeOne(std::atomic<uint32_t>& word) noexcept {
  Futex(word, FUTEX_WAKE, 1);
}

void WakeAll(std::atomic<uint32_t>& word) noexcept {
  Futex(word, FUTEX_WAKE, INT_MAX);
}

}  // namespace qv::platform
