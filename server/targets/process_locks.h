#pragma once
// Who holds which process's lock. The holder of a lock owns the process: other clients may read
// it but not run, stop or change it. A lock on process 0 covers every process of its target, so
// it cannot be taken while another client holds a lock on one of them, and the reverse.
//
// The table only decides; it says what changed (taken, released, asked for) and the registry,
// whose lock guards it, turns that into the ProcessLock group's notifications.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/core/status.h"

namespace qv::server {

class ProcessLocks {
 public:
  struct Holder {
    uint64_t client = 0;
    std::u16string name;  // what the lock's events give as its owner
  };
  struct Change {
    enum class Kind { kTaken, kReleased, kAsked };
    Kind kind;
    uint32_t target;
    uint32_t pid;
    std::u16string who;  // the new owner (kTaken) or the one who asks (kAsked)
  };
  using Changes = std::vector<Change>;

  // Takes the lock for `holder`; held by another, its owner is asked and the request refused.
  Status Request(uint32_t target, uint32_t pid, const Holder& holder, Changes& changes);
  Status Release(uint32_t target, uint32_t pid, uint64_t client, Changes& changes);
  // Gives the lock that `client` holds to `to`; `client` may reclaim it while `to` holds it.
  Status Transfer(uint32_t target, uint32_t pid, uint64_t client, const Holder& to,
                  Changes& changes);
  Status Reclaim(uint32_t target, uint32_t pid, uint64_t client, Changes& changes);
  // The holder of the lock, if it is held.
  const Holder* Owner(uint32_t target, uint32_t pid) const;
  // Ok unless another client holds the lock of `pid` or of the whole target.
  Status MayChange(uint32_t target, uint32_t pid, uint64_t client) const;
  // The client is gone: its locks are released and it can no longer reclaim what it lent.
  void ForgetClient(uint64_t client, Changes& changes);
  // The target is gone, and its locks with it.
  void ForgetTarget(uint32_t target);

 private:
  struct Entry {
    Holder holder;
    std::optional<Holder> lender;  // who transferred it, and may take it back
  };
  using Key = std::pair<uint32_t, uint32_t>;
  // A lock of another client that stands in the way of `client` taking or using (target, pid).
  const Entry* Blocking(uint32_t target, uint32_t pid, uint64_t client) const;
  // The lock (target, pid) as `client` holds it, or a failure saying why not.
  Status Owned(uint32_t target, uint32_t pid, uint64_t client, Entry*& entry);

  std::map<Key, Entry> locks_;
};

}  // namespace qv::server
