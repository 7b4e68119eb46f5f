// The parts of the pipe that are the same on every system.
#include "platform/pipe.h"

namespace qv::platform {

IoResult Pipe::ReadExact(void* dest, size_t size, const StopSignal& stop) noexcept {
  auto* bytes = static_cast<uint8_t*>(dest);
  size_t done = 0;
  do {
    size_t got = 0;
    const IoResult result = ReadSome(bytes + done, size - done, got, stop);
    if (result != IoResult::kOk) return result;
    done += got;
  } while (done < size);
  return IoResult::kOk;
}

}  // namespace qv::platform
