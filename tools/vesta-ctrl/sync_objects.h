#pragma once
// The synchronisation objects of a process as `sync` shows them. The library hands each out as
// the interface of its kind (IVestaMutex, IUltRwlock, ...); the kind is the interface's name.

#include <nlohmann/json.hpp>

#include "platform/automation.h"

namespace vesta_ctrl {

// {"kind": "IVestaMutex", "kernel_id": 1, "user_id": "0x0", "name": "sample_lock", "owner": 1,
//  "waiters": [2]}. The owner is null for kinds without one; a user-level kind's owner and
// waiters are {"type": "ULT_THREAD_TYPE_KERNEL", "id": 1}; a read/write lock's waiters are its
// waiting readers, then its waiting writers. An object of no known kind is {"kind": null}.
// Throws Failure when the library fails.
nlohmann::ordered_json DescribeSyncObject(IDispatch& object);

}  // namespace vesta_ctrl
