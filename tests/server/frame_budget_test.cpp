#include "server/core/frame_budget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

namespace qv::server {
namespace {

using std::chrono::seconds;
const auto kNever = [] { return false; };

// Bodies that fit go in at once; one that would pass the bound waits for a release; one larger
// than the bound goes in alone; a stop ends a wait without taking anything.
TEST(FrameBudgetTest, BoundsWhatIsHeldAndLetsALargerBodyInAlone) {
  FrameBudget budget(100);
  ASSERT_TRUE(budget.Acquire(60, kNever));
  ASSERT_TRUE(budget.Acquire(40, kNever));

  std::atomic<bool> stop{false};
  auto refused = std::async(std::launch::async,
                            [&] { return budget.Acquire(1, [&] { return stop.load(); }); });
  stop = true;
  EXPECT_FALSE(refused.get());
  EXPECT_EQ(budget.Held(), 100u);

  auto waiting = std::async(std::launch::async, [&] { return budget.Acquire(50, kNever); });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  { auto hold = budget.HoldUntilDropped(60); }
  ASSERT_EQ(waiting.wait_for(seconds(5)), std::future_status::ready);
  EXPECT_TRUE(waiting.get());
  EXPECT_EQ(budget.Held(), 90u);

  budget.Release(90);
  ASSERT_TRUE(budget.Acquire(250, kNever));
  EXPECT_EQ(budget.Held(), 250u);
}

}  // namespace
}  // namespace qv::server
