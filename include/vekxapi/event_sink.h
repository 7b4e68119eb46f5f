#pragma once
// A base for the event sinks a host implements, so that no host writes AddRef, Release or
// QueryInterface for one: reference counting, QueryInterface over the listed sink interfaces,
// their earlier generations, IDispatch and IUnknown, and IDispatch stubs (the library calls sinks
// through their vtables, never through Invoke). Every sink method returns S_OK until the host
// overrides it:
//
//   class ConsoleSink : public vekx::EventSink<IEventConsoleOutput, IEventServer7> {
//    public:
//     HRESULT STDMETHODCALLTYPE OnConsoleOutput(IConsoleOutputEvent* event) override {...}
//   };
//   vekx::ComPtr<ConsoleSink> sink = vekx::MakeSink<ConsoleSink>();
//   target->AdviseConsoleOutputEvents(sink.Get());
//   api->AdviseServerEvents(sink.Get());   // IEventServer to IEventServer7
//
// The library calls sink methods on its notification thread; the count is atomic, the host's
// own state is the host's to guard.

#include <atomic>
#include <type_traits>
#include <utility>

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vekx {
namespace sink_detail {

// Per sink interface: its IID, the generation before it (IDispatch for a group's first), the
// group's name and a class implementing its methods as S_OK.
template <class Interface>
struct SinkTraits;

#define VEKX_SINK_BEGIN(Group, Interface, Earlier)               \
  template <>                                                    \
  struct SinkTraits<Interface> {                                 \
    using Previous = Earlier;                                    \
    static const IID& Iid() noexcept { return IID_##Interface; } \
    static constexpr const char* kGroup = #Group;                \
    class Defaults : public Interface {                          \
     public:
#define VEKX_SINK_METHOD(Interface, Method, EventName)              \
  HRESULT STDMETHODCALLTYPE Method(I##EventName##Event*) override { \
    return S_OK;                                                    \
  }
#define VEKX_SINK_END(Interface) \
 protected:                      \
  ~Defaults() = default;         \
  }                              \
  ;                              \
  }                              \
  ;
#include "vekxapi/event_sinks.def"

template <class... Interfaces>
struct List {};

// `L` with `I` at its end, unless `L` holds it already.
template <class L, class I>
struct AddOnce;
template <class... Held, class I>
struct AddOnce<List<Held...>, I> {
  using type =
      std::conditional_t<(std::is_same_v<Held, I> || ...), List<Held...>, List<Held..., I>>;
};

// `L` with every generation of `I`'s group up to `I`, oldest first, each once.
template <class L, class I>
struct AddGenerations {
  using type =
      typename AddOnce<typename AddGenerations<L, typename SinkTraits<I>::Previous>::type, I>::type;
};
template <class L>
struct AddGenerations<L, IDispatch> {
  using type = L;
};

template <class L, class... Listed>
struct Collect {
  using type = L;
};
template <class L, class I, class... Rest>
struct Collect<L, I, Rest...> : Collect<typename AddGenerations<L, I>::type, Rest...> {};

template <class L>
class SinkBase;

template <class First, class... Rest>
class SinkBase<List<First, Rest...>> : public SinkTraits<First>::Defaults,
                                       public SinkTraits<Rest>::Defaults... {
 public:
  SinkBase() = default;
  SinkBase(const SinkBase&) = delete;
  SinkBase& operator=(const SinkBase&) = delete;
  virtual ~SinkBase() = default;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    // One IUnknown and one IDispatch for the whole object: the first interface's.
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch)) {
      *object = static_cast<First*>(this);
    } else {
      (void)(Offer<First>(iid, object) || ... || Offer<Rest>(iid, object));
    }
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    return references_.fetch_add(1, std::memory_order_relaxed) + 1;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }

  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    if (info != nullptr) *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                   UINT*) override {
    return E_NOTIMPL;
  }

 private:
  template <class I>
  bool Offer(REFIID iid, void** object) {
    if (!IsEqualIID(iid, SinkTraits<I>::Iid())) return false;
    *object = static_cast<I*>(this);
    return true;
  }

  std::atomic<ULONG> references_{0};
};

}  // namespace sink_detail

// The sink interfaces `Listed` and every earlier generation of each, with S_OK for every method.
template <class... Listed>
using EventSink =
    sink_detail::SinkBase<typename sink_detail::Collect<sink_detail::List<>, Listed...>::type>;

// The name of the event group that `SinkInterface` belongs to, as the library names it
// ("Server", "ConsoleOutput", ...).
template <class SinkInterface>
constexpr const char* kSinkGroup = sink_detail::SinkTraits<SinkInterface>::kGroup;

// A new sink of class `Sink`, held by the one reference the result owns.
template <class Sink, class... Args>
ComPtr<Sink> MakeSink(Args&&... args) {
  return ComPtr<Sink>(new Sink(std::forward<Args>(args)...));
}

}  // namespace vekx
