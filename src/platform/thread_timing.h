#pragma once
// How closely the calling thread's timed waits end at their deadline.

namespace qv::platform {

// Ends the calling thread's timed waits within a microsecond of their deadline. Linux otherwise
// lets a wait run up to 50 us late so that wake-ups can be merged: too late for a wait that is
// itself a few tens of microseconds. Elsewhere nothing changes.
void UsePreciseTimedWaits() noexcept;

}  // namespace qv::platform
