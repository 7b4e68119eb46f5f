#pragma once
// The tool's one root object, made on first use: commands that only look at the server process
// (server status, server stop) must not make one, since asking the library anything starts the
// server.

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

class Session {
 public:
  Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  // Disposes of the root object, closing the connection to the server.
  ~Session();

  // The root object, compatible with the generation this tool is written for. Throws Failure.
  IVEKXAPI12& Api();

 private:
  vekx::ComPtr<IVEKXAPI12> api_;
};

}  // namespace vesta_ctrl
