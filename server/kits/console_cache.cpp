#include "server/kits/console_cache.h"

#include <algorithm>

namespace qv::server {

void ConsoleCache::Add(ConsoleCacheRecord piece) {
  // A full cache writes the new piece over the text of the oldest, when that has about the room:
  // a server with many busy consoles otherwise frees, for every piece, a block it last touched a
  // thousand pieces ago, and that costs more than the copy. Only about the room, so that one long
  // piece does not keep its block going round for short ones.
  if (pieces_.size() == size_) {
    std::u16string& oldest = pieces_.front().Text;
    const size_t room = oldest.capacity();
    if (room >= piece.Text.size() && room <= 2 * piece.Text.size() + kRecycleSlack) {
      oldest.assign(piece.Text);
      piece.Text.swap(oldest);
    }
  }
  pieces_.push_back(std::move(piece));
  Trim();
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
