#include "serverlink/link_status.h"

#include <gtest/gtest.h>

#include "vekxapi/result_codes.h"

namespace qv {
namespace {

TEST(LinkStatusTest, EveryStatusMapsToItsResultCode) {
  const struct {
    uint32_t status;
    int32_t result;
  } table[] = {
      {0, KXAPI_SUCCESS},
      {1, KXAPI_SERVER_CONNECTION_ERROR},
      {2, KXAPI_SERVER_INITIALIZATION_FAILURE},
      {3, KXAPI_NOT_CONNECTED},
      {4, KXAPI_SEND_ERROR},
      {5, KXAPI_WRITE_ERROR},
      {6, KXAPI_WAIT_ERROR},
      {7, KXAPI_INVALID_RESPONSE_TYPE},
      {8, KXAPI_SERVER_VERSION_MISMATCH},
      {9, KXAPI_SHUTTING_DOWN},
      {10, KXAPI_SERVER_INITIALIZATION_CHECK_FAILED},
      {11, KXAPI_TIMEOUT},
      {12, KXAPI_UNKNOWN},
      {0xFFFFFFFF, KXAPI_UNKNOWN},
  };
  for (const auto& row : table) {
    EXPECT_EQ(LinkStatusToResult(static_cast<LinkStatus>(row.status)), row.result)
        << "status " << row.status;
  }
  // The names' values are the result codes' test.
}

}  // namespace
}  // namespace qv
