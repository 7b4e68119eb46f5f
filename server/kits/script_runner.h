#pragma once
// Runs the kits' scripts on a timer thread of its own: each started script waits its own
// `after_ms`, then sends its steps in order, each `after_ms` after the one before (and each repeat
// after the last), and does so again for each of its rounds. The repeats of a step that are due
// together (`after_ms` 0) go to `send` together, up to kMaxTogether at a time, so that a burst
// costs its receiver one turn rather than one per piece.
//
// Lock order: a caller may hold its own lock while it calls Start; the runner never holds its
// lock while it calls `send`, so `send` may take that caller's lock.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "server/kits/scenario.h"

namespace qv::server {

class ScriptRunner {
 public:
  // Sends `count` sendings of one step of the script of the kit with host name `host`, in order;
  // `first` counts the first of them among the step's sendings from 0.
  using Send = std::function<void(const std::u16string& host, const ScriptStep& step,
                                  uint32_t first, uint32_t count)>;
  static constexpr uint32_t kMaxTogether = 64;

  explicit ScriptRunner(Send send);
  ~ScriptRunner();
  ScriptRunner(const ScriptRunner&) = delete;
  ScriptRunner& operator=(const ScriptRunner&) = delete;

  // Starts `script` of the kit `host` now; `script` must outlive the runner.
  void Start(const std::u16string& host, const KitScript& script);
  // Ends every script at once; nothing is sent after it returns.
  void Stop();

 private:
  using Clock = std::chrono::steady_clock;
  struct Running {
    std::u16string host;
    const KitScript* script;
    size_t step = 0;
    uint32_t sent = 0;   // of the current step's repeats
    uint32_t round = 0;  // of the script's rounds
    Clock::time_point due;
  };

  void Loop();

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;         // guarded by mutex_
  std::vector<Running> running_;  // guarded by mutex_
  const Send send_;
  std::thread thread_;  // guarded by mutex_; started by the first Start
};

}  // namespace qv::server
