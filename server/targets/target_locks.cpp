// The process locks of the registry's targets (process_locks.h decides; this announces).
#include <algorithm>
#include <string>

#include "platform/wide_string.h"
#include "requests/notifications.h"
#include "server/targets/target_registry.h"

namespace qv::server {

Status TargetRegistry::ChangeProcessLock(uint64_t client_id, uint32_t handle, uint32_t pid,
                                         LockAction action, std::u16string_view requester,
                                         uint32_t to_process_id) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  const std::u16string own_name =
      requester.empty() ? u"the client of process " +
                              platform::Utf8ToUtf16(std::to_string(ProcessIdOf(client_id)))
                        : std::u16string(requester);
  ProcessLocks::Changes changes;
  Status status = Status::Ok();
  switch (action) {
    case LockAction::kRequest:
      status = locks_.Request(handle, pid, {client_id, own_name}, changes);
      break;
    case LockAction::kRelease:
      status = locks_.Release(handle, pid, client_id, changes);
      break;
    case LockAction::kReclaim:
      status = locks_.Reclaim(handle, pid, client_id, changes);
      break;
    case LockAction::kTransfer: {
      // The newest other client of that OS process: a tool with two connections gives the
      // lock to the one it opened last.
      const auto to = std::find_if(clients_.rbegin(), clients_.rend(), [&](const auto& client) {
        return client.first != client_id && client.second.first.process_id == to_process_id;
      });
      if (to == clients_.rend()) {
        return Status::Fail(KXAPI_COMMS_ERR_INVALID_ARG,
                            u"no other client of process " +
                                platform::Utf8ToUtf16(std::to_string(to_process_id)) +
                                u" is connected to take the lock");
      }
      const std::u16string name =
          u"the client of process " + platform::Utf8ToUtf16(std::to_string(to_process_id));
      status = locks_.Transfer(handle, pid, client_id, {to->first, name}, changes);
      break;
    }
  }
  NotifyLockChanges(changes);
  return status;
}

Status TargetRegistry::ProcessLockOwner(uint32_t handle, uint32_t pid, bool& locked,
                                        std::u16string& owner) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  const ProcessLocks::Holder* holder = locks_.Owner(handle, pid);
  locked = holder != nullptr;
  owner = locked ? holder->name : std::u16string();
  return Status::Ok();
}

void TargetRegistry::NotifyLockChanges(const ProcessLocks::Changes& changes) {
  for (const ProcessLocks::Change& change : changes) {
    switch (change.kind) {
      case ProcessLocks::Change::Kind::kTaken:
      case ProcessLocks::Change::Kind::kReleased: {
        const bool released = change.kind == ProcessLocks::Change::Kind::kReleased;
        if (released) {
          CLockReleaseNotification release;
          release.TargetKey = change.target;
          release.ProcessId = change.pid;
          Notify(EventGroup::ProcessLock, change.target, release);
        }
        CLockStatusChangedNotification status;
        status.TargetKey = change.target;
        status.ProcessId = change.pid;
        status.Available = released;
        status.Owner = change.who;
        Notify(EventGroup::ProcessLock, change.target, status);
        break;
      }
      case ProcessLocks::Change::Kind::kAsked: {
        COwnershipRequestNotification asked;
        asked.TargetKey = change.target;
        asked.ProcessId = change.pid;
        asked.Requester = change.who;
        Notify(EventGroup::ProcessLock, change.target, asked);
        break;
      }
    }
  }
}

}  // namespace qv::server
