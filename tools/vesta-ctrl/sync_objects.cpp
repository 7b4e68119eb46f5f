#include "sync_objects.h"

#include <optional>
#include <vector>

#include "debug_values.h"
#include "enum_names.h"

namespace vesta_ctrl {
namespace {

using Json = nlohmann::ordered_json;

Json Owner(ULONG owner) {
  return owner;
}

Json Owner(const vekx::ComPtr<IUlOrKernelTID>& owner) {
  if (!owner) return nullptr;
  const std::uint32_t type = Read(*owner.Get(), &IUlOrKernelTID::get_Type);
  const std::optional<std::string_view> name = NameOf(UltThreadTypes(), type);
  return {{"type", name ? Json(*name) : Json(type)},
          {"id", Read(*owner.Get(), &IUlOrKernelTID::get_Id)}};
}

template <class Interface>
std::optional<Json> Describe(IDispatch& object, const IID& iid, const char* kind) {
  vekx::ComPtr<Interface> typed;
  if (FAILED(object.QueryInterface(iid, reinterpret_cast<void**>(typed.Put())))) return {};
  Interface& o = *typed.Get();
  Json result = {{"kind", kind},
                 {"kernel_id", Read(o, &Interface::get_KernelId)},
                 {"user_id", Hex(Read(o, &Interface::get_UserId))},
                 {"name", Read(o, &Interface::get_Name)},
                 {"owner", nullptr},
                 {"waiters", Json::array()}};
  if constexpr (requires { &Interface::get_Owner; }) {
    result["owner"] = Owner(Read(o, &Interface::get_Owner));
  }
  if constexpr (requires { &Interface::get_WaitingThreads; }) {
    result["waiters"] = NumbersOf(Read(o, &Interface::get_WaitingThreads).Get());
  }
  if constexpr (requires { &Interface::get_WaitingReadThreads; }) {
    std::vector<std::uint32_t> waiters =
        NumbersOf(Read(o, &Interface::get_WaitingReadThreads).Get());
    for (std::uint32_t tid : NumbersOf(Read(o, &Interface::get_WaitingWriteThreads).Get()))
      waiters.push_back(tid);
    result["waiters"] = waiters;
  }
  if constexpr (requires { &Interface::get_Waiters; }) {
    const vekx::Variant list = Read(o, &Interface::get_Waiters);
    for (const auto& waiter : ObjectsOf<IUlOrKernelTID>(list.Get(), IID_IUlOrKernelTID))
      result["waiters"].push_back(Owner(waiter));
  }
  return result;
}

using Describer = std::optional<Json> (*)(IDispatch& object);

#define VEKX_SYNC_KIND(Interface) \
  [](IDispatch& object) { return Describe<Interface>(object, IID_##Interface, #Interface); }
// Every kind SyncPrimitives hands out; each object has exactly one of these interfaces.
constexpr Describer kKinds[] = {
    VEKX_SYNC_KIND(IVestaMutex),
    VEKX_SYNC_KIND(IPosixMutex),
    VEKX_SYNC_KIND(IVestaSemaphore),
    VEKX_SYNC_KIND(IVestaKernelSemaphore),
    VEKX_SYNC_KIND(IVestaEventFlag),
    VEKX_SYNC_KIND(IVestaKernelEventFlag),
    VEKX_SYNC_KIND(IVestaEventQueue),
    VEKX_SYNC_KIND(IVestaBarrier),
    VEKX_SYNC_KIND(IPosixBarrier),
    VEKX_SYNC_KIND(IVestaConditionVariable),
    VEKX_SYNC_KIND(IPosixConditionVariable),
    VEKX_SYNC_KIND(IVestaRwlock),
    VEKX_SYNC_KIND(IPosixRwlock),
    VEKX_SYNC_KIND(IUltMutex),
    VEKX_SYNC_KIND(IUltSemaphore),
    VEKX_SYNC_KIND(IUltConditionVariable),
    VEKX_SYNC_KIND(IUltRwlock),
    VEKX_SYNC_KIND(IUltQueue),
    VEKX_SYNC_KIND(IUltQueueDataResourcePool),
    VEKX_SYNC_KIND(IUltWaitingQueueResourcePool),
};
#undef VEKX_SYNC_KIND

}  // namespace

nlohmann::ordered_json DescribeSyncObject(IDispatch& object) {
  for (Describer describe : kKinds) {
    if (std::optional<Json> description = describe(object)) return *description;
  }
  return {{"kind", nullptr}};
}

}  // namespace vesta_ctrl
