#include "requests/event_registry.h"

#include <iterator>
#include <new>

#include "vekxapi/result_codes.h"

namespace qv {

HRESULT EventRegistry::Register(Client client, uint32_t key,
                                const std::function<HRESULT()>& subscribe) {
  if (client == nullptr) return E_POINTER;
  std::lock_guard lock(mutex_);
  const auto [first, last] = clients_.equal_range(key);
  for (auto it = first; it != last; ++it) {
    if (it->second->IsSameSink(*client)) return KXAPI_ALREADY_REGISTERED;
  }
  const HRESULT subscribed = subscribe();
  if (subscribed != S_OK) return subscribed;
  try {
    // Equal keys keep their order of insertion, which is the order of delivery.
    clients_.emplace(key, std::move(client));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

size_t EventRegistry::Unregister(const IVEEventNotifyClient& client, uint32_t key) {
  Client removed;  // released after the lock, so that a sink's release never runs under it
  std::lock_guard lock(mutex_);
  const auto [first, last] = clients_.equal_range(key);
  for (auto it = first; it != last; ++it) {
    if (it->second->IsSameSink(client)) {
      removed = std::move(it->second);
      clients_.erase(it);
      break;
    }
  }
  return clients_.count(key);
}

size_t EventRegistry::Count(uint32_t key) const {
  std::lock_guard lock(mutex_);
  return clients_.count(key);
}

void EventRegistry::DropAll(uint32_t key) {
  std::multimap<uint32_t, Client> removed;  // released after the lock
  std::lock_guard lock(mutex_);
  // Moving nodes allocates nothing.
  for (auto it = clients_.find(key); it != clients_.end() && it->first == key;) {
    removed.insert(clients_.extract(it++));
  }
}

std::vector<uint32_t> EventRegistry::Keys() const {
  std::vector<uint32_t> keys;
  std::lock_guard lock(mutex_);
  try {
    for (auto it = clients_.begin(); it != clients_.end(); it = clients_.upper_bound(it->first)) {
      keys.push_back(it->first);
    }
  } catch (const std::bad_alloc&) {
    keys.clear();
  }
  return keys;
}

void EventRegistry::Deliver(uint32_t key, uint32_t slot,
                            const std::shared_ptr<CNotification>& notification) {
  if (notification == nullptr) return;
  std::vector<Client> targets;  // dropped after the lock is left
  std::lock_guard lock(mutex_);
  const auto [first, last] = clients_.equal_range(key);
  try {
    targets.reserve(static_cast<size_t>(std::distance(first, last)));
    for (auto it = first; it != last; ++it)
      targets.push_back(it->second);
  } catch (const std::bad_alloc&) {
    return;  // without memory for the copy, this notification reaches no sink
  }
  for (const Client& client : targets)
    client->Deliver(slot, notification);
}

}  // namespace qv
