#include "serverlink/link_status.h"

#include "vekxapi/result_codes.h"

namespace qv {

int32_t LinkStatusToResult(LinkStatus status) {
  switch (status) {
    case LinkStatus::kSuccess:
      return KXAPI_SUCCESS;
    case LinkStatus::kConnectFailed:
      return KXAPI_SERVER_CONNECTION_ERROR;
    case LinkStatus::kServerStartFailed:
      return KXAPI_SERVER_INITIALIZATION_FAILURE;
    case LinkStatus::kNotConnected:
      return KXAPI_NOT_CONNECTED;
    case LinkStatus::kSendFailed:
      return KXAPI_SEND_ERROR;
    case LinkStatus::kWriteFailed:
      return KXAPI_WRITE_ERROR;
    case LinkStatus::kWaitFailed:
      return KXAPI_WAIT_ERROR;
    case LinkStatus::kWrongResponseType:
      return KXAPI_INVALID_RESPONSE_TYPE;
    case LinkStatus::kVersionMismatch:
      return KXAPI_SERVER_VERSION_MISMATCH;
    case LinkStatus::kShuttingDown:
      return KXAPI_SHUTTING_DOWN;
    case LinkStatus::kServerNotReachable:
      return KXAPI_SERVER_INITIALIZATION_CHECK_FAILED;
    case LinkStatus::kTimedOut:
      return KXAPI_TIMEOUT;
  }
  return KXAPI_UNKNOWN;
}

}  // namespace qv
