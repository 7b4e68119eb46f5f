#pragma once
// A byte array that is made only to be filled at once: the bytes of a memory read land in it
// straight from the pipe.

#include "platform/automation.h"

namespace qv::platform {

// A new one-dimensional VT_UI1 safe array of `count` bytes from index 0, every byte of which the
// caller overwrites before anyone else sees it. On POSIX the bytes are left as the allocator
// gives them (zeroing megabytes only to overwrite them costs as much as a copy); on Windows it is
// SafeArrayCreateVector's array. Destroyed with SafeArrayDestroy. Null when memory runs out.
SAFEARRAY* CreateByteArrayForOverwrite(ULONG count) noexcept;

}  // namespace qv::platform
