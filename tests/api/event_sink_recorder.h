#pragma once
// A host's event sink for the tests: one object that implements every sink interface of every
// group (or, if asked, only the base interfaces), and records each call as the method's name and
// the event's properties as text, read through the event's own getters.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "vekxapi/vekxapi.h"

namespace qv::apitest {

// One call a sink received: its method, and each property of the event as text ("E_NOTIMPL" for
// a property this version cannot build, "no E_POINTER" when a null out-pointer was accepted).
struct SinkCall {
  std::string method;
  std::map<std::string, std::string> properties;
};

// clang-format off
#define VEKX_FOR_EACH_SINK_INTERFACE(X) \
  X(IEventServer) X(IEventServer2) X(IEventServer3) X(IEventServer4) X(IEventServer5) \
  X(IEventServer6) X(IEventServer7) \
  X(IEventTarget) X(IEventTarget2) X(IEventTarget3) X(IEventTarget4) X(IEventTarget5) \
  X(IEventTarget6) X(IEventTarget7) X(IEventTarget8) X(IEventTarget9) \
  X(IEventCacheUpdate) X(IEventConsoleOutput) X(IEventController) X(IEventController2) \
  X(IEventDebug) X(IEventDebug2) X(IEventDebug3) X(IEventDebug4) X(IEventGenericProtocol) \
  X(IEventHighFreqFileCopy) X(IEventLowFreqFileCopy) X(IEventTrickle) X(IEventTrickle2) \
  X(IEventProcessLock)
// clang-format on

#define VEKX_SINK_BASE(Interface) \
 public                           \
  Interface,
#define VEKX_SINK_CONCAT_INNER(a, b) a##b
#define VEKX_SINK_CONCAT(a, b) VEKX_SINK_CONCAT_INNER(a, b)
#define VEKX_SINK_IF(...) VEKX_SINK_CONCAT(VEKX_SINK_IF_, __VA_OPT__(YES))
#define VEKX_SINK_IF_YES(...) __VA_ARGS__
#define VEKX_SINK_IF_(...)

// Every sink interface but IEventViewer, which closes the list of bases.
class RecordingSink final : VEKX_FOR_EACH_SINK_INTERFACE(VEKX_SINK_BASE) public IEventViewer {
 public:
  // With `later_versions` false the sink answers only for each group's base interface.
  explicit RecordingSink(bool later_versions = true) : later_versions_(later_versions) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                   UINT*) override {
    return E_NOTIMPL;
  }

#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  VEKX_SINK_IF(SinkInterface)                                                                \
  (HRESULT STDMETHODCALLTYPE SinkMethod(I##Camel##Event * event) override;)
#include "requests/notifications.def"

  std::vector<SinkCall> Calls() const;
  size_t CallCount() const;
  // The value of `property` in each call to `method`, in the order of the calls.
  std::vector<std::string> Values(const std::string& method, const std::string& property) const;
  void Clear();

  // Set before the sink is advised: what runs inside every call, after it is recorded, on the
  // notification thread, and what every call returns.
  std::function<void()> on_call;
  HRESULT result = S_OK;

 private:
  ~RecordingSink() = default;
  HRESULT Record(SinkCall call);

  const bool later_versions_;
  std::atomic<ULONG> references_{1};
  mutable std::mutex mutex_;
  std::vector<SinkCall> calls_;  // guarded by mutex_
};

}  // namespace qv::apitest
