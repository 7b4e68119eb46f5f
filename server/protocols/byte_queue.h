#pragma once
// A bounded queue of bytes between one writer side and one reader side of a channel, with the
// bounded waits of protocol_channel.h. A ring of fixed capacity: no allocation after creation.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "requests/wire_types.h"

namespace qv::server {

class ByteQueue {
 public:
  explicit ByteQueue(size_t capacity) : ring_(capacity) {}

  // Appends what fits of `size` bytes, waiting up to `wait` while there is no room at all;
  // returns how many were taken (0 once closed).
  size_t Push(const uint8_t* data, size_t size, std::chrono::milliseconds wait);
  // Takes up to `size` bytes into `out`, waiting up to `wait` while the queue is empty.
  void Pop(size_t size, std::chrono::milliseconds wait, Bytes& out);
  // The next line without its '\n', waiting until one is complete; nullopt once closed.
  std::optional<std::string> PopLine();
  // No more bytes go in, and every wait ends; what is queued can still be taken.
  void Close();
  bool IsClosed() const;
  // Closed and empty: a reader has nothing more to come.
  bool IsDrained() const;

 private:
  size_t TakeLocked(size_t size, uint8_t* out);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<uint8_t> ring_;  // guarded by mutex_ (its contents)
  size_t head_ = 0;            // guarded by mutex_: the first queued byte
  size_t count_ = 0;           // guarded by mutex_
  bool closed_ = false;        // guarded by mutex_
};

}  // namespace qv::server
