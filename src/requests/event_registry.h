#pragma once
// One event group's registrations: the notify clients that wrap the sinks advised for each key
// (a target handle, or 0xFFFFFFFF for the whole server), in the order they were advised.
//
// Locks: one recursive mutex per registry guards the map. It is held while the subscribe message
// of an advise is sent and answered, and while a notification is handed to the sinks, so advise,
// unadvise and delivery of one group never interleave; a sink that advises or unadvises on the
// same group from inside its handler re-enters the lock on the notification thread.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/automation.h"
#include "serverlink/messages.h"

namespace qv {

// What a registry holds for one advised sink. Each group's notify client implements it; the
// sink reference it holds is released only when the last shared reference to it goes, so a sink
// may see one more call after its unadvise returns if a delivery had already taken its copy.
class IVEEventNotifyClient {
 public:
  virtual ~IVEEventNotifyClient() = default;
  // Whether `other` wraps the same sink for the same group.
  virtual bool IsSameSink(const IVEEventNotifyClient& other) const = 0;
  // Hands a notification of this client's group to the sink, through the delivery slot that the
  // notification's catalogue row names. The sink's answer is returned and ignored by the caller.
  virtual HRESULT Deliver(uint32_t slot, const std::shared_ptr<CNotification>& notification) = 0;
};

class EventRegistry {
 public:
  using Client = std::shared_ptr<IVEEventNotifyClient>;

  // Files `client` under `key`, after `subscribe` (called under the lock) succeeded.
  // KXAPI_ALREADY_REGISTERED, with nothing sent, when the same sink is filed under `key` already.
  HRESULT Register(Client client, uint32_t key, const std::function<HRESULT()>& subscribe);
  // Removes the first registration under `key` that wraps the same sink as `client`, if any, and
  // returns how many registrations remain under `key` (counted under the lock).
  size_t Unregister(const IVEEventNotifyClient& client, uint32_t key);
  size_t Count(uint32_t key) const;
  // Removes every registration under `key`.
  void DropAll(uint32_t key);
  // Every key that has a registration, each once, in ascending order.
  std::vector<uint32_t> Keys() const;
  // Calls `slot` of every client filed under `key`, in the order they were filed, on a copy of
  // the list taken under the lock. A failing sink does not stop the others.
  void Deliver(uint32_t key, uint32_t slot, const std::shared_ptr<CNotification>& notification);

 private:
  mutable std::recursive_mutex mutex_;
  std::multimap<uint32_t, Client> clients_;  // guarded by mutex_
};

}  // namespace qv
