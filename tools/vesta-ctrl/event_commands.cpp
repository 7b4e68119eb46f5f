// events [TARGET] [--group G...]: every event the library delivers, one line each, until Ctrl+C.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "commands.h"
#include "event_properties.h"
#include "failure.h"
#include "interruption.h"
#include "target_resolution.h"
#include "target_view.h"
#include "vekxapi/event_groups.h"
#include "vekxapi/event_sink.h"

namespace vesta_ctrl {
namespace {

// A target as an event line names it.
struct TargetLabel {
  uint32_t handle = 0;
  std::optional<std::string> name;
};

// The time of arrival: local time for people, UTC in ISO 8601 for scripts.
std::string Now(bool utc) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  // Called under the printer's lock only, so the shared buffer of gmtime/localtime is not raced.
  const std::tm* parts = utc ? std::gmtime(&seconds) : std::localtime(&seconds);
  char text[40] = "";
  if (parts != nullptr)
    std::strftime(text, sizeof text, utc ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", parts);
  char result[48];
  std::snprintf(result, sizeof result, utc ? "%s.%03dZ" : "%s.%03d", text,
                static_cast<int>(milliseconds));
  return result;
}

// Lines from the library's notification thread, one at a time, each flushed as it is written.
class EventPrinter {
 public:
  EventPrinter(std::ostream& out, bool json) : out_(out), json_(json) {}

