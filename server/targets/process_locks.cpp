#include "server/targets/process_locks.h"

#include <string>

#include "platform/wide_string.h"

namespace qv::server {
namespace {

std::u16string Which(uint32_t pid) {
  return pid == 0 ? std::u16string(u"the target's processes")
                  : u"process " + platform::Utf8ToUtf16(std::to_string(pid));
}

}  // namespace

const ProcessLocks::Entry* ProcessLocks::Blocking(uint32_t target, uint32_t pid,
                                                  uint64_t client) const {
  auto foreign = [&](const Entry& entry) { return entry.holder.client != client; };
  if (pid == 0) {
    // The whole target: any lock on it stands in the way.
    for (auto it = locks_.lower_bound({target, 0}); it != locks_.end() && it->first.first == target;
         ++it) {
      if (foreign(it->second)) return &it->second;
    }
    return nullptr;
  }
  for (const Key& key : {Key{target, pid}, Key{target, 0}}) {
    const auto it = locks_.find(key);
    if (it != locks_.end() && foreign(it->second)) return &it->second;
  }
  return nullptr;
}

Status ProcessLocks::Owned(uint32_t target, uint32_t pid, uint64_t client, Entry*& entry) {
  const auto it = locks_.find({target, pid});
  if (it == locks_.end() || it->second.holder.client != client) {
    return Status::Fail(KXAPI_ERR_NOT_PROCESS_OWNER,
                        u"this client does not hold the lock of " + Which(pid));
  }
  entry = &it->second;
  return Status::Ok();
}

Status ProcessLocks::Request(uint32_t target, uint32_t pid, const Holder& holder,
                             Changes& changes) {
  if (const Entry* other = Blocking(target, pid, holder.client)) {
    changes.push_back({Change::Kind::kAsked, target, pid, holder.name});
    return Status::Fail(KXAPI_COMMS_ERR_TARGET_IN_USE,
                        Which(pid) + u" is locked by " + other->holder.name +
                            u"; it has been asked to release or transfer the lock");
  }
  if (locks_.count({target, pid}) != 0) {
    return Status::Fail(KXAPI_ERR_ALREADY_PROCESS_OWNER,
                        u"this client already holds the lock of " + Which(pid));
  }
  locks_[{target, pid}] = Entry{holder, std::nullopt};
  changes.push_back({Change::Kind::kTaken, target, pid, holder.name});
  return Status::Ok();
}

Status ProcessLocks::Release(uint32_t target, uint32_t pid, uint64_t client, Changes& changes) {
  Entry* entry = nullptr;
  if (Status status = Owned(target, pid, client, entry); !status.ok()) return status;
  locks_.erase({target, pid});
  changes.push_back({Change::Kind::kReleased, target, pid, {}});
  return Status::Ok();
}

Status ProcessLocks::Transfer(uint32_t target, uint32_t pid, uint64_t client, const Holder& to,
                              Changes& changes) {
  Entry* entry = nullptr;
  if (Status status = Owned(target, pid, client, entry); !status.ok()) return status;
  if (to.client == client) {
    return Status::Fail(KXAPI_ERR_ALREADY_PROCESS_OWNER,
                        u"this client already holds the lock of " + Which(pid));
  }
  entry->lender = entry->holder;
  entry->holder = to;
  changes.push_back({Change::Kind::kTaken, target, pid, to.name});
  return Status::Ok();
}

Status ProcessLocks::Reclaim(uint32_t target, uint32_t pid, uint64_t client, Changes& changes) {
  const auto it = locks_.find({target, pid});
  if (it == locks_.end() || !it->second.lender || it->second.lender->client != client) {
    return Status::Fail(KXAPI_ERR_PROCESS_OWNERSHIP_TRANSFER_NOT_IN_PROGRESS,
                        u"this client has not transferred the lock of " + Which(pid));
  }
  it->second.holder = *it->second.lender;
  it->second.lender.reset();
  changes.push_back({Change::Kind::kTaken, target, pid, it->second.holder.name});
  return Status::Ok();
}

const ProcessLocks::Holder* ProcessLocks::Owner(uint32_t target, uint32_t pid) const {
  const auto it = locks_.find({target, pid});
  return it == locks_.end() ? nullptr : &it->second.holder;
}

Status ProcessLocks::MayChange(uint32_t target, uint32_t pid, uint64_t client) const {
  // The process's own lock, then the whole target's; a call about no process in particular
  // (pid 0: loading one, say) meets only the latter.
  for (const Key& key : {Key{target, pid}, Key{target, 0}}) {
    const auto it = locks_.find(key);
    if (it == locks_.end() || it->second.holder.client == client) continue;
    return Status::Fail(KXAPI_ERR_NOT_PROCESS_OWNER,
                        Which(pid) + u" is locked by " + it->second.holder.name +
                            u"; only the lock's owner may run, stop or change it");
  }
  return Status::Ok();
}

void ProcessLocks::ForgetClient(uint64_t client, Changes& changes) {
  for (auto it = locks_.begin(); it != locks_.end();) {
    Entry& entry = it->second;
    if (entry.lender && entry.lender->client == client) entry.lender.reset();
    if (entry.holder.client != client) {
      ++it;
      continue;
    }
    changes.push_back({Change::Kind::kReleased, it->first.first, it->first.second, {}});
    it = locks_.erase(it);
  }
}

void ProcessLocks::ForgetTarget(uint32_t target) {
  std::erase_if(locks_, [&](const auto& lock) { return lock.first.first == target; });
}

}  // namespace qv::server
