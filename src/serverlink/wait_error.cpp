#include "serverlink/wait_error.h"

namespace qv {

std::string WaitErrorCategory::message(int value) const {
  switch (static_cast<WaitError>(value)) {
    case WaitError::kWaitSuccess:
      return "WaitSuccess";
    case WaitError::kWaitAbandoned:
      return "WaitAbandoned";
    case WaitError::kWaitAbort:
      return "WaitAbort";
    case WaitError::kWaitTimedOut:
      return "WaitTimedOut";
    case WaitError::kWaitReadYourself:
      return "WaitReadYourself";
  }
  return "WaitUnknown";
}

const WaitErrorCategory& WaitErrorCategory::Get() {
  static const WaitErrorCategory category;
  return category;
}

}  // namespace qv
