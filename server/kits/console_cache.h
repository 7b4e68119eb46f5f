#pragma once
// A target's console cache: the last pieces of console output, each with an index that grows by
// one per piece and is never reused (not even after a clear), so a reader that loops from the
// index it was given back never sees a piece twice and never skips one still held.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "requests/wire_types.h"

namespace qv::server {

class ConsoleCache {
 public:
  static constexpr uint32_t kDefaultSize = 1024;     // pieces held when no client set a size
  static constexpr uint32_t kMaxSize = 1024 * 1024;  // the largest size a client may set
  static constexpr uint32_t kFetchLimit = 256;       // pieces one fetch returns at most

  // Keeps `piece`, dropping the oldest beyond the size; returns the text of the piece dropped
  // (empty when none was), whose block the caller may reuse.
  std::u16string Add(ConsoleCacheRecord piece);
  // The index the next piece gets.
  uint32_t UpperBound() const { return first_index_ + static_cast<uint32_t>(pieces_.size()); }
  uint32_t Size() const { return size_; }
  // 1 to kMaxSize; a smaller size drops the oldest pieces at once.
  bool SetSize(uint32_t size);
  // Drops every piece; indices carry on from where they were.
  void Clear();
  // Up to kFetchLimit pieces from `start` on (from the oldest held, if `start` has gone), and
  // the index to fetch from next: UpperBound() once everything has been read. A `start` beyond
  // UpperBound() returns nothing and UpperBound().
  uint32_t Fetch(uint32_t start, ConsoleCacheRecordList& pieces) const;

 private:
  void Trim();

  std::deque<ConsoleCacheRecord> pieces_;
  uint32_t first_index_ = 0;  // of pieces_.front()
  uint32_t size_ = kDefaultSize;
};

}  // namespace qv::server
