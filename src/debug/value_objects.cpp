#include "debug/value_objects.h"

#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "api/automation_object.h"
#include "api/error_reporting.h"
#include "api/result_values.h"
#include "debug/process_object.h"
#include "debug/thread_object.h"
#include "events/event_property_values.h"

namespace qv {
namespace {

// A 64-bit owner or waiter id of the user-level records: with its top bit set a kernel thread
// (the thread id in the low 32 bits), otherwise a user-level thread.
struct UlOrKernelId {
  UlOrKernelId(uint64_t value = 0) : raw(value) {}  // NOLINT: converts from a record's id
  uint64_t raw;
  bool IsKernelThread() const { return (raw >> 63) != 0; }
  uint64_t Id() const { return IsKernelThread() ? (raw & 0xFFFFFFFFu) : raw; }
};

std::vector<UlOrKernelId> UlOrKernelIds(const U64List& ids) {
  return std::vector<UlOrKernelId>(ids.begin(), ids.end());
}

// What application objects answered, with the kinds that were asked for.
struct AppObjectAnswer {
  AppObjectInfoRecord info;
  uint32_t asked = 0;
};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

// Makes a T copying `record` and hands out its dispatch interface (the last of its family,
// which is also every earlier generation) in `*out`.
template <class T>
HRESULT MakeValue(const typename T::Record& record, const DebugContext& context,
                  void** out) noexcept {
  try {
    typename T::Record copy = record;
    DebugContext copied_context = context;
    return CreateObject<T>(T::DispatchIid(), out, std::move(copy), std::move(copied_context));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

template <class T, class List>
HRESULT OutValues(const List& list, const DebugContext& context, VARIANT* out) noexcept {
  if (out == nullptr) return E_POINTER;
  std::vector<vekx::ComPtr<IDispatch>> objects;
  try {
    objects.resize(list.size());
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (size_t i = 0; i < list.size(); ++i) {
    if (HRESULT hr = MakeValue<T>(list[i], context, reinterpret_cast<void**>(objects[i].Put()));
        FAILED(hr)) {
      return hr;
    }
  }
  return OutObjectArray(objects, out);
}

template <class Derived, class Interface, class RecordType>
class ValueObject : public AutomationObject<Derived, Interface> {
 public:
  using Record = RecordType;
  ValueObject(Record record, DebugContext context) noexcept
      : record_(std::move(record)), context_(std::move(context)) {}

 protected:
  template <class Out, class Read>
  HRESULT Value(Out* out, Read read) const noexcept {
    if (out == nullptr) return ReportError(E_POINTER);
    return ReportError(PutPropertyValue(read(record_), out));
  }
  template <class T, class Out, class Read>
  HRESULT Object(Out** out, Read read) const noexcept {
    if (out == nullptr) return ReportError(E_POINTER);
    *out = nullptr;
    try {
      const auto& field = read(record_);
      if constexpr (IsOptional<std::decay_t<decltype(field)>>::value) {
        if (!field) return S_OK;
        return ReportError(MakeValue<T>(*field, context_, reinterpret_cast<void**>(out)));
      } else {
        return ReportError(MakeValue<T>(field, context_, reinterpret_cast<void**>(out)));
      }
    } catch (const std::bad_alloc&) {
      return ReportError(E_OUTOFMEMORY);
    }
  }
  template <class T, class Read>
  HRESULT Objects(VARIANT* out, Read read) const noexcept {
    try {
      return ReportError(OutValues<T>(read(record_), context_, out));
    } catch (const std::bad_alloc&) {
      return ReportError(E_OUTOFMEMORY);
    }
  }

  Record record_;
  DebugContext context_;
};

// The properties that are more than a copy of a field.
struct ValueCalls {
  static HRESULT get_ThreadInterface(const ThreadInfoRecord& r, const DebugContext& context,
                                     IThread** out) noexcept {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    return CreateThreadObject(context.client, context.target, context.pid, r.Tid, IID_IThread,
                              reinterpret_cast<void**>(out));
  }
  static HRESULT get_WaitObject(const ThreadInfoRecord& r, const DebugContext&,
                                VARIANT* out) noexcept;
  static HRESULT get_ProcessInterface(const ProcessInfoRecord& r, const DebugContext& context,
                                      IProcess** out) noexcept {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    return CreateProcessObject(context.client, context.target, r.ProcessID, IID_IProcess,
                               reinterpret_cast<void**>(out));
  }
  static HRESULT GetCallstackSignature(const ProcessInfoRecord& r, const DebugContext& context,
                                       ULONGLONG* out) noexcept {
    if (out == nullptr) return E_POINTER;
    if (!IsUsable(context.client)) return E_UNEXPECTED;
    CGetCallstackSignatureRequest request;
    request.ProcessID = r.ProcessID;
    CGetCallstackSignatureResponse response;
    if (HRESULT hr = CallServer(*context.client, context.target, request, response); FAILED(hr))
      return hr;
    *out = response.Hash;
    return S_OK;
  }
};

#define VEKX_VALUE_BEGIN(Class, Interface, RecordType, ...)              \
  class Class final : public ValueObject<Class, Interface, RecordType> { \
   public:                                                               \
    using Implemented = Interface;                                       \
    using ValueObject::ValueObject;                                      \
    static const IID& DispatchIid() { return IID_##Interface; }          \
    static bool IsFamily(REFIID iid) {                                   \
      static const IID* const kFamily[] = {__VA_ARGS__};                 \
      return IsOneOf(iid, kFamily);                                      \
    }
#define VEKX_VALUE(Property, expression)                                                           \
  HRESULT STDMETHODCALLTYPE get_##Property(GetterOutT<&Implemented::get_##Property> out)           \
      override {                                                                                   \
    return Value(out,                                                                              \
                 []([[maybe_unused]] const Record& r) -> decltype(auto) { return (expression); }); \
  }
#define VEKX_VALUE_OBJECT(Property, ElementClass, expression)                                  \
  HRESULT STDMETHODCALLTYPE get_##Property(GetterOutT<&Implemented::get_##Property> out)       \
      override {                                                                               \
    return Object<ElementClass>(                                                               \
        out, []([[maybe_unused]] const Record& r) -> decltype(auto) { return (expression); }); \
  }
#define VEKX_VALUE_OBJECTS(Property, ElementClass, expression)                                 \
  HRESULT STDMETHODCALLTYPE get_##Property(VARIANT* out) override {                            \
    return Objects<ElementClass>(                                                              \
        out, []([[maybe_unused]] const Record& r) -> decltype(auto) { return (expression); }); \
  }
#define VEKX_VALUE_CALL(Member)                                                     \
  HRESULT STDMETHODCALLTYPE Member(GetterOutT<&Implemented::Member> out) override { \
    return ReportError(ValueCalls::Member(record_, context_, out));                 \
  }
#define VEKX_VALUE_END() \
  }                      \
  ;
#include "debug/value_objects.def"
#undef VEKX_VALUE_BEGIN
#undef VEKX_VALUE
#undef VEKX_VALUE_OBJECT
#undef VEKX_VALUE_OBJECTS
#undef VEKX_VALUE_CALL
#undef VEKX_VALUE_END

// The class of each kind of synchronisation object, in kind order.
#define VEKX_SYNC_CLASSES(X)                             \
  X(UltDataQueue, CKXVEUltQueueDataResourcePool)         \
  X(UltWaitQueue, CKXVEUltWaitingQueueResourcePool)      \
  X(UltQueue, CKXVEUltQueue)                             \
  X(UltRwLock, CKXVEUltRwlock)                           \
  X(UltSema, CKXVEUltSemaphore)                          \
  X(UltCond, CKXVEUltConditionVariable)                  \
  X(UltMutex, CKXVEUltMutex)                             \
  X(VestaSemaphore, CKXVEVestaSemaphore)                 \
  X(VestaKernelSemaphore, CKXVEVestaKernelSemaphore)     \
  X(VestaEventFlag, CKXVEVestaEventFlag)                 \
  X(VestaKernelEventFlag, CKXVEVestaKernelEventFlag)     \
  X(VestaMutex, CKXVEVestaMutex)                         \
  X(PosixMutex, CKXVEPosixMutex)                         \
  X(VestaBarrier, CKXVEVestaBarrier)                     \
  X(PosixBarrier, CKXVEPosixBarrier)                     \
  X(VestaRwlock, CKXVEVestaRwlock)                       \
  X(PosixRwlock, CKXVEPosixRwlock)                       \
  X(VestaConditionVariable, CKXVEVestaConditionVariable) \
  X(PosixConditionVariable, CKXVEPosixConditionVariable) \
  X(VestaEventQueue, CKXVEVestaEventQueue)

// The object for one synchronisation record of kind K.
template <SyncObjectKind K>
struct SyncClass;
#define VEKX_SYNC_CLASS(Kind, Class)          \
  template <>                                 \
  struct SyncClass<SyncObjectKind::k##Kind> { \
    using type = Class;                       \
  };
VEKX_SYNC_CLASSES(VEKX_SYNC_CLASS)
#undef VEKX_SYNC_CLASS

template <size_t... I>
HRESULT MakeSyncObject(const SyncObjectRecord& object, IDispatch** out,
                       std::index_sequence<I...>) noexcept {
  using Maker = HRESULT (*)(const SyncObjectVariant&, IDispatch**);
  static constexpr Maker kMakers[] = {[](const SyncObjectVariant& v, IDispatch** made) {
    using T = typename SyncClass<static_cast<SyncObjectKind>(I)>::type;
    return MakeValue<T>(*std::get_if<I>(&v), DebugContext{}, reinterpret_cast<void**>(made));
  }...};
  if (object.Object.valueless_by_exception()) return E_UNEXPECTED;
  return kMakers[object.Object.index()](object.Object, out);
}

HRESULT ValueCalls::get_WaitObject(const ThreadInfoRecord& r, const DebugContext&,
                                   VARIANT* out) noexcept {
  if (out == nullptr) return E_POINTER;
  std::vector<vekx::ComPtr<IDispatch>> objects;
  try {
    if (r.WaitObject) objects.resize(1);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  if (r.WaitObject) {
    if (HRESULT hr = MakeSyncObject(*r.WaitObject, objects[0].Put(),
                                    std::make_index_sequence<kSyncObjectKindCount>{});
        FAILED(hr)) {
      return hr;
    }
  }
  return OutObjectArray(objects, out);
}

template <class T>
HRESULT CreateOne(const typename T::Record& record, const DebugContext& context,
                  void** out) noexcept {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  return MakeValue<T>(record, context, out);
}

}  // namespace

HRESULT CreateProcessInfoObject(const ProcessInfoRecord& record, const DebugContext& context,
                                IProcessInfo** out) noexcept {
  return CreateOne<CKXVEProcessInfo>(record, context, reinterpret_cast<void**>(out));
}

HRESULT CreateModuleObject(const ModuleInfoRecord& record, IModule** out) noexcept {
  return CreateOne<CKXVEModuleInfo>(record, {}, reinterpret_cast<void**>(out));
}

HRESULT CreateStopNotificationObject(const CStopNotificationNotification& notification,
                                     const DebugContext& context,
                                     IStopNotification** out) noexcept {
  return CreateOne<CKXVEStopNotificationInfo>(notification, context, reinterpret_cast<void**>(out));
}

HRESULT CreateAppObjectInfoObject(const AppObjectInfoRecord& record, uint32_t asked,
                                  IAppObjectInfo** out) noexcept {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  try {
    return CreateOne<CKXVEAppObjectInfo>(AppObjectAnswer{record, asked}, {},
                                         reinterpret_cast<void**>(out));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT CreateASanErrorObject(const CGetCoredumpUserDataResponse& report,
                              IASanErrorDescription** out) noexcept {
  return CreateOne<CKXVEASanErrorDescription>(report, {}, reinterpret_cast<void**>(out));
}

HRESULT OutProcessInfoArray(const ProcessInfoList& list, const DebugContext& context,
                            VARIANT* out) noexcept {
  return OutValues<CKXVEProcessInfo>(list, context, out);
}
HRESULT OutThreadInfoArray(const ThreadInfoList& list, const DebugContext& context,
                           VARIANT* out) noexcept {
  return OutValues<CKXVEThreadInfo>(list, context, out);
}
HRESULT OutModuleArray(const ModuleInfoList& list, VARIANT* out) noexcept {
  return OutValues<CKXVEModuleInfo>(list, {}, out);
}
HRESULT OutSoftwareBreakpointArray(const SoftwareBreakpointList& list, VARIANT* out) noexcept {
  return OutValues<CKXVESoftwareBreakpointInfo>(list, {}, out);
}
HRESULT OutHardwareBreakpointArray(const HardwareBreakpointList& list, VARIANT* out) noexcept {
  return OutValues<CKXVEHardwareBreakpointInfo>(list, {}, out);
}
HRESULT OutVirtualMemoryArray(const VirtualMemoryList& list, VARIANT* out) noexcept {
  return OutValues<CKXVEVirtualMemory>(list, {}, out);
}
HRESULT OutSocketArray(const SocketInfoList& list, VARIANT* out) noexcept {
  return OutValues<CKXVESocketInfo>(list, {}, out);
}
HRESULT OutFileArray(const OpenFileList& list, VARIANT* out) noexcept {
  return OutValues<CKXVEFile>(list, {}, out);
}
HRESULT OutReadMemoryArray(const ScatteredDataList& list, VARIANT* out) noexcept {
  return OutValues<CKXVEReadMemoryResponse>(list, {}, out);
}

HRESULT OutSyncPrimitiveArray(const SyncPrimInfoRecord& lists, VARIANT* out) noexcept {
  if (out == nullptr) return E_POINTER;
  std::vector<vekx::ComPtr<IDispatch>> objects;
  HRESULT hr = S_OK;
  try {
#define VEKX_SYNC_APPEND(Kind, Class)                                                          \
  for (const auto& record : lists.Kind##List) {                                                \
    if (FAILED(hr)) break;                                                                     \
    hr = MakeValue<Class>(record, {}, reinterpret_cast<void**>(objects.emplace_back().Put())); \
  }
    VEKX_SYNC_CLASSES(VEKX_SYNC_APPEND)
#undef VEKX_SYNC_APPEND
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  if (FAILED(hr)) return hr;
  return OutObjectArray(objects, out);
}

}  // namespace qv