  void Print(const std::optional<TargetLabel>& target, std::string_view group,
             std::string_view method, const Properties& properties) {
    std::lock_guard lock(mutex_);
    if (json_) {
      nlohmann::ordered_json line = {{"time", Now(true)}, {"group", group}, {"target", nullptr}};
      if (target) {
        line["target"] = {{"handle", target->handle}, {"name", nullptr}};
        if (target->name) line["target"]["name"] = *target->name;
      }
      line["event"] = method;
      line["properties"] = properties;
      out_ << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
      return;
    }
    out_ << Now(false) << "  ";
    if (target) {
      out_ << target->handle;
      if (target->name) out_ << " (" << *target->name << ')';
    } else {
      out_ << "server";
    }
    out_ << "  " << method;
    for (const auto& [name, value] : properties.items()) {
      out_ << ' ' << name << '='
           << value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
    out_ << std::endl;
  }

 private:
  // Guards out_: sinks print from the library's notification thread, and nothing here
  // depends on there being only one.
  std::mutex mutex_;
  std::ostream& out_;
  const bool json_;
};

// The groups by the names `--group` takes and the output prints, with the library's name.
// Prints every event of every group; one for the server, one per target. The server's may also
// tell of targets added while the command runs, and may be quiet when its group was not asked for.
class PrintingSink
    : public vekx::EventSink<IEventServer7, IEventTarget9, IEventConsoleOutput, IEventDebug4,
                             IEventCacheUpdate, IEventController2, IEventLowFreqFileCopy,
                             IEventHighFreqFileCopy, IEventTrickle2, IEventProcessLock,
                             IEventViewer, IEventGenericProtocol> {
 public:
  using TargetAdded = std::function<void(ULONG handle)>;

  PrintingSink(EventPrinter& printer, std::optional<TargetLabel> target, bool print = true,
               TargetAdded target_added = {})
      : printer_(printer),
        target_(std::move(target)),
        print_(print),
        target_added_(std::move(target_added)) {}

#define VEKX_SINK_METHOD(Interface, Method, EventName)                    \
  HRESULT STDMETHODCALLTYPE Method(I##EventName##Event* event) override { \
    return Print(vekx::kSinkGroup<Interface>, #Method, event);            \
  }
#include "vekxapi/event_sinks.def"

 private:
  template <class Event>
  HRESULT Print(std::string_view group, const char* method, Event* event) noexcept {
    if (event == nullptr) return E_POINTER;
    // Called by the library: nothing may escape (out of memory, say).
    try {
      if (print_)
        printer_.Print(target_, vekx::EventGroupToolName(group), method, ReadProperties(*event));
      if constexpr (std::is_same_v<Event, ITargetAddedEvent>) {
        ULONG handle = 0;
        if (target_added_ && event->get_Handle(&handle) == S_OK) target_added_(handle);
      }
      return S_OK;
    } catch (...) {
      return E_FAIL;
    }
  }

  EventPrinter& printer_;
  const std::optional<TargetLabel> target_;
  const bool print_;
  const TargetAdded target_added_;
};

std::vector<std::string> CheckedGroups(const std::vector<std::string>& groups) {
  std::string known;
  for (const vekx::EventGroupName& group : vekx::kEventGroupNames) {
    if (std::string_view(group.name) == "generic-protocol") continue;
    known += known.empty() ? "" : ", ";
    known += group.name;
  }
  for (const std::string& group : groups) {
    const bool listed =
        std::any_of(std::begin(vekx::kEventGroupNames), std::end(vekx::kEventGroupNames),
                    [&](const vekx::EventGroupName& g) { return group == g.name; });
    if (!listed || group == "generic-protocol") {
      throw UsageError("GROUP must be one of " + known + ", not '" + group + "'");
    }
  }
  return groups;
}

// What `events` has subscribed to, undone in the order it was done. Targets added while the
// command runs are subscribed to from the library's notification thread.
class Subscriptions {
 public:
  Subscriptions(EventPrinter& printer, std::function<bool(std::string_view)> want)
      : printer_(printer), want_(std::move(want)) {}
  Subscriptions(const Subscriptions&) = delete;
  Subscriptions& operator=(const Subscriptions&) = delete;
  ~Subscriptions() {
    std::vector<std::function<void()>> undo;
    {
      std::lock_guard lock(mutex_);
      ended_ = true;
      undo.swap(undo_);
    }
    // Not under the lock: an unadvise waits for a sink call in progress, which may be adding a
    // target. Failures no longer matter: the tool is ending.
    for (const auto& step : undo)
      step();
  }

  void AddServer(IVEKXAPI12& api, bool print, PrintingSink::TargetAdded target_added) {
    auto sink = vekx::MakeSink<PrintingSink>(printer_, std::nullopt, print, target_added);
    Check(api.AdviseServerEvents(static_cast<IEventServer*>(sink.Get())));
    Remember([&api, sink] { api.UnadviseServerEvents(static_cast<IEventServer*>(sink.Get())); });
  }

  // Subscribes to the wanted groups of `target`, once per target however often it is named.
  void AddTarget(const vekx::ComPtr<ITarget>& target) {
    const TargetView view = ReadTargetView(*target.Get());
    {
      std::lock_guard lock(mutex_);
      if (std::find(handles_.begin(), handles_.end(), view.handle) != handles_.end()) return;
      handles_.push_back(view.handle);
    }
    auto sink = vekx::MakeSink<PrintingSink>(printer_, TargetLabel{view.handle, view.name.value});
    for (const auto& group : vekx::kTargetEventGroups<PrintingSink>) {
      if (!want_(group.name)) continue;
      Check(group.subscribe(*target.Get(), *sink.Get(), true));
      Remember([target, sink, &group] { group.subscribe(*target.Get(), *sink.Get(), false); });
    }
  }

 private:
  // Keeps `undo` for the end, or runs it now if the end has come while it was being done.
  void Remember(std::function<void()> undo) {
    {
      std::lock_guard lock(mutex_);
      if (!ended_) {
        undo_.push_back(std::move(undo));
        return;
      }
    }
    undo();
  }

  EventPrinter& printer_;
  const std::function<bool(std::string_view)> want_;
  std::mutex mutex_;
  bool ended_ = false;                       // guarded by mutex_
  std::vector<uint32_t> handles_;            // guarded by mutex_
  std::vector<std::function<void()>> undo_;  // guarded by mutex_
};

void Events(Context& context, const std::optional<std::string>& spec,
            const std::vector<std::string>& wanted) {
  const std::vector<std::string> groups = CheckedGroups(wanted);
  auto want = [groups](std::string_view group) {
    return groups.empty() || std::find(groups.begin(), groups.end(), group) != groups.end();
  };
  const Interruption interruption;
  IVEKXAPI12& api = context.session.Api();
  EventPrinter printer(context.out, context.json);
  Subscriptions subscriptions(printer, want);

  if (spec) {
    // That target's groups, and the server's when asked for by name.
    if (!groups.empty() && want("server")) subscriptions.AddServer(api, true, {});
    subscriptions.AddTarget(ResolveTarget(api, *spec));
  } else {
    // The server's group (heard even when not printed, for the targets it adds) and every
    // target's: those the server knows now and those added while the command runs.
    subscriptions.AddServer(api, want("server"), [&api, &subscriptions](ULONG handle) {
      // On the library's notification thread: a failure is told, never thrown.
      try {
        subscriptions.AddTarget(ResolveTarget(api, std::to_string(handle)));
      } catch (const std::exception& failure) {
        std::fprintf(stderr, "vesta-ctrl: target %lu: %s\n", static_cast<unsigned long>(handle),
                     failure.what());
      }
    });
    for (const vekx::ComPtr<ITarget>& target : ListTargets(api))
      subscriptions.AddTarget(target);
  }
  if (StandardErrorIsTerminal()) std::fputs("Watching events; Ctrl+C ends.\n", stderr);
  interruption.Wait();
}

}  // namespace

void AddEventCommands(CLI::App& app, Context& context) {
  auto spec = std::make_shared<std::string>();
  auto groups = std::make_shared<std::vector<std::string>>();
  CLI::App* events = app.add_subcommand(
      "events",
      "Print every event as it arrives until Ctrl+C: without TARGET the server's and every "
      "target's, with TARGET that target's");
  CLI::Option* target = events->add_option("TARGET", *spec, "Handle, host name or name");
  events
      ->add_option("--group", *groups,
                   "Only these groups: server, target, console, debug, cache-update, "
                   "controller, low-freq-file-copy, high-freq-file-copy, trickle, "
                   "process-lock, viewer (repeat it, or separate with commas)")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->delimiter(',');
  events->callback([&context, spec, groups, target] {
    Events(context, target->count() > 0 ? std::optional(*spec) : std::nullopt, *groups);
  });
}

}  // namespace vesta_ctrl
