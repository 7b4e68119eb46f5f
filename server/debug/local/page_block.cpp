#include "server/debug/local/page_block.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

namespace qv::server {
namespace {

struct Pool {
  std::mutex mutex;
  std::vector<PageBlock*> blocks;  // guarded by mutex
  size_t bytes = 0;                // guarded by mutex
};

Pool& ThePool() noexcept {
  static Pool* pool = new Pool;  // never destroyed: blocks may come back during exit
  return *pool;
}

size_t PageSize() noexcept {
  static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

}  // namespace

PageBlock::~PageBlock() {
  munmap(data_, capacity_);
}

std::shared_ptr<PageBlock> PageBlock::Take(size_t size) noexcept {
  PageBlock* block = nullptr;
  {
    Pool& pool = ThePool();
    std::lock_guard lock(pool.mutex);
    // The smallest block that is large enough.
    auto best = pool.blocks.end();
    for (auto it = pool.blocks.begin(); it != pool.blocks.end(); ++it) {
      if ((*it)->capacity_ >= size &&
          (best == pool.blocks.end() || (*it)->capacity_ < (*best)->capacity_))
        best = it;
    }
    if (best != pool.blocks.end()) {
      block = *best;
      pool.bytes -= block->capacity_;
      pool.blocks.erase(best);
    }
  }
  if (block == nullptr) {
    const size_t capacity = std::max<size_t>((size + PageSize() - 1) / PageSize(), 1) * PageSize();
    void* data =
        mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data == MAP_FAILED) return nullptr;
    block = new (std::nothrow) PageBlock(static_cast<uint8_t*>(data), capacity);
    if (block == nullptr) {
      munmap(data, capacity);
      return nullptr;
    }
  }
  block->reclaimed_.store(false, std::memory_order_relaxed);
  try {
    return std::shared_ptr<PageBlock>(block, &PageBlock::Release);
  } catch (const std::bad_alloc&) {
    return nullptr;  // the shared_ptr has let the block go through Release
  }
}

void PageBlock::Release(PageBlock* block) noexcept {
  if (block->reclaimed_.load(std::memory_order_acquire)) {
    Pool& pool = ThePool();
    std::lock_guard lock(pool.mutex);
    if (pool.blocks.size() < kPooledBlocks && pool.bytes + block->capacity_ <= kPooledBytes) {
      try {
        pool.blocks.push_back(block);
        pool.bytes += block->capacity_;
        return;
      } catch (const std::bad_alloc&) {
      }
    }
  }
  delete block;
}

}  // namespace qv::server
