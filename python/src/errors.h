#pragma once
// Failures of the library as Python exceptions: a result code becomes an instance of one of
// vekxapi.Error's subclasses, carrying the code, its name and the library's description.

#include <pybind11/pybind11.h>

#include <string>
#include <type_traits>

#include "answer_limit.h"
#include "vekxapi/automation.h"

namespace vekx_python {

// The exception classes of vekxapi._errors, in the order of its _KINDS.
enum class Kind { kError, kTarget, kTimeout, kServer, kInvalidArgument, kNotFound, kNotSupported };

// The name of a result code ("KXAPI_TIMEOUT", "E_INVALIDARG"), or its hexadecimal digits.
std::string ResultName(HRESULT code);

// Raises the exception for `code` with `description`. Needs the GIL.
[[noreturn]] void Raise(HRESULT code, const std::string& description);
// Raises the exception of `kind` for a failure this package finds itself (no such target, a wait
// that ran out), with `code` the library's nearest result code.
[[noreturn]] void Raise(Kind kind, HRESULT code, const std::string& description);

// Nothing for success; for a failure, the exception with the description the library left in
// this thread's error object. Call it with the GIL, on the thread that made the call.
inline void Check(HRESULT code) {
  if (FAILED(code)) Raise(code, std::string());
}

// Runs `call` with the GIL released and takes the GIL back. Not a scoped object on purpose: a
// daemon thread that takes the GIL back while the interpreter ends is ended by Python with a
// forced unwind, which aborts the process when it starts in a destructor.
template <class Call>
auto WithoutGil(Call&& call) -> decltype(call()) {
  ApplyAnswerLimit();
  PyThreadState* state = PyEval_SaveThread();
  if constexpr (std::is_void_v<decltype(call())>) {
    try {
      call();
    } catch (...) {
      PyEval_RestoreThread(state);
      throw;
    }
    PyEval_RestoreThread(state);
  } else {
    decltype(call()) result{};
    try {
      result = call();
    } catch (...) {
      PyEval_RestoreThread(state);
      throw;
    }
    PyEval_RestoreThread(state);
    return result;
  }
}

// Runs `call` (one call into the library) with the GIL released, so that other Python threads
// run while it waits on the server, and checks its result.
template <class Call>
void Unlocked(Call&& call) {
  Check(WithoutGil(call));
}

}  // namespace vekx_python
