#pragma once
// Blocks of whole pages for large reads of a process's memory, which the pipe may lend to the
// socket rather than copy (serverlink/lendable_pages.h). A block the channel has reclaimed goes
// back to a small pool when its last keeper lets go, and is reused with its pages still mapped
// in, which spares a fault per page on the next read; a block let go before then is unmapped,
// so that the pages the socket still holds are never written again.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "serverlink/lendable_pages.h"

namespace qv::server {

class PageBlock final : public LendablePages {
 public:
  PageBlock(const PageBlock&) = delete;
  PageBlock& operator=(const PageBlock&) = delete;

  // A block of at least `size` bytes, pooled or newly mapped; null when the system has no memory.
  static std::shared_ptr<PageBlock> Take(size_t size) noexcept;

  uint8_t* data() const noexcept { return data_; }
  size_t capacity() const noexcept { return capacity_; }
  void Reclaimed() noexcept override { reclaimed_.store(true, std::memory_order_release); }

  // The pool keeps at most this many blocks and bytes; what does not fit is unmapped.
  static constexpr size_t kPooledBlocks = 4;
  static constexpr size_t kPooledBytes = 32 << 20;

 private:
  PageBlock(uint8_t* data, size_t capacity) noexcept : data_(data), capacity_(capacity) {}
  ~PageBlock();
  // The deleter of every block handed out: to the pool when reclaimed and there is room.
  static void Release(PageBlock* block) noexcept;

  uint8_t* const data_;
  const size_t capacity_;
  std::atomic<bool> reclaimed_{false};
};

}  // namespace qv::server
