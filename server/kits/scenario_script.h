#pragma once
// Turning a kit's script step back into the notification it pushes.

#include <cstdint>
#include <memory>

#include "requests/notifications.h"
#include "server/kits/scenario.h"
#include "server/kits/text_blocks.h"

namespace qv::server {

// The step's notification, with TargetKey set to `target_key` unless the script gave it, and the
// placeholders of its text fields expanded: `{time_ns}` to the server's steady clock in
// nanoseconds now, `{n}` to `repetition` (0 for the step's first sending). Null when the body does
// not decode (it was encoded from the same class, so that is our bug). Its texts go into blocks
// from `blocks`, when given and they have about the room.
std::shared_ptr<CNotification> ScriptedNotification(const ScriptStep& step, uint32_t target_key,
                                                    uint32_t repetition = 0,
                                                    TextBlocks* blocks = nullptr);

}  // namespace qv::server
