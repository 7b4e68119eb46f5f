#include "server/core/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

namespace qv::server {
namespace {

using std::chrono::seconds;

// A job that waits must not hold up the next one: each gets a thread while the others are busy,
// and a thread that is free again takes the next job.
TEST(WorkerPoolTest, BusyThreadsDoNotHoldUpNewJobsAndFreeOnesAreReused) {
  WorkerPool pool;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> second_ran;
  ASSERT_TRUE(pool.Run([released] { released.wait(); }));
  ASSERT_TRUE(pool.Run([&] { second_ran.set_value(); }));
  EXPECT_EQ(second_ran.get_future().wait_for(seconds(5)), std::future_status::ready);
  release.set_value();

  std::atomic<int> ran{0};
  for (int i = 0; i < 50; ++i) {
    std::promise<void> done;
    ASSERT_TRUE(pool.Run([&] {
      ++ran;
      done.set_value();
    }));
    ASSERT_EQ(done.get_future().wait_for(seconds(5)), std::future_status::ready);
  }
  EXPECT_EQ(ran.load(), 50);
}

// Stop waits for the running job and refuses new ones; a throwing job does not end its thread.
TEST(WorkerPoolTest, StopWaitsForRunningJobsAndRefusesLaterOnes) {
  WorkerPool pool;
  std::atomic<bool> finished{false};
  std::promise<void> started;
  ASSERT_TRUE(pool.Run([] { throw std::runtime_error("job failed"); }));
  ASSERT_TRUE(pool.Run([&] {
    started.set_value();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    finished = true;
  }));
  started.get_future().wait();
  pool.Stop();
  EXPECT_TRUE(finished.load());
  EXPECT_FALSE(pool.Run([] {}));
}

}  // namespace
}  // namespace qv::server
