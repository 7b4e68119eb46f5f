#include "process_watch.h"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "answer_deadline.h"
#include "debug_commands.h"
#include "debug_values.h"
#include "enum_names.h"
#include "vekxapi/event_sink.h"

namespace vesta_ctrl {

using Json = nlohmann::ordered_json;

// Keeps the first event of the watched process. The library calls it on its notification
// thread; nothing may escape from there.
class ProcessWatch::Sink : public vekx::EventSink<IEventDebug> {
 public:
  explicit Sink(std::uint32_t pid) : pid_(pid) {}

  HRESULT STDMETHODCALLTYPE OnStopNotification(IStopNotificationEvent* event) override {
    return Guarded(event, [&] { return StopOf(*event); });
  }
  HRESULT STDMETHODCALLTYPE OnProcessExit(IProcessExitEvent* event) override {
    return Guarded(event, [&]() -> std::optional<Json> {
      if (Read(*event, &IProcessExitEvent::get_ProcessId) != pid_) return std::nullopt;
      return Json{{"event", "exit"},
                  {"pid", pid_},
                  {"exit_code", Read(*event, &IProcessExitEvent::get_ExitCode)}};
    });
  }
  HRESULT STDMETHODCALLTYPE OnProcessKill(IProcessKillEvent* event) override {
    return Guarded(event, [&]() -> std::optional<Json> {
      if (Read(*event, &IProcessKillEvent::get_ProcessId) != pid_) return std::nullopt;
      return Json{{"event", "kill"}, {"pid", pid_}};
    });
  }

  std::optional<Json> Wait(std::chrono::milliseconds timeout) {
    const AnswerDeadlinePause waiting_for_events;
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [this] { return outcome_.has_value(); });
    return outcome_;
  }

 private:
  template <class Event, class Describe>
  HRESULT Guarded(Event* event, Describe describe) noexcept {
    if (event == nullptr) return E_POINTER;
    try {
      std::optional<Json> outcome = describe();
      if (!outcome) return S_OK;
      std::lock_guard lock(mutex_);
      if (!outcome_) outcome_ = std::move(outcome);
      changed_.notify_all();
      return S_OK;
    } catch (...) {
      return E_FAIL;
    }
  }

  // The stop, with the reason and rip of the thread that stopped as the stop's own list of
  // threads gives them; the process's reason when that list lacks the thread.
  std::optional<Json> StopOf(IStopNotificationEvent& event) const {
    const auto stop = Read(event, &IStopNotificationEvent::get_StopNotification);
    if (!stop) return std::nullopt;
    const auto process = Read(*stop.Get(), &IStopNotification::get_ProcessInfo);
    if (!process || Read(*process.Get(), &IProcessInfo::get_Id) != pid_) return std::nullopt;
    const std::uint32_t tid = Read(*stop.Get(), &IStopNotification::get_ThreadId);
    Json reason = StopReasonJson(Read(*process.Get(), &IProcessInfo::get_StopReason));
    Json rip = nullptr;
    const vekx::Variant threads = Read(*stop.Get(), &IStopNotification::get_Threads);
    for (const auto& thread : ObjectsOf<IThreadInfo2>(threads.Get(), IID_IThreadInfo2)) {
      if (Read(*thread.Get(), &IThreadInfo::get_Id) != tid) continue;
      rip = Hex(Read(*thread.Get(), &IThreadInfo2::get_RIP));
      if (Json own = StopReasonJson(Read(*thread.Get(), &IThreadInfo::get_StopReason));
          !own.is_null()) {
        reason = std::move(own);
      }
      break;
    }
    return Json{{"event", "stop"},
                {"pid", pid_},
                {"tid", tid},
                {"reason", reason.is_null() ? Json(nullptr) : reason["code"]},
                {"reason_name", reason.is_null() ? Json(nullptr) : reason["name"]},
                {"rip", rip}};
  }

  const std::uint32_t pid_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Json> outcome_;  // guarded by mutex_
};

ProcessWatch::ProcessWatch(vekx::ComPtr<ITarget> target, std::uint32_t pid)
    : target_(std::move(target)), sink_(vekx::MakeSink<Sink>(pid)) {
  Check(target_->AdviseDebugEvents(static_cast<IEventDebug*>(sink_.Get())));
}

ProcessWatch::~ProcessWatch() {
  // A failure no longer matters: the command is ending.
  target_->UnadviseDebugEvents(static_cast<IEventDebug*>(sink_.Get()));
}

std::optional<nlohmann::ordered_json> ProcessWatch::Wait(std::chrono::milliseconds timeout) {
  return sink_->Wait(timeout);
}

}  // namespace vesta_ctrl
