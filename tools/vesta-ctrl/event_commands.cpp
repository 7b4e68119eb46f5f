// events [TARGET] [--group G...]: every event the library delivers, one line each, until Ctrl+C.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands.h"
#include "event_properties.h"
#include "failure.h"
#include "interruption.h"
#include "target_resolution.h"
#include "target_view.h"
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
struct GroupName {
  const char* name;
  const char* library_name;
};
constexpr GroupName kGroupNames[] = {
    {"server", "Server"},
    {"target", "Target"},
    {"console", "ConsoleOutput"},
    {"debug", "Debug"},
    {"cache-update", "CacheUpdate"},
    {"controller", "Controller"},
    {"low-freq-file-copy", "LowFreqFileCopy"},
    {"high-freq-file-copy", "HighFreqFileCopy"},
    {"trickle", "Trickle"},
    {"process-lock", "ProcessLock"},
    {"viewer", "Viewer"},
    // Its events belong to a channel a tool opens itself; `events` cannot subscribe to it.
    {"generic-protocol", "GenericProtocol"},
};

std::string_view ToolGroupName(std::string_view library_name) {
  for (const GroupName& group : kGroupNames) {
    if (library_name == group.library_name) return group.name;
  }
  return library_name;
}

// Prints every event of every group; one for the server, one per target.
class PrintingSink
    : public vekx::EventSink<IEventServer7, IEventTarget9, IEventConsoleOutput, IEventDebug4,
                             IEventCacheUpdate, IEventController2, IEventLowFreqFileCopy,
                             IEventHighFreqFileCopy, IEventTrickle2, IEventProcessLock,
                             IEventViewer, IEventGenericProtocol> {
 public:
  PrintingSink(EventPrinter& printer, std::optional<TargetLabel> target)
      : printer_(printer), target_(std::move(target)) {}

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
      printer_.Print(target_, ToolGroupName(group), method, ReadProperties(*event));
      return S_OK;
    } catch (...) {
      return E_FAIL;
    }
  }

  EventPrinter& printer_;
  const std::optional<TargetLabel> target_;
};

// Asks the target generation that has it to (un)subscribe the sink to one group.
template <class Generation, class SinkInterface>
HRESULT Subscribe(ITarget& target, REFIID generation,
                  HRESULT (STDMETHODCALLTYPE Generation::*method)(SinkInterface*),
                  PrintingSink& sink) {
  vekx::ComPtr<Generation> later;
  if (HRESULT hr = target.QueryInterface(generation, reinterpret_cast<void**>(later.Put()));
      FAILED(hr)) {
    return hr;
  }
  return (later.Get()->*method)(static_cast<SinkInterface*>(&sink));
}

struct TargetGroup {
  const char* name;
  HRESULT (*subscribe)(ITarget& target, PrintingSink& sink, bool advise);
};

#define VEKX_TARGET_GROUP(name, Generation, Sink, Stem)                                            \
  TargetGroup {                                                                                    \
    name, [](ITarget& target, PrintingSink& sink, bool advise) {                                   \
      return Subscribe<Generation, Sink>(                                                          \
          target, IID_##Generation,                                                                \
          advise ? &Generation::Advise##Stem##Events : &Generation::Unadvise##Stem##Events, sink); \
    }                                                                                              \
  }
const TargetGroup kTargetGroups[] = {
    VEKX_TARGET_GROUP("target", ITarget, IEventTarget, Target),
    VEKX_TARGET_GROUP("console", ITarget, IEventConsoleOutput, ConsoleOutput),
    VEKX_TARGET_GROUP("debug", ITarget, IEventDebug, Debug),
    VEKX_TARGET_GROUP("cache-update", ITarget, IEventCacheUpdate, CacheUpdate),
    VEKX_TARGET_GROUP("controller", ITarget, IEventController, Controller),
    VEKX_TARGET_GROUP("low-freq-file-copy", ITarget29, IEventLowFreqFileCopy, LowFreqFileCopy),
    VEKX_TARGET_GROUP("high-freq-file-copy", ITarget29, IEventHighFreqFileCopy, HighFreqFileCopy),
    VEKX_TARGET_GROUP("trickle", ITarget9, IEventTrickle, Trickle),
    VEKX_TARGET_GROUP("process-lock", ITarget11, IEventProcessLock, ProcessLock),
    VEKX_TARGET_GROUP("viewer", ITarget6, IEventViewer, EventViewer),
};
#undef VEKX_TARGET_GROUP

std::vector<std::string> CheckedGroups(const std::vector<std::string>& groups) {
  std::string known;
  for (const GroupName& group : kGroupNames) {
    if (std::string_view(group.name) == "generic-protocol") continue;
    known += known.empty() ? "" : ", ";
    known += group.name;
  }
  for (const std::string& group : groups) {
    const bool listed = std::any_of(std::begin(kGroupNames), std::end(kGroupNames),
                                    [&](const GroupName& g) { return group == g.name; });
    if (!listed || group == "generic-protocol") {
      throw UsageError("GROUP must be one of " + known + ", not '" + group + "'");
    }
  }
  return groups;
}

void Events(Context& context, const std::optional<std::string>& spec,
            const std::vector<std::string>& wanted) {
  const std::vector<std::string> groups = CheckedGroups(wanted);
  auto want = [&](std::string_view group) {
    return groups.empty() || std::find(groups.begin(), groups.end(), group) != groups.end();
  };
  const Interruption interruption;
  IVEKXAPI12& api = context.session.Api();
  EventPrinter printer(context.out, context.json);
  std::vector<std::function<void()>> unsubscribe;  // in the order of subscribing

  // The server's events without a TARGET (or when asked for by name), and the groups of the
  // named target or of every target the server knows now.
  if (!spec ? want("server") : !groups.empty() && want("server")) {
    auto sink = vekx::MakeSink<PrintingSink>(printer, std::nullopt);
    Check(api.AdviseServerEvents(static_cast<IEventServer*>(sink.Get())));
    unsubscribe.push_back(
        [&api, sink] { api.UnadviseServerEvents(static_cast<IEventServer*>(sink.Get())); });
  }
  std::vector<vekx::ComPtr<ITarget>> targets;
  if (spec) {
    targets.push_back(ResolveTarget(api, *spec));
  } else {
    targets = ListTargets(api);
  }
  for (const vekx::ComPtr<ITarget>& target : targets) {
    const TargetView view = ReadTargetView(*target.Get());
    auto sink = vekx::MakeSink<PrintingSink>(printer, TargetLabel{view.handle, view.name.value});
    for (const TargetGroup& group : kTargetGroups) {
      if (!want(group.name)) continue;
      Check(group.subscribe(*target.Get(), *sink.Get(), true));
      unsubscribe.push_back(
          [target, sink, &group] { group.subscribe(*target.Get(), *sink.Get(), false); });
    }
  }
  if (StandardErrorIsTerminal()) std::fputs("Watching events; Ctrl+C ends.\n", stderr);
  interruption.Wait();
  // Failures no longer matter: the tool is ending, and the server drops what is left with it.
  for (const auto& undo : unsubscribe)
    undo();
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
