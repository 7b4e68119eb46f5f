#pragma once
// The two ways a command ends badly, which main() turns into exit codes: the user asked for
// something that cannot be (exit 2, like a command-line mistake), or the library or the server
// refused (exit 1, with the library's own description).

#include <stdexcept>
#include <string>

#include "platform/automation.h"

namespace vesta_ctrl {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Failure : public std::runtime_error {
 public:
  Failure(HRESULT code, const std::string& message) : std::runtime_error(message), code_(code) {}
  // S_OK when the failure is the tool's own finding rather than a call's result.
  HRESULT code() const noexcept { return code_; }

 private:
  HRESULT code_;
};

// Throws Failure for a failed call, with the description the library left in the thread's error
// object.
void Check(HRESULT result);

}  // namespace vesta_ctrl
