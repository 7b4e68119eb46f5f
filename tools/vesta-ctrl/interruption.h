#pragma once
// The user's request to stop a command that runs until then (`console --follow`, `events`):
// Ctrl+C, and on POSIX also SIGTERM, on Windows also Ctrl+Break and closing the console. The
// command then unsubscribes and exits 0, as if it had ended by itself.

#include <functional>

namespace vesta_ctrl {

class Interruption {
 public:
  // Takes over Ctrl+C for as long as it lives; make it before the library starts its threads.
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  // Returns once the user has asked to stop, or once `done` (if given) returns true.
  void Wait(const std::function<bool()>& done = {}) const;
};

// Whether standard error is a terminal, where a progress bar can redraw its line.
bool StandardErrorIsTerminal();

}  // namespace vesta_ctrl
