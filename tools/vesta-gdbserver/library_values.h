#pragma once
// Reading the library's answers into plain values. A failed call throws LibraryError with the
// library's description of it; the bridge turns that into an error reply for the one packet.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "vekxapi/checked.h"
#include "vekxapi/status.h"
#include "vekxapi/vekxapi.h"

namespace vesta_gdb {

class LibraryError : public std::runtime_error {
 public:
  LibraryError(HRESULT code, const std::string& message)
      : std::runtime_error(message), code_(code) {}
  HRESULT code() const noexcept { return code_; }

 private:
  HRESULT code_;
};

inline void Check(HRESULT result) {
  if (SUCCEEDED(result)) return;
  throw LibraryError(result, vekx::Status::Of(result).message());
}

// The library's arrays and properties as plain values (Library::Values, Array, Objects, Read),
// failures thrown as LibraryError.
using Library = vekx::Checked<&Check>;

}  // namespace vesta_gdb
