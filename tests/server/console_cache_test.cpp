// The console cache's indices: a reader looping on the next index sees every piece still held,
// once and in order, whatever the size (within its range), clearing and the fetch limit do.
#include "server/kits/console_cache.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace qv::server {
namespace {

// Pieces numbered by their timestamp, from `first` on.
void AddPieces(ConsoleCache& cache, uint64_t first, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i)
    cache.Add({1, 0, first + i, 0, 0, u"text"});
}

// Reads from `start` the way a client loops, until a fetch returns nothing.
std::vector<uint64_t> ReadFrom(const ConsoleCache& cache, uint32_t& next) {
  std::vector<uint64_t> seen;
  ConsoleCacheRecordList records;
  for (;;) {
    next = cache.Fetch(next, records);
    if (records.empty()) return seen;
    EXPECT_LE(records.size(), ConsoleCache::kFetchLimit);
    for (const auto& record : records)
      seen.push_back(record.Timestamp);
  }
}

std::vector<uint64_t> Range(uint64_t first, uint64_t count) {
  std::vector<uint64_t> values(count);
  std::iota(values.begin(), values.end(), first);
  return values;
}

TEST(ConsoleCacheTest, ALoopingReaderNeverSeesAGapOrARepeat) {
  ConsoleCache cache;
  EXPECT_FALSE(cache.SetSize(0));
  EXPECT_FALSE(cache.SetSize(ConsoleCache::kMaxSize + 1));
  EXPECT_EQ(cache.Size(), ConsoleCache::kDefaultSize);
  AddPieces(cache, 0, 600);  // more than two fetches' worth
  uint32_t next = 0;
  EXPECT_EQ(ReadFrom(cache, next), Range(0, 600));
  EXPECT_EQ(next, 600u);
  EXPECT_EQ(cache.UpperBound(), 600u);

  // New output after the reader caught up: exactly the new pieces.
  AddPieces(cache, 600, 5);
  EXPECT_EQ(ReadFrom(cache, next), Range(600, 5));

  // A smaller size drops the oldest; a reader behind them resumes at the oldest held.
  EXPECT_TRUE(cache.SetSize(ConsoleCache::kMaxSize));
  ASSERT_TRUE(cache.SetSize(10));
  uint32_t behind = 3;
  EXPECT_EQ(ReadFrom(cache, behind), Range(595, 10));
  EXPECT_EQ(behind, 605u);

  // A clear keeps the indices going: nothing is read twice, and new pieces follow.
  cache.Clear();
  EXPECT_EQ(cache.UpperBound(), 605u);
  uint32_t from_start = 0;
  EXPECT_TRUE(ReadFrom(cache, from_start).empty());
  AddPieces(cache, 605, 2);
  EXPECT_EQ(ReadFrom(cache, next), Range(605, 2));

  // Beyond the upper bound: nothing, and the upper bound to go on from.
  uint32_t ahead = 1000;
  EXPECT_TRUE(ReadFrom(cache, ahead).empty());
  EXPECT_EQ(ahead, cache.UpperBound());
}

}  // namespace
}  // namespace qv::server
