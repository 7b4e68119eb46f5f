// Waits on a word: two threads that hand a turn back and forth, each sleeping until the other's
// change, so that every round is a wait that a lost wake would leave asleep for good.
#include "platform/word_wait.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/test_environment.h"

namespace qv::platform {
namespace {

TEST(WordWaitTest, ATurnHandedBackAndForthIsNeverLost) {
  constexpr uint32_t kRounds = 50000;
  constexpr uint32_t kGiveUp = 0x80000000;  // set by the watchdog: every player leaves
  std::atomic<uint32_t> turn{0};
  const auto play = [&](uint32_t parity) {
    for (;;) {
      uint32_t seen = turn.load();
      while (seen < kGiveUp && seen % 2 != parity) {
        WaitWhileEquals(turn, seen);
        seen = turn.load();
      }
      if (seen >= kRounds) return;
      turn.store(seen + 1);
      WakeOne(turn);
    }
  };
  std::thread even(play, 0u);
  std::thread odd(play, 1u);
  testing::WaitUntil([&] { return turn.load() >= kRounds; });
  const uint32_t reached = turn.load();
  turn.fetch_or(kGiveUp);
  WakeAll(turn);
  even.join();
  odd.join();
  EXPECT_GE(reached, kRounds) << "both players asleep at the deadline";
}

}  // namespace
}  // namespace qv::platform
