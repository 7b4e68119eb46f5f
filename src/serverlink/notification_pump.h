#pragma once
// The notification thread: the read thread queues each decoded notification here, and one thread
// of the pump hands them, in arrival order, to the private client's notification entry. The
// thread takes what has queued up as one batch, which it first shows to the batch hook (so that
// whatever each notification needs sent back goes out in one write), then hands on one by one.
//
// The handler may drop the last reference to whatever owns the pump, so the pump may be destroyed
// on its own thread: it then detaches instead of joining itself, and the thread keeps the shared
// state alive until it has left its loop.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "serverlink/messages.h"

namespace qv {

class NotificationPump {
 public:
  using Handler = std::function<void(const std::shared_ptr<CNotification>&)>;
  using Batch = std::deque<std::shared_ptr<CNotification>>;
  using BatchHook = std::function<void(const Batch&)>;

  explicit NotificationPump(Handler handler, BatchHook before_batch = nullptr);
  NotificationPump(const NotificationPump&) = delete;
  NotificationPump& operator=(const NotificationPump&) = delete;
  ~NotificationPump();

  // Queues a notification, starting the thread on first use. False when the pump has stopped or
  // the thread or the queue entry cannot be had; the notification is then dropped.
  bool Push(std::shared_ptr<CNotification> notification);

  // Stops the thread after the notification it is handling; the rest of the queue and of its
  // batch is dropped.
  // Joins, except on the pump's own thread, where it detaches.
  void Stop();

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    Batch queue;                        // guarded by mutex
    std::atomic<bool> stopping{false};  // set under mutex; read by the thread between handlings
    Handler handler;
    BatchHook before_batch;
  };

  static void Run(const std::shared_ptr<State>& state);

  std::shared_ptr<State> state_;
  std::mutex thread_mutex_;
  std::thread thread_;  // guarded by thread_mutex_
};

}  // namespace qv
