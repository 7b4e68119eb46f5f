#include "server/core/frame_budget.h"

#include <algorithm>
#include <chrono>

namespace qv::server {

bool FrameBudget::Acquire(size_t bytes, const std::function<bool()>& stopped) {
  std::unique_lock lock(mutex_);
  while (held_ != 0 && bytes > limit_ - std::min(held_, limit_)) {
    if (stopped()) return false;
    released_.wait_for(lock, std::chrono::milliseconds(20));
  }
  held_ += bytes;
  return true;
}

void FrameBudget::Release(size_t bytes) {
  {
    std::lock_guard lock(mutex_);
    held_ -= std::min(bytes, held_);
  }
  released_.notify_all();
}

std::shared_ptr<void> FrameBudget::HoldUntilDropped(size_t bytes) {
  if (bytes == 0) return nullptr;
  try {
    return std::shared_ptr<void>(nullptr, [this, bytes](void*) { Release(bytes); });
  } catch (...) {
    Release(bytes);  // no room for the holder: given back now rather than never
    return nullptr;
  }
}

size_t FrameBudget::Held() const {
  std::lock_guard lock(mutex_);
  return held_;
}

}  // namespace qv::server
