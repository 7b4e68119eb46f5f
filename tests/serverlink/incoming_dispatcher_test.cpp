#include "serverlink/incoming_dispatcher.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <vector>

#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/frame.h"
#include "serverlink/log.h"
#include "support/wire_bytes.h"

namespace qv {
namespace {

using Outcome = IncomingDispatcher::Outcome;
using testing::ByteVector;
using testing::HandBytes;

// An incoming body: kind, type number, then the message's own encoding.
template <class Message>
ByteVector Incoming(IncomingKind kind, const Message& message) {
  ByteVector body = HandBytes().U32(static_cast<uint32_t>(kind), Message::kTypeNumber).bytes();
  const ByteVector own = testing::Encode(message);
  body.insert(body.end(), own.begin(), own.end());
  return body;
}

class IncomingDispatcherTest : public ::testing::Test {
 protected:
  IncomingDispatcherTest()
      : dispatcher_(ResponseFactory(), NotificationFactory(), store_,
                    [this](std::shared_ptr<CNotification> n) { queued_.push_back(std::move(n)); }) {
    epoch_ = store_.Reset();
  }

  Outcome Dispatch(const ByteVector& body) {
    MessageBuffer buffer(body.data(), body.size());
    return dispatcher_.Dispatch(buffer);
  }

  // What a waiter for `sequence` finds. The response should already be there; if it is not, the
  // wait is aborted after a generous grace period so that the test fails instead of hanging.
  std::shared_ptr<CResponse> Arrived(uint32_t sequence) {
    auto waiter = std::async(std::launch::async, [this, sequence] {
      std::shared_ptr<CResponse> response;
      return store_.Wait(sequence, epoch_, response) == WaitError::kWaitSuccess ? response
                                                                                : nullptr;
    });
    if (waiter.wait_for(std::chrono::seconds(10)) != std::future_status::ready) store_.Abort();
    return waiter.get();
  }

  PendingResponseStore store_;
  std::vector<std::shared_ptr<CNotification>> queued_;
  IncomingDispatcher dispatcher_;
  uint64_t epoch_ = 0;
};

// What cannot be delivered is dropped, and the awaited response after it still arrives as its
// own class. Of all that, only an unknown response type is logged, at level one. (A failed
// response decoded from its head alone reaches its caller in the live-events test, where the
// console-output cache of a deleted target is refused; a decoded notification reaching its sink
// is proven there too, for every kind.)
TEST_F(IncomingDispatcherTest, EveryMalformedOrUnexpectedMessageIsDropped) {
  ASSERT_TRUE(store_.Await(1));

  CGetDefaultTargetResponse unawaited;
  unawaited.Sequence = 2;
  const struct {
    ByteVector body;
    Outcome outcome;
  } kCases[] = {
      {Incoming(IncomingKind::kResponse, unawaited), Outcome::kUnawaitedResponse},
      // A response's Result, then nothing.
      {HandBytes().U32(0, CGetDefaultTargetResponse::kTypeNumber, 0).bytes(),
       Outcome::kUndecodableResponse},
      {HandBytes().U32(0, 4242).bytes(), Outcome::kUnknownResponseType},
      {{}, Outcome::kNoKind},
      {HandBytes().U32(7).bytes(), Outcome::kIgnoredKind},
      {HandBytes().U32(1, 0x12345678).bytes(), Outcome::kUnknownNotificationType},
      // A notification's key, then no host name.
      {HandBytes().U32(1, CTargetAddedNotification::kTypeNumber, kNoTarget).bytes(),
       Outcome::kUndecodableNotification},
  };
  const std::string path =
      ::testing::TempDir() + "vekx_dispatch_" + std::to_string(std::random_device{}()) + ".txt";
  Log& log = LibraryLog();
  const int level = log.Level();
  log.SetLevel(Log::kErrors);
  ASSERT_TRUE(log.SetFile(path));
  for (const auto& c : kCases)
    EXPECT_EQ(Dispatch(c.body), c.outcome) << static_cast<int>(c.outcome);
  log.SetStandardError();
  log.SetLevel(level);
  EXPECT_TRUE(queued_.empty());
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "MSG\tAPI Un-identified response type 4242\n");
  std::remove(path.c_str());

  // None of that disturbed the caller waiting for 1, which still gets its answer.
  CGetDefaultTargetResponse awaited;
  awaited.Sequence = 1;
  awaited.Handle = 12;
  EXPECT_EQ(Dispatch(Incoming(IncomingKind::kResponse, awaited)), Outcome::kResponseDelivered);
  auto arrived = std::dynamic_pointer_cast<CGetDefaultTargetResponse>(Arrived(1));
  ASSERT_NE(arrived, nullptr);
  EXPECT_EQ(arrived->Handle, 12u);
}

// A caller reading for its own answer gets it decoded into its own object; another caller's
// answer of the same class read meanwhile reaches that caller whole, and leaves the reading
// caller's object as it was.
TEST_F(IncomingDispatcherTest, AReadingCallersOwnAnswerGoesStraightIntoItsObject) {
  ASSERT_TRUE(store_.Await(5));
  ASSERT_TRUE(store_.Await(6));
  CGetDefaultTargetResponse other, mine;
  other.Sequence = 6;
  other.Handle = 66;
  mine.Sequence = 5;
  mine.Handle = 55;
  const ByteVector torn = HandBytes().U32(0, CGetDefaultTargetResponse::kTypeNumber, 0).bytes();

  CGetDefaultTargetResponse into;
  IncomingDispatcher::OwnAnswer own{5, &into};
  const auto dispatch = [&](const ByteVector& body) {
    MessageBuffer buffer(body.data(), body.size());
    return dispatcher_.Dispatch(buffer, &own);
  };
  EXPECT_EQ(dispatch(Incoming(IncomingKind::kResponse, other)), Outcome::kResponseDelivered);
  EXPECT_EQ(dispatch(torn), Outcome::kUndecodableResponse);
  EXPECT_FALSE(own.taken || own.filed);
  EXPECT_EQ(into.Handle, CGetDefaultTargetResponse().Handle);
  EXPECT_EQ(dispatch(Incoming(IncomingKind::kResponse, mine)), Outcome::kResponseDelivered);
  EXPECT_TRUE(own.taken);
  EXPECT_EQ(into.Handle, 55u);
  auto theirs = std::dynamic_pointer_cast<CGetDefaultTargetResponse>(Arrived(6));
  ASSERT_NE(theirs, nullptr);
  EXPECT_EQ(theirs->Handle, 66u);

  // An object of another class (the head alone) lets its answer go through the store.
  CResponse head;
  IncomingDispatcher::OwnAnswer plain{5, &head};
  const ByteVector body = Incoming(IncomingKind::kResponse, mine);
  MessageBuffer buffer(body.data(), body.size());
  EXPECT_EQ(dispatcher_.Dispatch(buffer, &plain), Outcome::kResponseDelivered);
  EXPECT_TRUE(plain.filed && !plain.taken);
}

}  // namespace
}  // namespace qv
