#include "serverlink/pending_responses.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace qv {
namespace {

std::shared_ptr<CResponse> ResponseFor(uint32_t sequence) {
  auto response = std::make_shared<CResponse>();
  response->Sequence = sequence;
  return response;
}

TEST(PendingResponseStoreTest, AResponseReachesItsWaiterBeforeOrAfterTheWaitStarts) {
  PendingResponseStore store;
  const uint64_t epoch = store.Reset();
  ASSERT_TRUE(store.Await(1));
  ASSERT_TRUE(store.Await(2));
  ASSERT_TRUE(store.Deliver(ResponseFor(1)));

  std::shared_ptr<CResponse> response;
  EXPECT_EQ(store.Wait(1, epoch, response), WaitError::kWaitSuccess);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->Sequence, 1u);

  std::thread late([&] { store.Deliver(ResponseFor(2)); });
  EXPECT_EQ(store.Wait(2, epoch, response), WaitError::kWaitSuccess);
  EXPECT_EQ(response->Sequence, 2u);
  late.join();
}

TEST(PendingResponseStoreTest, UnawaitedResponsesAreDroppedAndLaterOnesStillArrive) {
  PendingResponseStore store;
  const uint64_t epoch = store.Reset();
  ASSERT_TRUE(store.Await(5));
  EXPECT_FALSE(store.Deliver(ResponseFor(4)));  // nobody awaits 4
  EXPECT_TRUE(store.Deliver(ResponseFor(5)));
  EXPECT_FALSE(store.Deliver(ResponseFor(5)));  // awaited once, answered once
  std::shared_ptr<CResponse> response;
  EXPECT_EQ(store.Wait(5, epoch, response), WaitError::kWaitSuccess);

  store.Forget(6);
  ASSERT_TRUE(store.Await(6));
  store.Forget(6);
  EXPECT_FALSE(store.Deliver(ResponseFor(6)));
}

TEST(PendingResponseStoreTest, AWaiterPastItsDeadlineLeavesAndItsLateAnswerIsDropped) {
  PendingResponseStore store;
  const uint64_t epoch = store.Reset();
  ASSERT_TRUE(store.Await(7));
  ASSERT_TRUE(store.Await(8));
  std::shared_ptr<CResponse> response;
  const auto soon = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
  EXPECT_EQ(store.Wait(7, epoch, response, soon), WaitError::kWaitTimedOut);
  EXPECT_EQ(response, nullptr);
  EXPECT_FALSE(store.Deliver(ResponseFor(7)));  // nobody waits for it any more
  // An answer already in is taken even when the deadline has passed.
  ASSERT_TRUE(store.Deliver(ResponseFor(8)));
  EXPECT_EQ(store.Wait(8, epoch, response, std::chrono::steady_clock::now()),
            WaitError::kWaitSuccess);
  EXPECT_EQ(response->Sequence, 8u);
}

TEST(PendingResponseStoreTest, AbortWakesEveryWaiterWithWaitAbort) {
  PendingResponseStore store;
  const uint64_t epoch = store.Reset();
  std::vector<std::thread> waiters;
  std::vector<std::error_code> results(3);
  for (uint32_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(store.Await(i));
    waiters.emplace_back([&, i] {
      std::shared_ptr<CResponse> response;
      results[i] = store.Wait(i, epoch, response);
    });
  }
  store.Abort();
  for (auto& waiter : waiters)
    waiter.join();
  for (const auto& result : results) {
    EXPECT_EQ(result, WaitError::kWaitAbort);
    EXPECT_EQ(result.message(), "WaitAbort");
  }
  // Until the next connection resets it, the store stays aborted.
  std::shared_ptr<CResponse> response;
  EXPECT_EQ(store.Wait(9, epoch, response), WaitError::kWaitAbort);
}

