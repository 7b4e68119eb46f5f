#include "serverlink/notification_pump.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "requests/notifications.h"

namespace qv {
namespace {

std::shared_ptr<CNotification> Numbered(uint32_t n) {
  auto notification = std::make_shared<CDataReadyNotification>();
  notification->Count = n;
  return notification;
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
