#pragma once
// How long library calls made from Python wait for the server's answer. The library waits as long
// as the server takes unless the calling thread sets a limit; Python sets one before every call
// from a default for the whole process (vekxapi.set_timeout) or the innermost
// `with vekxapi.timeout(s):` block of the calling thread. A call past it raises TargetTimeout
// (KXAPI_TIMEOUT) and leaves the connection usable.

#include <optional>

namespace vekx_python {

// The process-wide default in seconds; nullopt: no limit. Raises InvalidArgument for a number
// that is not positive or exceeds a day.
void SetDefaultTimeout(const std::optional<double>& seconds);
std::optional<double> DefaultTimeout();

// Gives the library this thread's current limit, when it changed since the last call. Cheap.
void ApplyAnswerLimit() noexcept;

// One `with vekxapi.timeout(s):` block: the thread's limit while it is open.
class TimeoutScope {
 public:
  explicit TimeoutScope(const std::optional<double>& seconds);
  void Enter();
  void Exit();

 private:
  unsigned long milliseconds_;  // 0: no limit
};

}  // namespace vekx_python
