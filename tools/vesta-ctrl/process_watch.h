#pragma once
// Waiting for a process's next stop or end, as `resume --wait` does: subscribe to the target's
// Debug events first, then resume, then wait, so that a stop that follows the resume at once is
// not missed.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

class ProcessWatch {
 public:
  // Subscribes to `target`'s Debug events for process `pid`. Throws Failure.
  ProcessWatch(vekx::ComPtr<ITarget> target, std::uint32_t pid);
  // Unsubscribes.
  ~ProcessWatch();
  ProcessWatch(const ProcessWatch&) = delete;
  ProcessWatch& operator=(const ProcessWatch&) = delete;

  // The first of the process's stops, exits and kills since the subscription, waiting up to
  // `timeout` for one; nullopt when none came:
  //   {"event": "stop", "pid": 100, "tid": 1000, "reason": 131,
  //    "reason_name": "STOP_REASON_SIGSWBRKPT", "rip": "0x401004"}
  //   {"event": "exit", "pid": 100, "exit_code": 0}
  //   {"event": "kill", "pid": 100}
  std::optional<nlohmann::ordered_json> Wait(std::chrono::milliseconds timeout);

  class Sink;

 private:
  vekx::ComPtr<ITarget> target_;
  vekx::ComPtr<Sink> sink_;
};

}  // namespace vesta_ctrl
