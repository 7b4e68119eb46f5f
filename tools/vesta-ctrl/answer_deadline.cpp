#include "answer_deadline.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "failure.h"

namespace vesta_ctrl {
namespace {

using Clock = std::chrono::steady_clock;

// Never destroyed: the watcher thread may still wait on it while the process exits.
struct Watch {
  std::mutex mutex;
  std::condition_variable changed;
  Clock::duration limit{};
  Clock::time_point started;  // of the current stretch of waiting on the library
  int pauses = 0;
  std::string message;
  bool json = false;
};

Watch* g_watch = nullptr;

[[noreturn]] void GiveUp(const Watch& watch) {
  std::fprintf(stderr, "vesta-ctrl: %s\n", watch.message.c_str());
  if (watch.json) {
    std::fflush(stdout);
    std::printf("{\"error\":{\"code\":null,\"message\":\"%s\"}}\n", watch.message.c_str());
  }
  std::fflush(nullptr);
  // The main thread is blocked inside the library: nothing can unwind it, so the process ends
  // here without running destructors that would wait for the server.
  std::_Exit(1);
}

void WatchLoop(Watch& watch) {
  std::unique_lock lock(watch.mutex);
  for (;;) {
    if (watch.pauses > 0) {
      watch.changed.wait(lock);
      continue;
    }
    const Clock::time_point deadline = watch.started + watch.limit;
    if (Clock::now() >= deadline) GiveUp(watch);
    watch.changed.wait_until(lock, deadline);
  }
}

}  // namespace

void StartAnswerDeadline(double seconds, const std::string& text, bool json) {
  if (g_watch != nullptr) return;
  auto* watch = new Watch;
  watch->limit =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  watch->started = Clock::now();
  watch->message = "the server did not answer within " + text + " s";
  watch->json = json;
  g_watch = watch;
  std::thread(WatchLoop, std::ref(*watch)).detach();
}

void AnswerArrived() {
  if (g_watch == nullptr) return;
  std::lock_guard lock(g_watch->mutex);
  g_watch->started = Clock::now();
  g_watch->changed.notify_all();
}

AnswerDeadlinePause::AnswerDeadlinePause() {
  if (g_watch == nullptr) return;
  std::lock_guard lock(g_watch->mutex);
  ++g_watch->pauses;
  g_watch->changed.notify_all();
}

AnswerDeadlinePause::~AnswerDeadlinePause() {
  if (g_watch == nullptr) return;
  std::lock_guard lock(g_watch->mutex);
  if (--g_watch->pauses == 0) g_watch->started = Clock::now();
  g_watch->changed.notify_all();
}

double ParseSeconds(const std::string& option, const std::string& text) {
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(seconds > 0 && seconds <= 86400))
    throw UsageError(option + " must be a number of seconds above 0 and up to 86400, not '" + text +
                     "'");
  return seconds;
}

}  // namespace vesta_ctrl
