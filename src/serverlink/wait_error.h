#pragma once
// How a wait for a response ended, as an error code of the category "WaitError".

#include <system_error>

namespace qv {

enum class WaitError {
  kWaitSuccess = 0,
  kWaitAbandoned = 1,
  kWaitAbort = 2,         // the pending-response store was aborted: the connection closed
  kWaitTimedOut = 3,      // the caller's answer limit passed first
  kWaitReadYourself = 4,  // nobody reads the pipe: the caller is to read it for its answer
};

class WaitErrorCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "WaitError"; }
  std::string message(int value) const override;

  // The one instance that error codes of this category refer to.
  static const WaitErrorCategory& Get();
};

inline std::error_code make_error_code(WaitError error) {
  return {static_cast<int>(error), WaitErrorCategory::Get()};
}

}  // namespace qv

template <>
struct std::is_error_code_enum<qv::WaitError> : std::true_type {};
