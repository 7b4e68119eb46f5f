#pragma once
// The small, closed status of the server link. It becomes one of the library's result codes only
// at the public boundary, through LinkStatusToResult.

#include <cstdint>

namespace qv {

enum class LinkStatus : uint32_t {
  kSuccess = 0,
  kConnectFailed = 1,        // a server pipe could not be opened or the handshake got no answer
  kServerStartFailed = 2,    // the server process could not be started
  kNotConnected = 3,         // no connection and none could be made
  kSendFailed = 4,           // a send failed
  kWriteFailed = 5,          // the request header or body could not be built
  kWaitFailed = 6,           // the write lock or the wait for the response gave up
  kWrongResponseType = 7,    // the response that arrived is of another class
  kVersionMismatch = 8,      // malformed handshake answer or another protocol version
  kShuttingDown = 9,         // the library is shutting down
  kServerNotReachable = 10,  // the server was started but never became ready
  kTimedOut = 11,            // no answer within the calling thread's answer limit
};

// The result code for a link status; any value outside the table maps to KXAPI_UNKNOWN.
int32_t LinkStatusToResult(LinkStatus status);

}  // namespace qv