TEST(PendingResponseStoreTest, ANewConnectionAloneWakesTheWaitersOfTheOldOne) {
  PendingResponseStore store;
  const uint64_t old_epoch = store.Reset();
  std::vector<std::thread> waiters;
  std::vector<std::error_code> results(2);
  for (uint32_t i = 0; i < 2; ++i) {
    ASSERT_TRUE(store.Await(i));
    waiters.emplace_back([&, i] {
      std::shared_ptr<CResponse> response;
      results[i] = store.Wait(i, old_epoch, response);
    });
  }
  // Give the waiters time to block, so that Reset has to wake them rather than they find the
  // new epoch on arrival (either way they must leave).
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const uint64_t new_epoch = store.Reset();
  for (auto& waiter : waiters)
    waiter.join();
  for (const auto& result : results)
    EXPECT_EQ(result, WaitError::kWaitAbort);
  EXPECT_NE(new_epoch, old_epoch);
  // A waiter of the old connection that arrives only now leaves at once, and Reset forgot the
  // numbers the old connection awaited.
  std::shared_ptr<CResponse> response;
  EXPECT_EQ(store.Wait(0, old_epoch, response), WaitError::kWaitAbort);
  EXPECT_FALSE(store.Deliver(ResponseFor(0)));
  // The same sequence number on the new connection waits for, and gets, its own answer.
  ASSERT_TRUE(store.Await(1));
  ASSERT_TRUE(store.Deliver(ResponseFor(1)));
  EXPECT_EQ(store.Wait(1, new_epoch, response), WaitError::kWaitSuccess);
}

TEST(PendingResponseStoreTest, OneCallerAtATimeReadsThePipeAndPassesItOnWhenItsAnswerIsIn) {
  PendingResponseStore store;
  const uint64_t epoch = store.Reset();
  for (uint32_t sequence : {1u, 2u, 3u})
    ASSERT_TRUE(store.Await(sequence));
  std::shared_ptr<CResponse> response;
  ASSERT_EQ(store.Wait(1, epoch, response, {}, true), WaitError::kWaitReadYourself);

  // While caller 1 reads, the read thread stands aside, a caller that may read waits its turn
  // and a caller with a deadline never reads.
  std::error_code second_first, second_last, limited;
  std::thread second([&] {
    std::shared_ptr<CResponse> answer;
    second_first = store.Wait(2, epoch, answer, {}, true);
    ASSERT_TRUE(store.Deliver(ResponseFor(2)));
    EXPECT_TRUE(store.IsReady(2));
    store.EndCallerRead();
    second_last = store.Wait(2, epoch, answer, {}, true);
  });
  std::thread with_deadline([&] {
    std::shared_ptr<CResponse> answer;
    limited = store.Wait(3, epoch, answer, std::chrono::steady_clock::now() + std::chrono::hours(1),
                         true);
  });
  std::atomic<bool> read_thread_read{false};
  std::thread read_thread([&] {
    store.AwaitReadThreadsTurn();
    read_thread_read = true;
    store.EndReadThreadsTurn();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(read_thread_read);
  ASSERT_TRUE(store.Deliver(ResponseFor(3)));
  with_deadline.join();
  EXPECT_EQ(limited, WaitError::kWaitSuccess);
  ASSERT_TRUE(store.Deliver(ResponseFor(1)));
  store.EndCallerRead();
  second.join();
  EXPECT_EQ(second_first, WaitError::kWaitReadYourself);
  EXPECT_EQ(second_last, WaitError::kWaitSuccess);
  EXPECT_EQ(store.Wait(1, epoch, response, {}, true), WaitError::kWaitSuccess);
  // With nobody left to read for, the read thread takes the pipe back.
  read_thread.join();
  EXPECT_TRUE(read_thread_read);

  // A read thread standing aside for a reading caller leaves on Abort, and the disconnecting
  // thread waits for the caller to let go of the pipe.
  ASSERT_TRUE(store.Await(4));
  ASSERT_EQ(store.Wait(4, epoch, response, {}, true), WaitError::kWaitReadYourself);
  std::thread parked([&] { store.AwaitReadThreadsTurn(); });
  store.Abort();
  parked.join();
  std::thread disconnecting([&] { store.AwaitNoCallerReading(); });
  store.EndCallerRead();
  disconnecting.join();
  EXPECT_EQ(store.Wait(4, epoch, response, {}, true), WaitError::kWaitAbort);
}

}  // namespace
}  // namespace qv
