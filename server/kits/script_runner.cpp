#include "server/kits/script_runner.h"

#include <algorithm>
#include <exception>

namespace qv::server {

ScriptRunner::ScriptRunner(Send send) : send_(std::move(send)) {}

ScriptRunner::~ScriptRunner() {
  Stop();
}

void ScriptRunner::Start(const std::u16string& host, const KitScript& script) {
  std::lock_guard lock(mutex_);
  if (stopping_ || script.steps.empty()) return;
  running_.push_back({host, &script, 0, 0, 0,
                      Clock::now() + std::chrono::milliseconds(script.after_ms) +
                          std::chrono::milliseconds(script.steps[0].after_ms)});
  // The thread starts with the first script: most servers (and every registry in the unit tests
  // and the fuzzer) have none.
  if (!thread_.joinable()) thread_ = std::thread([this] { Loop(); });
  wake_.notify_all();
}

void ScriptRunner::Stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
  }
  // Start makes the thread under the lock, and nothing starts once stopping_ is set.
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
}

void ScriptRunner::Loop() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (running_.empty()) {
      wake_.wait(lock);
      continue;
    }
    const auto next =
        std::min_element(running_.begin(), running_.end(),
                         [](const Running& a, const Running& b) { return a.due < b.due; });
    if (next->due > Clock::now()) {
      // A copy: the wait lets Start add scripts, which may move the entries.
      const Clock::time_point due = next->due;
      wake_.wait_until(lock, due);
      continue;
    }
    const std::u16string host = next->host;
    const ScriptStep& step = next->script->steps[next->step];
    const uint32_t first = next->sent;
    const uint32_t count = step.after_ms == 0 ? std::min(step.repeat - first, kMaxTogether) : 1;
    // Move on before sending, so that the entry is consistent whatever Start does meanwhile.
    next->sent += count;
    if (next->sent == step.repeat) {
      next->sent = 0;
      ++next->step;
    }
    if (next->step == next->script->steps.size() && ++next->round < next->script->repeat)
      next->step = 0;
    if (next->step == next->script->steps.size()) {
      running_.erase(next);
    } else {
      next->due += std::chrono::milliseconds(next->script->steps[next->step].after_ms);
    }
    lock.unlock();
    try {
      send_(host, step, first, count);
    } catch (const std::exception&) {
      // Only memory running out gets here: that step is lost, the script goes on.
    }
    lock.lock();
  }
}

}  // namespace qv::server
