#include "server/kits/console_cache.h"

#include <algorithm>

namespace qv::server {

std::u16string ConsoleCache::Add(ConsoleCacheRecord piece) {
  pieces_.push_back(std::move(piece));
  std::u16string dropped;
  if (pieces_.size() > size_) dropped = std::move(pieces_.front().Text);
  Trim();
  return dropped;
}

bool ConsoleCache::SetSize(uint32_t size) {
  if (size == 0 || size > kMaxSize) return false;
  size_ = size;
  Trim();
  return true;
}

void ConsoleCache::Clear() {
  first_index_ = UpperBound();
  pieces_.clear();
}

uint32_t ConsoleCache::Fetch(uint32_t start, ConsoleCacheRecordList& pieces) const {
  pieces.clear();
  if (start >= UpperBound()) return UpperBound();
  const uint32_t from = std::max(start, first_index_);
  const uint32_t count = std::min(UpperBound() - from, kFetchLimit);
  const auto begin = pieces_.begin() + (from - first_index_);
  pieces.assign(begin, begin + count);
  return from + count;
}

void ConsoleCache::Trim() {
  while (pieces_.size() > size_) {
    pieces_.pop_front();
    ++first_index_;
  }
}

}  // namespace qv::server
