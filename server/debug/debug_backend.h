#pragma once
// What stands behind a target's processes: the debug backend. Every debug operation of the
// catalogue reaches the target's backend as one call of the same name, with the decoded request
// and the response to fill. A backend overrides what it can do; whatever it does not override
// answers with a target error naming the operation, so a debugger learns at once what this kind
// of target lacks instead of waiting.
//
// Calls come from the clients' session threads, several at a time, and never with the target
// registry's lock held: a backend guards its own state, per process where it can, so that a
// long read on one process does not hold up calls on another. What a backend reports happening
// (a process created, a thread stopped) goes out through the DebugEvents it was given.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "requests/catalogue.h"
#include "server/core/status.h"

namespace qv::server {

// LOAD_PROCESS flag bit 0x1: the process is created stopped at its entry point.
inline constexpr uint32_t kLoadStopAtEntry = 0x1;

// The targets' page size, and their debug address registers (DR0..DR3): at most four hardware
// breakpoints at once.
inline constexpr uint64_t kPageSize = 4096;
inline constexpr uint64_t kPageMask = ~(kPageSize - 1);
inline constexpr size_t kHardwareSlots = 4;

// Whether a read of `size` bytes fits in one answer (a frame, with room for its head); the failure
// says how much may be read at a time.
Status CheckReadSize(uint64_t size);
// CheckReadSize for GET_LARGE_MEMORY, which also names a compression: only 0 (none) is served.
Status CheckLargeRead(uint64_t size, uint32_t compression);

// Who asks, and for which target.
struct DebugCall {
  uint64_t client_id = 0;
  uint32_t target = 0;
};

// Where a backend's notifications go: to the clients subscribed to the target's Debug group (and
// for console output, its console), in the order they are handed over. Post never blocks and may
// be called from any thread, with or without the backend's own locks held.
class DebugEvents {
 public:
  virtual ~DebugEvents() = default;
  virtual void Post(const CNotification& notification) = 0;
  // The target's handle, which notifications carry as their TargetKey.
  virtual uint32_t Target() const = 0;
};

class DebugBackend {
 public:
  virtual ~DebugBackend() = default;

  // One method per debug operation, named after it: Status GetMemory(const DebugCall&,
  // CGetMemoryRequest&, CGetMemoryResponse&), and so on.
#define VEKX_OPERATION(Camel, WIRE, number, request_fields, response_fields)        \
  virtual Status Camel(const DebugCall&, C##Camel##Request&, C##Camel##Response&) { \
    return Lacks(u## #WIRE);                                                        \
  }
#include "requests/debug_operations.def"

  // Console input for the target's processes that read their console (`process_id` 0 or
  // 0xFFFFFFFF: every one). Called with the registry's lock held: it must neither post nor wait.
  virtual void ConsoleInput(uint32_t /*process_id*/, const std::string& /*text*/) {}

  // Ends whatever the backend runs (threads, processes): its target was deleted or the server
  // stops. Called without the registry's lock, possibly more than once; what the backend posts
  // meanwhile is dropped.
  virtual void Shutdown() {}

 protected:
  // The answer of an operation this kind of target does not have.
  static Status Lacks(std::u16string_view operation) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_IMPLEMENTED,
                        std::u16string(operation) + u" is not available on this target");
  }
};

}  // namespace qv::server
