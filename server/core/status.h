#pragma once
// What a request handler answers: the result code and, on failure, a text for the user.

#include <cstdint>
#include <string>

#include "vekxapi/result_codes.h"

namespace qv::server {

struct Status {
  uint32_t code = 0;
  std::u16string text;

  static Status Ok() { return {}; }
  static Status Fail(eErrorCode code, std::u16string text) {
    return {static_cast<uint32_t>(code), std::move(text)};
  }
  bool ok() const { return code == 0; }
};

}  // namespace qv::server
