// The registry's side of the generic protocol endpoints: which target's endpoints a channel call
// goes to, and where an endpoint's availability change goes.
//
// Lock order: an endpoint's script thread takes the registry's lock to announce a change, and a
// channel is closed by joining that thread; so channels are closed only with the registry
// unlocked (CloseChannels), and the registry calls nothing of the endpoints under its lock that
// waits.

#include "server/targets/target_registry.h"

namespace qv::server {

void TargetRegistry::AttachEndpoints(Target& target) {
  const uint32_t handle = target.handle;
  target.endpoints = std::make_shared<TargetProtocols>(
      target.kit.host, target.kit.protocols, [this, handle](uint32_t protocol, bool available) {
        PostProtocolStatus(handle, protocol, available);
      });
}

void TargetRegistry::CloseChannels(const std::vector<TargetPtr>& targets, uint64_t client_id) {
  for (const TargetPtr& target : targets) {
    if (target == nullptr || target->endpoints == nullptr) continue;
    if (client_id == 0) {
      target->endpoints->Shutdown();
    } else {
      target->endpoints->CloseClient(client_id);
    }
  }
}

Status TargetRegistry::EndpointsOf(uint32_t handle,
                                   std::shared_ptr<TargetProtocols>& endpoints) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (target->kit.power != PowerStatus::kOn) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_POWER_STATE,
                        u"\"" + target->kit.host + u"\" is not powered on; power it on first");
  }
  endpoints = target->endpoints;
  return Status::Ok();
}

void TargetRegistry::PostProtocolStatus(uint32_t handle, uint32_t protocol, bool available) {
  std::lock_guard lock(mutex_);
  if (shutting_down_) return;
  const TargetPtr target = Find(handle);
  if (target == nullptr || target->deleted) return;
  CProtocolStatusNotification status;
  status.TargetKey = handle;
  status.Protocol = protocol;
  status.Availability = available;
  Notify(EventGroup::GenericProtocol, handle, status);
}

}  // namespace qv::server
