#include "serverlink/pending_responses.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace qv {
namespace {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

std::shared_ptr<CResponse> ResponseFor(uint32_t sequence) {
  auto response = std::make_shared<CResponse>();
  response->Sequence = sequence;
  return response;
}

class PendingResponseStoreTest : public ::testing::Test {
 protected:
  // A wait on the current connection; what arrives lands in response_.
  std::error_code Wait(uint32_t sequence, Deadline deadline = {}, bool may_read = false) {
    return store_.Wait(sequence, epoch_, response_, deadline, may_read);
  }

  // Callers awaiting 0 to count - 1 on the current connection, each waiting on a thread of its own.
  std::vector<std::future<std::error_code>> Waiters(uint32_t count) {
    std::vector<std::future<std::error_code>> waiters;
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_TRUE(store_.Await(i));
      waiters.push_back(std::async(std::launch::async, [this, i, epoch = epoch_] {
        std::shared_ptr<CResponse> response;
        return store_.Wait(i, epoch, response);
      }));
    }
    return waiters;
  }

  PendingResponseStore store_;
  uint64_t epoch_ = store_.Reset();
  std::shared_ptr<CResponse> response_;
};

TEST_F(PendingResponseStoreTest, UnawaitedResponsesAreDroppedAndLaterOnesStillArrive) {
  ASSERT_TRUE(store_.Await(5));
  EXPECT_FALSE(store_.Deliver(ResponseFor(4)));  // nobody awaits 4
  EXPECT_TRUE(store_.Deliver(ResponseFor(5)));
  EXPECT_FALSE(store_.Deliver(ResponseFor(5)));  // awaited once, answered once
  EXPECT_EQ(Wait(5), WaitError::kWaitSuccess);

  store_.Forget(6);
  ASSERT_TRUE(store_.Await(6));
  store_.Forget(6);
  EXPECT_FALSE(store_.Deliver(ResponseFor(6)));
}

TEST_F(PendingResponseStoreTest, AWaiterPastItsDeadlineLeavesAndItsLateAnswerIsDropped) {
  ASSERT_TRUE(store_.Await(7));
  ASSERT_TRUE(store_.Await(8));
  EXPECT_EQ(Wait(7, std::chrono::steady_clock::now() + std::chrono::milliseconds(20)),
            WaitError::kWaitTimedOut);
  EXPECT_EQ(response_, nullptr);
  EXPECT_FALSE(store_.Deliver(ResponseFor(7)));  // nobody waits for it any more
  // An answer already in is taken even when the deadline has passed.
  ASSERT_TRUE(store_.Deliver(ResponseFor(8)));
  EXPECT_EQ(Wait(8, std::chrono::steady_clock::now()), WaitError::kWaitSuccess);
  EXPECT_EQ(response_->Sequence, 8u);
}

TEST_F(PendingResponseStoreTest, AbortWakesEveryWaiterWithWaitAbort) {
  auto waiters = Waiters(3);
  store_.Abort();
  for (auto& waiter : waiters) {
    const std::error_code result = waiter.get();
    EXPECT_EQ(result, WaitError::kWaitAbort);
    EXPECT_EQ(result.message(), "WaitAbort");
  }
  // Until the next connection resets it, the store stays aborted.
  EXPECT_EQ(Wait(9), WaitError::kWaitAbort);
}

TEST_F(PendingResponseStoreTest, ANewConnectionAloneWakesTheWaitersOfTheOldOne) {
  const uint64_t old_epoch = epoch_;
  auto waiters = Waiters(2);
  // Give the waiters time to block, so that Reset has to wake them rather than they find the
  // new epoch on arrival (either way they must leave).
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  epoch_ = store_.Reset();
  for (auto& waiter : waiters)
    EXPECT_EQ(waiter.get(), WaitError::kWaitAbort);
  EXPECT_NE(epoch_, old_epoch);
  // A waiter of the old connection that arrives only now leaves at once, and Reset forgot the
  // numbers the old connection awaited.
  EXPECT_EQ(store_.Wait(0, old_epoch, response_), WaitError::kWaitAbort);
  EXPECT_FALSE(store_.Deliver(ResponseFor(0)));
  // The same sequence number on the new connection waits for, and gets, its own answer.
  ASSERT_TRUE(store_.Await(1));
  ASSERT_TRUE(store_.Deliver(ResponseFor(1)));
  EXPECT_EQ(Wait(1), WaitError::kWaitSuccess);
}

TEST_F(PendingResponseStoreTest, OneCallerAtATimeReadsThePipeAndPassesItOnWhenItsAnswerIsIn) {
  for (uint32_t sequence : {1u, 2u, 3u})
    ASSERT_TRUE(store_.Await(sequence));
  ASSERT_EQ(Wait(1, {}, true), WaitError::kWaitReadYourself);

  // While caller 1 reads, the read thread stands aside, a caller that may read waits its turn
  // and a caller with a deadline never reads.
  std::error_code second_first, second_last, limited;
  std::thread second([&] {
    std::shared_ptr<CResponse> answer;
    second_first = store_.Wait(2, epoch_, answer, {}, true);
    ASSERT_TRUE(store_.Deliver(ResponseFor(2)));
    EXPECT_TRUE(store_.IsReady(2));
    store_.EndCallerRead();
    second_last = store_.Wait(2, epoch_, answer, {}, true);
  });
  std::thread with_deadline([&] {
    std::shared_ptr<CResponse> answer;
    limited = store_.Wait(3, epoch_, answer,
                          std::chrono::steady_clock::now() + std::chrono::hours(1), true);
  });
  std::atomic<bool> read_thread_read{false};
  std::thread read_thread([&] {
    read_thread_read = store_.AwaitReadThreadsTurn();
    store_.EndReadThreadsTurn();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(read_thread_read);
  ASSERT_TRUE(store_.Deliver(ResponseFor(3)));
  with_deadline.join();
  EXPECT_EQ(limited, WaitError::kWaitSuccess);
  ASSERT_TRUE(store_.Deliver(ResponseFor(1)));
  store_.EndCallerRead();
  second.join();
  EXPECT_EQ(second_first, WaitError::kWaitReadYourself);
  EXPECT_EQ(second_last, WaitError::kWaitSuccess);
  EXPECT_EQ(Wait(1, {}, true), WaitError::kWaitSuccess);
  // With nobody left to read for, the read thread takes the pipe back.
  read_thread.join();
  EXPECT_TRUE(read_thread_read);

  // A read thread standing aside for a reading caller leaves on Abort without the pipe (the caller
  // still reads it), and the disconnecting thread waits for the caller to let go of the pipe.
  ASSERT_TRUE(store_.Await(4));
  ASSERT_EQ(Wait(4, {}, true), WaitError::kWaitReadYourself);
  bool parked_got_turn = true;
  std::thread parked([&] { parked_got_turn = store_.AwaitReadThreadsTurn(); });
  store_.Abort();
  parked.join();
  EXPECT_FALSE(parked_got_turn);
  std::thread disconnecting([&] { store_.AwaitNoCallerReading(); });
  store_.EndCallerRead();
  disconnecting.join();
  EXPECT_EQ(Wait(4, {}, true), WaitError::kWaitAbort);
}

}  // namespace
}  // namespace qv
