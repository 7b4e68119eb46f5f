// The server's core parts on their own: the console cache's indices, the bound on frame bodies
// held, and the worker pool.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "server/core/frame_budget.h"
#include "server/core/worker_pool.h"
#include "server/kits/console_cache.h"
#include "server/kits/text_blocks.h"

namespace qv::server {
namespace {

using std::chrono::seconds;

// Console cache pieces numbered by their timestamp, from `first` on.
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

// A reader looping on the next index sees every piece still held, once and in order, whatever the
// size (within its range), clearing and the fetch limit do.
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

  // A full cache hands back the text of the piece it drops for each new one (for its block to be
  // reused) and keeps each piece's own text and fields.
  ASSERT_TRUE(cache.SetSize(2));
  const std::u16string texts[] = {
      u"first piece of text", u"second", u"a third piece, longer than the first",
      u"fourth piece",        u"fifth",  u"sixth piece!"};
  for (uint32_t i = 0; i < std::size(texts); ++i) {
    EXPECT_EQ(cache.Add({i, 7, 900 + i, 0, 0, texts[i]}), i < 2 ? u"text" : texts[i - 2]) << i;
  }
  ConsoleCacheRecordList held;
  cache.Fetch(0, held);
  ASSERT_EQ(held.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(held[i].Text, texts[4 + i]);
    EXPECT_EQ(held[i].Port, 4 + i);
    EXPECT_EQ(held[i].Timestamp, 904 + i);
  }
}

// A text is given a kept block only when the block has about its room: never one too small, and
// never one so large that a long piece's block would go round for short ones.
TEST(TextBlocksTest, AKeptBlockGoesOnlyToATextOfAboutItsSize) {
  const struct {
    size_t block;   // characters the given block holds
    size_t length;  // of the text that asks for one
    bool reused;
  } cases[] = {
      {1000, 1000, true},  {1000, 600, true},  {1000, 999, true},
      {1000, 1001, false}, {1000, 400, false}, {16, 16, false},  // too small to be kept at all
  };
  for (const auto& c : cases) {
    TextBlocks blocks;
    std::u16string given(c.block, u'x');
    const char16_t* block = given.data();
    blocks.Give(std::move(given));
    std::u16string text;
    blocks.Take(c.length, text);
    EXPECT_EQ(text.data() == block, c.reused) << c.block << " for " << c.length;
    // Taken or let go, it is not offered twice.
    std::u16string again;
    blocks.Take(c.length, again);
    EXPECT_TRUE(again.empty()) << c.block << " for " << c.length;
  }
}

const auto kNever = [] { return false; };

// Bodies that fit go in at once; one that would pass the bound waits for a release; one larger
// than the bound goes in alone; a stop ends a wait without taking anything.
TEST(FrameBudgetTest, BoundsWhatIsHeldAndLetsALargerBodyInAlone) {
  FrameBudget budget(100);
  ASSERT_TRUE(budget.Acquire(60, kNever));
  ASSERT_TRUE(budget.Acquire(40, kNever));

  std::atomic<bool> stop{false};
  auto refused = std::async(std::launch::async,
                            [&] { return budget.Acquire(1, [&] { return stop.load(); }); });
  stop = true;
  EXPECT_FALSE(refused.get());
  EXPECT_EQ(budget.Held(), 100u);

  auto waiting = std::async(std::launch::async, [&] { return budget.Acquire(50, kNever); });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  { auto hold = budget.HoldUntilDropped(60); }
  ASSERT_EQ(waiting.wait_for(seconds(5)), std::future_status::ready);
  EXPECT_TRUE(waiting.get());
  EXPECT_EQ(budget.Held(), 90u);

  budget.Release(90);
  ASSERT_TRUE(budget.Acquire(250, kNever));
  EXPECT_EQ(budget.Held(), 250u);
}

// A job that waits must not hold up the next one: each gets a thread while the others are busy,
// and a thread that is free again takes the next job.
TEST(WorkerPoolTest, BusyThreadsDoNotHoldUpNewJobsAndFreeOnesAreReused) {
  WorkerPool pool;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> second_ran;
  ASSERT_TRUE(pool.Run([released] { released.wait(); }));
  ASSERT_TRUE(pool.Run([&] { second_ran.set_value(); }));
  EXPECT_EQ(second_ran.get_future().wait_for(seconds(5)), std::future_status::ready);
  release.set_value();

  std::atomic<int> ran{0};
  for (int i = 0; i < 50; ++i) {
    std::promise<void> done;
    ASSERT_TRUE(pool.Run([&] {
      ++ran;
      done.set_value();
    }));
    ASSERT_EQ(done.get_future().wait_for(seconds(5)), std::future_status::ready);
  }
  EXPECT_EQ(ran.load(), 50);
}

// Stop waits for the running job and refuses new ones; a throwing job does not end its thread.
TEST(WorkerPoolTest, StopWaitsForRunningJobsAndRefusesLaterOnes) {
  WorkerPool pool;
  std::atomic<bool> finished{false};
  std::promise<void> started;
  ASSERT_TRUE(pool.Run([] { throw std::runtime_error("job failed"); }));
  ASSERT_TRUE(pool.Run([&] {
    started.set_value();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    finished = true;
  }));
  started.get_future().wait();
  pool.Stop();
  EXPECT_TRUE(finished.load());
  EXPECT_FALSE(pool.Run([] {}));
}

}  // namespace
}  // namespace qv::server
