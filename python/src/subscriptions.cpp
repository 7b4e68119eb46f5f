#include "subscriptions.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>

#include "errors.h"
#include "event_objects.h"
#include "values.h"
#include "vekxapi/event_groups.h"
#include "vekxapi/event_sink.h"

namespace vekx_python {

namespace py = pybind11;

namespace {

// Set once at interpreter exit: from then on sinks return at once rather than wait for a GIL
// that a finalizing interpreter no longer hands out.
std::atomic<bool> g_exiting{false};

// The open subscriptions, for CloseAll. Guarded by g_open_mutex.
std::mutex g_open_mutex;
std::set<Subscription*> g_open;

}  // namespace

// Hands every event of every group to one Python callable.
class CallbackSink
    : public vekx::EventSink<IEventServer7, IEventTarget9, IEventConsoleOutput, IEventDebug4,
                             IEventCacheUpdate, IEventController2, IEventLowFreqFileCopy,
                             IEventHighFreqFileCopy, IEventTrickle2, IEventProcessLock,
                             IEventViewer, IEventGenericProtocol> {
 public:
  // Needs the GIL. `forward` false: the events are heard (for `on_target_added`) but the
  // callback does not get them.
  CallbackSink(py::object callback, std::optional<ULONG> target, bool forward = true,
               std::function<void(ULONG)> on_target_added = nullptr)
      : callback_(callback.release().ptr()),
        event_class_(
            py::object(py::module_::import("vekxapi._events").attr("Event")).release().ptr()),
        target_(target),
        forward_(forward),
        on_target_added_(std::move(on_target_added)) {}

#define VEKX_SINK_METHOD(Interface, Method, EventName)                    \
  HRESULT STDMETHODCALLTYPE Method(I##EventName##Event* event) override { \
    return Deliver(vekx::kSinkGroup<Interface>, #EventName, event);       \
  }
#include "vekxapi/event_sinks.def"

  // No callback starts after this.
  void Stop() {
    std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  // Waits up to `limit` until no callback of this sink runs but one on this very thread (a
  // callback that closes its own subscription). Call it without the GIL: a callback may be
  // waiting for it.
  void WaitIdle(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    const auto idle = [this] { return running_ == (t_delivering == this ? 1 : 0); };
    if (limit == std::chrono::milliseconds::max()) {
      idle_.wait(lock, idle);
    } else {
      idle_.wait_for(lock, limit, idle);
    }
  }
  // Drops the Python objects once no callback can be running. Needs the GIL.
  void Forget() {
    Py_CLEAR(callback_);
    Py_CLEAR(event_class_);
  }

 private:
  // The sink whose callback this thread runs, if any.
  static thread_local const CallbackSink* t_delivering;

  template <class Event>
  HRESULT Deliver(const char* group, const char* name, Event* event) noexcept {
    if (event == nullptr) return E_POINTER;
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return S_OK;
      ++running_;
    }
    const CallbackSink* outer = std::exchange(t_delivering, this);
    if constexpr (std::is_same_v<Event, ITargetAddedEvent>) {
      // Before the callback hears of the target, so that it hears of its events too.
      ULONG handle = 0;
      if (on_target_added_ && SUCCEEDED(event->get_Handle(&handle))) on_target_added_(handle);
    }
    const HRESULT result =
        !forward_ || g_exiting || !Py_IsInitialized() ? S_OK : Call(group, name, *event);
    t_delivering = outer;
    std::lock_guard lock(mutex_);
    --running_;
    idle_.notify_all();
    return result;
  }

  template <class Event>
  HRESULT Call(const char* group, const char* name, Event& event) noexcept {
    py::gil_scoped_acquire gil;
    if (callback_ == nullptr) return S_OK;
    try {
      py::object target = target_ ? py::object(py::int_(*target_)) : py::object(py::none());
      const py::handle make{event_class_};
      const py::handle call{callback_};
      call(make(std::string(vekx::EventGroupToolName(group)), name, target, PropertiesOf(event)));
    } catch (py::error_already_set& failure) {
      // Told, never lost and never fatal: sys.unraisablehook reports it.
      failure.discard_as_unraisable(py::reinterpret_borrow<py::object>(callback_));
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }

  PyObject* callback_;     // owned; read and cleared under the GIL only
  PyObject* event_class_;  // owned; likewise
  const std::optional<ULONG> target_;
  const bool forward_;
  const std::function<void(ULONG)> on_target_added_;  // runs on the notification thread
  std::mutex mutex_;                                  // guards stopped_ and running_
  std::condition_variable idle_;
  bool stopped_ = false;
  int running_ = 0;  // callbacks under way
};

thread_local const CallbackSink* CallbackSink::t_delivering = nullptr;

namespace {

const auto& kTargetGroups = vekx::kTargetEventGroups<CallbackSink>;
using TargetGroup = vekx::TargetEventGroup<CallbackSink>;

// The target with `handle` among the server's, or null. No Python: runs on the notification
// thread too.
vekx::ComPtr<ITarget> TargetWithHandle(IVEKXAPI12& api, ULONG handle) {
  vekx::Variant list;
  std::vector<vekx::ComPtr<ITarget>> targets;
  if (FAILED(api.get_Targets(list.Put())) ||
      FAILED(vekx::ArrayObjects(list.Get(), IID_ITarget, targets))) {
    return nullptr;
  }
  for (vekx::ComPtr<ITarget>& target : targets) {
    ULONG each = 0;
    if (SUCCEEDED(target->get_Handle(&each)) && each == handle) return std::move(target);
  }
  return nullptr;
}

}  // namespace

std::vector<std::string> GroupNames() {
  std::vector<std::string> names;
  // A channel's events come to the channel's own sink, not to subscriptions.
  for (const vekx::EventGroupName& group : vekx::kEventGroupNames)
    if (std::string_view(group.name) != "generic-protocol") names.emplace_back(group.name);
  return names;
}

Subscription::Subscription(IVEKXAPI12& api, const std::vector<vekx::ComPtr<ITarget>>& targets,
                           const std::vector<std::string>& groups, py::object callback)
    : api_(&api), callback_(callback) {
  if (!PyCallable_Check(callback.ptr()))
    Raise(Kind::kInvalidArgument, E_INVALIDARG, "the callback must be callable");
  const std::vector<std::string> known = GroupNames();
  for (const std::string& group : groups) {
    if (std::find(known.begin(), known.end(), group) == known.end())
      Raise(Kind::kInvalidArgument, E_INVALIDARG, "no event group '" + group + "'");
  }
  for (size_t i = 0; i < std::size(kTargetGroups); ++i) {
    const char* name = kTargetGroups[i].name;
    if (groups.empty() || std::find(groups.begin(), groups.end(), name) != groups.end())
      target_groups_.push_back(i);
  }
  const bool every_target = targets.empty();
  const bool server =
      groups.empty() || std::find(groups.begin(), groups.end(), "server") != groups.end();
  {
    std::lock_guard lock(g_open_mutex);
    g_open.insert(this);
  }
  try {
    // The server's group first: a target added from now on is covered when its event comes.
    if (server || (every_target && !target_groups_.empty())) {
      std::function<void(ULONG)> cover;
      if (every_target && !target_groups_.empty()) cover = [this](ULONG handle) { Cover(handle); };
      auto sink = vekx::MakeSink<CallbackSink>(callback, std::nullopt, server, std::move(cover));
      IEventServer* server_sink = static_cast<IEventServer*>(sink.Get());
      Unlocked([&] { return api.AdviseServerEvents(server_sink); });
      std::lock_guard lock(mutex_);
      AddLocked(sink,
                {[api = api_, server_sink] { return api->UnadviseServerEvents(server_sink); }});
    }
    std::vector<vekx::ComPtr<ITarget>> covering = targets;
    if (every_target && !target_groups_.empty()) {
      vekx::Variant list;
      Unlocked([&] { return api.get_Targets(list.Put()); });
      covering = Library::Objects<ITarget>(list.Get(), IID_ITarget);
    }
    for (const vekx::ComPtr<ITarget>& target : covering) {
      const ULONG handle = Get(*target.Get(), &ITarget::get_Handle);
      {
        std::lock_guard lock(mutex_);
        if (!covered_.insert(handle).second) continue;  // covered already, as it was added
      }
      auto sink = vekx::MakeSink<CallbackSink>(callback, handle);
      std::vector<std::function<HRESULT()>> undo;
      for (const size_t index : target_groups_) {
        const TargetGroup* group = &kTargetGroups[index];
        const HRESULT hr =
            WithoutGil([&] { return group->subscribe(*target.Get(), *sink.Get(), true); });
        if (FAILED(hr)) {
          std::lock_guard lock(mutex_);
          AddLocked(sink, std::move(undo));
          Check(hr);
        }
        undo.push_back(
            [target, sink, group] { return group->subscribe(*target.Get(), *sink.Get(), false); });
      }
      std::lock_guard lock(mutex_);
      AddLocked(sink, std::move(undo));
    }
  } catch (...) {
    Close();
    throw;
  }
}

void Subscription::Cover(ULONG handle) noexcept {
  // On the notification thread, inside the server sink's delivery: Close waits for it to end.
  try {
    {
      std::lock_guard lock(mutex_);
      if (closed_ || !covered_.insert(handle).second) return;
    }
    vekx::ComPtr<ITarget> target = TargetWithHandle(*api_.Get(), handle);
    if (!target || g_exiting) return;
    vekx::ComPtr<CallbackSink> sink;
    {
      py::gil_scoped_acquire gil;
      if (callback_.is_none()) return;  // closed meanwhile
      sink = vekx::MakeSink<CallbackSink>(callback_, handle);
    }
    std::vector<std::function<HRESULT()>> undo;
    for (const size_t index : target_groups_) {
      const TargetGroup* group = &kTargetGroups[index];
      if (SUCCEEDED(group->subscribe(*target.Get(), *sink.Get(), true))) {
        undo.push_back(
            [target, sink, group] { return group->subscribe(*target.Get(), *sink.Get(), false); });
      }
    }
    {
      std::lock_guard lock(mutex_);
      if (!closed_) {
        AddLocked(sink, std::move(undo));
        return;
      }
    }
    // Closed while the target was being subscribed: undone here, as Close would have.
    sink->Stop();
    for (const auto& step : undo)
      step();
    sink->WaitIdle(std::chrono::milliseconds::max());
    py::gil_scoped_acquire gil;
    sink->Forget();
  } catch (...) {
    // A target that cannot be covered is left out; the subscription goes on.
  }
}

Subscription::~Subscription() {
  Close();
}

void Subscription::AddLocked(vekx::ComPtr<CallbackSink> sink,
                             std::vector<std::function<HRESULT()>> undo) {
  sinks_.push_back(std::move(sink));
  for (auto& step : undo)
    undo_.push_back(std::move(step));
}

void Subscription::Close() {
  CloseWaiting(std::chrono::milliseconds::max());
}

void Subscription::CloseWaiting(std::chrono::milliseconds wait) {
  {
    std::lock_guard lock(g_open_mutex);
    g_open.erase(this);
  }
  std::vector<vekx::ComPtr<CallbackSink>> sinks;
  std::vector<std::function<HRESULT()>> undo;
  {
    // From here on a target being covered undoes itself.
    std::lock_guard lock(mutex_);
    closed_ = true;
    sinks.swap(sinks_);
    undo.swap(undo_);
  }
  for (const auto& sink : sinks)
    sink->Stop();
  WithoutGil([&] {
    // A failure no longer matters: no callback starts after Stop.
    for (const auto& step : undo)
      step();
    // A callback under way holds the callable, and must end before Python does.
    for (const auto& sink : sinks)
      sink->WaitIdle(wait);
  });
  for (const auto& sink : sinks)
    sink->Forget();
  callback_ = py::none();
}

void Subscription::CloseAll() {
  g_exiting = true;
  std::set<Subscription*> open;
  {
    std::lock_guard lock(g_open_mutex);
    open.swap(g_open);
  }
  // A callback that does not end within this is left to Python's own ending.
  for (Subscription* each : open)
    each->CloseWaiting(std::chrono::seconds(10));
}

}  // namespace vekx_python
