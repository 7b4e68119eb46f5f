#include "serverlink/stoppable_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/test_environment.h"

namespace qv {
namespace {

// Threads that pass the lock among themselves, the holder yielding so that the others find it
// held and sleep: a lost wake leaves them asleep for good. A watchdog stops the lock at a deadline
// so that such a fault fails the test instead of hanging it.
TEST(StoppableLockTest, ContendedTakingsAllGoThroughAndNoWakeIsLost) {
  constexpr int kThreads = 4;
  constexpr int kTakings = 5000;
  StoppableLock lock;
  long counted = 0;  // guarded by the lock alone
  std::atomic<int> finished{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kTakings && lock.Lock(); ++i) {
        ++counted;
        std::this_thread::yield();
        lock.Unlock();
      }
      finished.fetch_add(1);
    });
  }
  const bool in_time = testing::WaitUntil([&] { return finished.load() == kThreads; });
  lock.Stop();  // ends the waits of a failed run; a taking still in progress is refused
  for (auto& thread : threads)
    thread.join();
  EXPECT_TRUE(in_time) << "takers still asleep at the deadline";
  EXPECT_EQ(counted, long{kThreads} * kTakings);
}

}  // namespace
}  // namespace qv
