#pragma once
// A target in Python: its state as properties, its actions as methods, its console, and loading
// and finding its processes.

#include <pybind11/pybind11.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "console_stream.h"
#include "debug_objects.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

class Target {
 public:
  // Reads the handle, which never changes.
  explicit Target(vekx::ComPtr<ITarget> target);

  ITarget& Get() const { return *target_.Get(); }
  const vekx::ComPtr<ITarget>& Pointer() const { return target_; }
  std::uint32_t handle() const { return handle_; }
  std::string name() const;
  std::string host() const;
  // "on", "off", "standby", "suspended", "main-on-standby", "unknown".
  std::string power() const;
  // "available", "connected", "in-use".
  std::string connection() const;
  // The index the next console piece will get in the target's console cache.
  std::uint32_t console_index() const;
  // The server's facts about the target, name to value, in the server's order.
  pybind11::dict info() const;

  // One call that returns when the target has done it (PowerOn, Reboot, Connect, ...).
  void Act(HRESULT (STDMETHODCALLTYPE ITarget::*action)()) const;

  std::unique_ptr<ConsoleStream> Console(bool follow, std::uint32_t since,
                                         std::optional<double> timeout) const;
  void SendConsole(const std::string& text, std::uint32_t port) const;

  // Starts `path` (a file of this machine is loaded from the host, any other path from the
  // target's own file system) with `args`.
  Process Load(const std::string& path, const std::vector<std::string>& args, bool stop_at_entry,
               const std::string& cwd) const;
  std::vector<Process> Processes() const;

 private:
  vekx::ComPtr<ITarget> target_;
  std::uint32_t handle_ = 0;
};

}  // namespace vekx_python
