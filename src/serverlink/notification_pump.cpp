#include "serverlink/notification_pump.h"

#include <exception>
#include <system_error>

namespace qv {

NotificationPump::NotificationPump(Handler handler, BatchHook before_batch)
    : state_(std::make_shared<State>()) {
  state_->handler = std::move(handler);
  state_->before_batch = std::move(before_batch);
}

NotificationPump::~NotificationPump() {
  Stop();
}

bool NotificationPump::Push(std::shared_ptr<CNotification> notification) {
  // Once the entry is queued the handler may destroy this pump, so only the shared state is
  // touched after the locks are released.
  const std::shared_ptr<State> state = state_;
  {
    std::lock_guard thread_lock(thread_mutex_);
    std::lock_guard lock(state->mutex);
    if (state->stopping) return false;
    try {
      if (!thread_.joinable()) thread_ = std::thread(&NotificationPump::Run, state);
      state->queue.push_back(std::move(notification));
    } catch (const std::exception&) {
      return false;
    }
  }
  state->wake.notify_one();
  return true;
}

void NotificationPump::Stop() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    state_->queue.clear();
  }
  state_->wake.notify_one();
  // Joined without holding a lock that Push takes: the handler may be waiting for something the
  // read thread still has to deliver.
  std::thread thread;
  {
    std::lock_guard thread_lock(thread_mutex_);
    thread = std::move(thread_);
  }
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

void NotificationPump::Run(const std::shared_ptr<State>& state) {
  // Swapped with the queue, so that taking a batch allocates nothing.
  Batch batch;
  for (;;) {
    {
      std::unique_lock lock(state->mutex);
      state->wake.wait(lock, [&] { return state->stopping || !state->queue.empty(); });
      if (state->stopping) return;
      batch.swap(state->queue);
    }
    if (state->before_batch) state->before_batch(batch);
    for (std::shared_ptr<CNotification>& next : batch) {
      if (state->stopping) return;
      state->handler(next);
      next.reset();
    }
    batch.clear();
  }
}

}  // namespace qv
