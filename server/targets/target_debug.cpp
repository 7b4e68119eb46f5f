// The registry's side of the debug backends: which backend a call goes to, and where what a
// backend reports goes.
//
// Lock order: a backend may hold its own locks when it posts, and posting takes the registry's
// lock; so the registry never calls into a backend while it holds its lock (it only builds one,
// which takes no lock of the backend's), and calls run on the backend with the registry unlocked.

#include <utility>

#include "server/targets/target_registry.h"

#include "server/debug/core/core_dump_backend.h"

namespace qv::server {

// A target's DebugEvents: the registry and the handle it posts under. The registry drops what
// comes for a handle that is gone, so a backend that posts late does no harm.
class TargetDebugEvents final : public DebugEvents {
 public:
  TargetDebugEvents(TargetRegistry& registry, uint32_t handle)
      : registry_(registry), handle_(handle) {}
  void Post(const CNotification& notification) override {
    registry_.PostDebug(handle_, notification);
  }
  uint32_t Target() const override { return handle_; }

 private:
  TargetRegistry& registry_;
  const uint32_t handle_;
};

void TargetRegistry::AttachDebugBackend(Target& target) {
  target.debug_events = std::make_shared<TargetDebugEvents>(*this, target.handle);
  if (target.type == kTargetTypeCoreDump) {
    target.core = std::make_shared<CoreDumpBackend>(target.kit.host);
    target.debug = target.core;
    return;
  }
  if (debug_backends_) target.debug = debug_backends_(target.kit, target.debug_events);
  if (target.debug == nullptr) target.debug = std::make_shared<DebugBackend>();
}

void TargetRegistry::ShutDownDebugBackends(const std::vector<TargetPtr>& targets) {
  for (const TargetPtr& target : targets) {
    if (target != nullptr && target->debug != nullptr) target->debug->Shutdown();
  }
}

Status TargetRegistry::DebugBackendOf(uint32_t handle, std::shared_ptr<DebugBackend>& backend,
                                      uint64_t client_id, std::optional<uint32_t> changes) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  // A core dump answers from its file, whatever its "kit" would say.
  if (target->core != nullptr) {
    backend = target->debug;
    return Status::Ok();
  }
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (target->kit.power != PowerStatus::kOn) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_POWER_STATE,
                        u"\"" + target->kit.host + u"\" is not powered on; power it on first");
  }
  if (changes) {
    if (Status status = locks_.MayChange(handle, *changes, client_id); !status.ok()) return status;
  }
  backend = target->debug;
  return Status::Ok();
}

Status TargetRegistry::LoadCoreDump(uint32_t handle, const std::u16string& path) {
  std::shared_ptr<CoreDumpBackend> core;
  {
    std::lock_guard lock(mutex_);
    TargetPtr target;
    if (Status status = Lookup(handle, target); !status.ok()) return status;
    if (target->core == nullptr) {
      return Status::Fail(
          KXAPI_ERR_NOT_SUPPORTED_BY_THIS_TARGET_TYPE,
          u"\"" + target->kit.host + u"\" is a kit, not a core dump; load a core at a pseudo host");
    }
    core = target->core;
  }
  return core->Load(path);
}

void TargetRegistry::PostDebug(uint32_t handle, const CNotification& notification) {
  std::lock_guard lock(mutex_);
  if (shutting_down_) return;
  const TargetPtr target = Find(handle);
  if (target == nullptr || target->deleted) return;
  if (notification.GetTypeNumber() == CConsoleOutputNotification::kTypeNumber) {
    CConsoleOutputNotification output =
        static_cast<const CConsoleOutputNotification&>(notification);
    EmitConsoleOutput(*target, std::move(output));
  } else {
    Notify(EventGroup::Debug, handle, notification);
  }
}

}  // namespace qv::server
