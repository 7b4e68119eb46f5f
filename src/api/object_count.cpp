#include "api/object_count.h"

#include <atomic>

namespace qv {
namespace {

std::atomic<long> g_objects{0};
std::atomic<long> g_locks{0};

}  // namespace

void ObjectCreated() noexcept {
  g_objects.fetch_add(1, std::memory_order_relaxed);
}
void ObjectDestroyed() noexcept {
  g_objects.fetch_sub(1, std::memory_order_relaxed);
}
void ModuleLocked() noexcept {
  g_locks.fetch_add(1, std::memory_order_relaxed);
}
void ModuleUnlocked() noexcept {
  g_locks.fetch_sub(1, std::memory_order_relaxed);
}
bool ModuleIsIdle() noexcept {
  return g_objects.load(std::memory_order_acquire) == 0 &&
         g_locks.load(std::memory_order_acquire) == 0;
}

}  // namespace qv
