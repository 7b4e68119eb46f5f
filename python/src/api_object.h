#pragma once
// The root object in Python: connecting (which starts the server like any host), the targets and
// finding one, subscriptions, and disposing.

#include <pybind11/pybind11.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "subscriptions.h"
#include "target_object.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

class Api {
 public:
  // Makes the root object and checks that it serves the interface generation this package uses.
  Api();
  ~Api();
  Api(const Api&) = delete;
  Api& operator=(const Api&) = delete;

  std::vector<Target> Targets();
  // The target with the handle `spec` (an int, or a str of digits), else the one with that host
  // name, else the one with that name. NotFound when none has it or several share it.
  Target Find(const pybind11::object& spec);
  // Registers a host (or finds it, when registered already).
  Target Add(const std::string& host);

  // Subscribes `callback` to `groups` (None: all) of the server and of `target` (None: every
  // target known now).
  std::unique_ptr<Subscription> Subscribe(pybind11::object callback,
                                          const std::optional<std::vector<std::string>>& groups,
                                          const Target* target);

  std::array<std::uint32_t, 4> Version();
  std::array<std::uint32_t, 4> ServerVersion();
  std::string Describe(std::int64_t code);

  // Closes the connection; every later call raises ServerError. Disposing twice is fine.
  void Dispose();
  bool disposed() const { return !api_; }

 private:
  IVEKXAPI12& Root();

  vekx::ComPtr<IVEKXAPI12> api_;
};

}  // namespace vekx_python
