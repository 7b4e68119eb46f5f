#pragma once
// A target's console output as a Python iterator: the cached pieces from an index on, then with
// follow the live pieces as they come, each once and none missed. A live piece carries no cache
// index, but the server caches each piece and queues it to every subscriber in one step, so the
// pieces a subscriber receives are the cached ones from some index S on, without a hole. S lies
// between the cache index read just before subscribing and the one read just after; where those
// differ, the first live piece is found among the cached ones by its content.

#include <pybind11/pybind11.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "vekxapi/com_ptr.h"
#include "vekxapi/console_piece.h"
#include "vekxapi/vekxapi.h"

namespace vekx_python {

// A piece with its place in the target's console cache. Equal content (the index aside) is how
// the first live piece is found among the cached ones.
struct ConsolePiece : vekx::ConsolePiece {
  std::uint32_t index = 0;
};

class LiveConsole;

class ConsoleStream {
 public:
  // Reads the cache from `since` (its oldest piece when that one has gone); with `follow`,
  // subscribes first. `timeout` bounds the whole iteration in seconds (None: no bound).
  ConsoleStream(vekx::ComPtr<ITarget> target, std::uint32_t since, bool follow,
                std::optional<double> timeout);
  ~ConsoleStream();
  ConsoleStream(const ConsoleStream&) = delete;
  ConsoleStream& operator=(const ConsoleStream&) = delete;

  // The next piece; raises StopIteration at the cache's end (without follow), when the time-out
  // has passed, or once closed.
  ConsolePiece Next();
  // Unsubscribes; the iteration ends.
  void Close();

 private:
  vekx::ComPtr<ITarget> target_;
  vekx::ComPtr<LiveConsole> live_;
  std::deque<ConsolePiece> cached_;
  std::optional<double> deadline_;  // seconds on the steady clock
  bool closed_ = false;
};

}  // namespace vekx_python
