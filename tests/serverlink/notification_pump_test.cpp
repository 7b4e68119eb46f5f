#include "serverlink/notification_pump.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "requests/notifications.h"

namespace qv {
namespace {

std::shared_ptr<CNotification> Numbered(uint32_t n) {
  auto notification = std::make_shared<CDataReadyNotification>();
  notification->Count = n;
  return notification;
}

uint32_t NumberOf(const std::shared_ptr<CNotification>& notification) {
  return static_cast<const CDataReadyNotification&>(*notification).Count;
}

// The library acknowledges console output in the batch hook: it must see every notification once,
// in order, before the handler is handed it.
TEST(NotificationPumpTest, TheBatchHookSeesEachNotificationOnceBeforeItsHandling) {
  constexpr uint32_t kCount = 500;
  std::vector<uint32_t> handled, hooked;
  std::promise<void> all_handled;
  NotificationPump pump(
      [&](const std::shared_ptr<CNotification>& notification) {
        handled.push_back(NumberOf(notification));
        EXPECT_GT(hooked.size(), handled.back());
        if (handled.size() == kCount) all_handled.set_value();
      },
      [&](const NotificationPump::Batch& batch) {
        for (const auto& notification : batch)
          hooked.push_back(NumberOf(notification));
      });
  for (uint32_t i = 0; i < kCount; ++i)
    ASSERT_TRUE(pump.Push(Numbered(i)));
  ASSERT_EQ(all_handled.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  pump.Stop();
  EXPECT_EQ(hooked, handled);
  EXPECT_EQ(handled.front(), 0u);
  EXPECT_EQ(handled.back(), kCount - 1);
}

// Order of delivery and the handler's own thread are the live-events tests' (a sink hears every
// piece of console output in order; the notification thread is held while calls go on).
TEST(NotificationPumpTest, StopWaitsForTheHandlerAndDropsTheRest) {
  std::promise<void> entered;
  std::promise<void> release;
  auto released = release.get_future().share();
  int handled = 0;
  NotificationPump pump([&](const std::shared_ptr<CNotification>&) {
    if (++handled == 1) {
      entered.set_value();
      released.wait();
    }
  });
  ASSERT_TRUE(pump.Push(Numbered(1)));
  ASSERT_TRUE(pump.Push(Numbered(2)));
  ASSERT_EQ(entered.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  // The handler is let go only once the pump refuses new work, that is once Stop has begun.
  std::thread releaser([&] {
    while (pump.Push(Numbered(9)))
      std::this_thread::yield();
    release.set_value();
  });
  pump.Stop();  // returns once the first handler has finished
  releaser.join();
  EXPECT_EQ(handled, 1);
  EXPECT_FALSE(pump.Push(Numbered(0)));  // stopped for good
}

}  // namespace
}  // namespace qv
