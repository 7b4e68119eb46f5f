#pragma once
// The event groups by the names tools give them ("target", "low-freq-file-copy"), and for a
// target's groups the call that subscribes a sink to one, on whichever target generation has
// it, or cancels that subscription. For hosts that let a user pick groups by name.
//
//   for (const auto& group : vekx::kTargetEventGroups<MySink>)
//     if (wanted(group.name)) hr = group.subscribe(*target, *sink, /*advise=*/true);

#include <string_view>

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vekx {

// Every group: the tool name and the library's own (EventSink's kGroup).
struct EventGroupName {
  const char* name;
  const char* library_name;
};
inline constexpr EventGroupName kEventGroupNames[] = {
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
    // Its events belong to a channel a host opens itself, through the channel's own call.
    {"generic-protocol", "GenericProtocol"},
};

// The tool name of a library group name; the library name itself when it has none.
inline std::string_view EventGroupToolName(std::string_view library_name) noexcept {
  for (const EventGroupName& group : kEventGroupNames) {
    if (library_name == group.library_name) return group.name;
  }
  return library_name;
}

namespace event_group_detail {
// Asks the target generation that has it to (un)subscribe `sink` to one group.
template <class Generation, class SinkInterface, class Sink>
HRESULT Subscribe(ITarget& target, REFIID generation,
                  HRESULT (STDMETHODCALLTYPE Generation::*method)(SinkInterface*), Sink& sink) {
  ComPtr<Generation> later;
  if (HRESULT hr = target.QueryInterface(generation, reinterpret_cast<void**>(later.Put()));
      FAILED(hr)) {
    return hr;
  }
  return (later.Get()->*method)(static_cast<SinkInterface*>(&sink));
}
}  // namespace event_group_detail

// A target's group, for a host's sink class `Sink` (which implements the group's interface).
template <class Sink>
struct TargetEventGroup {
  const char* name;
  HRESULT (*subscribe)(ITarget& target, Sink& sink, bool advise);
};

#define VEKX_TARGET_GROUP(name, Generation, SinkInterface, Stem)                                   \
  TargetEventGroup<Sink> {                                                                         \
    name, [](ITarget& target, Sink& sink, bool advise) {                                           \
      return event_group_detail::Subscribe<Generation, SinkInterface>(                             \
          target, IID_##Generation,                                                                \
          advise ? &Generation::Advise##Stem##Events : &Generation::Unadvise##Stem##Events, sink); \
    }                                                                                              \
  }
// The groups a sink subscribes to on a target itself, in the order of kEventGroupNames.
template <class Sink>
inline const TargetEventGroup<Sink> kTargetEventGroups[] = {
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

}  // namespace vekx
