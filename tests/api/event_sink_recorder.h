#pragma once
// A host's event sink for the tests, built on the public sink base: it records each call as the
// method's name and the event's properties as text, read through the event's own getters.

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "vekxapi/event_sink.h"

namespace qv::apitest {

// One call a sink received: its method, and each property of the event as text ("object" for an
// object-valued one that gave an object, "no E_POINTER" when a null out-pointer was accepted).
struct SinkCall {
  std::string method;
  std::map<std::string, std::string> properties;
};

// Each property of `event` as text.
#define VEKX_SINK_METHOD(Interface, Method, EventName) \
  std::map<std::string, std::string> EventProperties(I##EventName##Event* event);
#include "vekxapi/event_sinks.def"

// The calls a sink received, kept apart from the COM object so that both kinds of sink share it.
class SinkCalls {
 public:
  std::vector<SinkCall> Calls() const;
  size_t CallCount() const { return Calls().size(); }
  // The value of `property` in each call to `method`, in the order of the calls.
  std::vector<std::string> Values(const std::string& method, const std::string& property) const;
  void Clear();

  // Set before the sink is advised: what runs inside every call, after it is recorded, on the
  // notification thread, and what every call returns.
  std::function<void()> on_call;
  HRESULT result = S_OK;

 protected:
  HRESULT Record(SinkCall call);

 private:
  mutable std::mutex mutex_;
  std::vector<SinkCall> calls_;  // guarded by mutex_
};

// A sink of `Base` (a vekx::EventSink) that records every call. The methods carry no `override`:
// over the base interfaces alone, those of the later generations override nothing.
template <class Base>
class Recording final : public Base, public SinkCalls {
 public:
#define VEKX_SINK_METHOD(Interface, Method, EventName)           \
  HRESULT STDMETHODCALLTYPE Method(I##EventName##Event* event) { \
    return Record(SinkCall{#Method, EventProperties(event)});    \
  }
#include "vekxapi/event_sinks.def"
};

// Every group's latest sink interface, and with it every earlier one.
using RecordingSink = Recording<
    vekx::EventSink<IEventServer7, IEventTarget9, IEventCacheUpdate, IEventConsoleOutput,
                    IEventController2, IEventDebug4, IEventGenericProtocol, IEventHighFreqFileCopy,
                    IEventLowFreqFileCopy, IEventTrickle2, IEventProcessLock, IEventViewer>>;
// Only each group's first sink interface, as a host built before the later ones came.
using BaseOnlySink = Recording<
    vekx::EventSink<IEventServer, IEventTarget, IEventCacheUpdate, IEventConsoleOutput,
                    IEventController, IEventDebug, IEventGenericProtocol, IEventHighFreqFileCopy,
                    IEventLowFreqFileCopy, IEventTrickle, IEventProcessLock, IEventViewer>>;

}  // namespace qv::apitest
