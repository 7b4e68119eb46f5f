#include "server/protocols/byte_queue.h"

#include <algorithm>
#include <cstring>

namespace qv::server {

size_t ByteQueue::Push(const uint8_t* data, size_t size, std::chrono::milliseconds wait) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, wait, [&] { return closed_ || count_ < ring_.size(); });
  if (closed_) return 0;
  const size_t taken = std::min(size, ring_.size() - count_);
  size_t tail = (head_ + count_) % ring_.size();
  size_t done = 0;
  while (done < taken) {
    const size_t piece = std::min(taken - done, ring_.size() - tail);
    std::memcpy(ring_.data() + tail, data + done, piece);
    done += piece;
    tail = (tail + piece) % ring_.size();
  }
  count_ += taken;
  if (taken != 0) changed_.notify_all();
  return taken;
}

size_t ByteQueue::TakeLocked(size_t size, uint8_t* out) {
  const size_t taken = std::min(size, count_);
  size_t done = 0;
  while (done < taken) {
    const size_t piece = std::min(taken - done, ring_.size() - head_);
    if (out != nullptr) std::memcpy(out + done, ring_.data() + head_, piece);
    done += piece;
    head_ = (head_ + piece) % ring_.size();
  }
  count_ -= taken;
  if (taken != 0) changed_.notify_all();
  return taken;
}

void ByteQueue::Pop(size_t size, std::chrono::milliseconds wait, Bytes& out) {
  // Sized before the lock: nothing may throw while it is held and the ring half taken.
  out.resize(std::min(size, ring_.size()));
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, wait, [&] { return closed_ || count_ != 0; });
  out.resize(TakeLocked(out.size(), out.data()));
}

std::optional<std::string> ByteQueue::PopLine() {
  std::unique_lock lock(mutex_);
  for (;;) {
    for (size_t i = 0; i < count_; ++i) {
      if (ring_[(head_ + i) % ring_.size()] != '\n') continue;
      std::string line(i, '\0');
      TakeLocked(i, reinterpret_cast<uint8_t*>(line.data()));
      TakeLocked(1, nullptr);
      return line;
    }
    // A line longer than the ring can never complete: the writer would wait for ever.
    if (closed_ || count_ == ring_.size()) return std::nullopt;
    changed_.wait(lock);
  }
}

void ByteQueue::Close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

bool ByteQueue::IsClosed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

bool ByteQueue::IsDrained() const {
  std::lock_guard lock(mutex_);
  return closed_ && count_ == 0;
}

}  // namespace qv::server
