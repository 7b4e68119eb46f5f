#include "serverlink/bulk_bytes.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "api/byte_array_landing.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/frame.h"
#include "serverlink/incoming_dispatcher.h"
#include "serverlink/pipe_channel.h"
#include "support/test_environment.h"

namespace qv {
namespace {

std::vector<uint8_t> Pattern(size_t size, uint8_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 12));
  return bytes;
}

// The two ends of a pipe: the server's writes answers gathered from where their bytes lie, the
// client's reads large bodies in part, as the library's reader does.
class BulkBytesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::u16string name =
        platform::Utf8ToUtf16("qv_bulk_" + platform::Utf16ToUtf8(testing::UniqueUser("t")));
    uint32_t error = 0;
    std::unique_ptr<platform::PipeListener> listener;
    ASSERT_EQ(platform::PipeListener::Create(name, listener, error), platform::IoResult::kOk);
    auto accepted =
        std::async(std::launch::async, [&] { return listener->Accept(server_, stop_); });
    std::unique_ptr<platform::Pipe> client;
    ASSERT_EQ(platform::Pipe::Connect(name, 30000, client, error), platform::IoResult::kOk);
    ASSERT_EQ(accepted.get(), platform::IoResult::kOk);
    reader_.Adopt(std::move(client));
    reader_.ReadLargeBodiesInPart();
    store_.Reset();
  }

  // The frame of a GET_MEMORY answer (kind, type number, response) with `bytes` as its data.
  static MessageBuffer Answer(uint32_t sequence, size_t text, const std::vector<uint8_t>& bytes,
                              std::shared_ptr<const void> keeper) {
    CGetMemoryResponse sent;
    sent.ResultText.assign(text, u'x');
    sent.Sequence = sequence;
    sent.ReadData = BulkBytes(bytes, std::move(keeper));
    sent.BadBytes = sequence;
    MessageBuffer body;
    body.GatherLargeRuns();
    EXPECT_TRUE(WriteField(body, 0u) && WriteField(body, CGetMemoryResponse::kTypeNumber) &&
                sent.Serialize(body));
    return body;
  }

#ifndef _WIN32
  testing::TempDir temp_;
  testing::ScopedVariable runtime_dir_{"XDG_RUNTIME_DIR", temp_.path().string()};
#endif
  platform::StopSignal stop_;
  std::unique_ptr<platform::Pipe> server_;
  PipeChannel writer_;
  PipeChannel reader_;
  PendingResponseStore store_;
  IncomingDispatcher dispatcher_{ResponseFactory(), NotificationFactory(), store_, nullptr};
};

// Answers the writer found waiting go out in one gathered write and still arrive one by one, each
// whole and in order, wherever their bytes lie and wherever they land.
TEST_F(BulkBytesTest, ReadsArriveWholeWhereverTheirBytesLand) {
  enum LandingKind { kNone, kFits, kTooSmall };
  struct Case {
    const char* what;
    size_t size;
    size_t text;  // ResultText units: a long head does not fit the part read first
    LandingKind landing;
    bool awaited;
    bool lands;
  };
  const Case cases[] = {
      {"small body, read whole", 1000, 0, kFits, true, false},
      {"large, into the landing", 1 << 20, 0, kFits, true, true},
      {"large, nobody offers a landing", 1 << 20, 0, kNone, true, false},
      {"large, the landing is too small", 1 << 20, 0, kTooSmall, true, false},
      {"head beyond the part read first", 256 << 10, 6000, kFits, true, true},
      {"nobody waits: the rest is skipped", 1 << 20, 0, kFits, false, false},
      {"after a skipped one, still in step", 300 << 10, 0, kFits, true, true},
      {"a tiny one last", 10, 0, kNone, true, false},
  };
  std::vector<std::shared_ptr<const std::vector<uint8_t>>> bytes;
  std::vector<MessageBuffer> bodies;
  std::vector<const MessageBuffer*> batch;
  for (uint32_t i = 0; i < std::size(cases); ++i) {
    bytes.push_back(std::make_shared<const std::vector<uint8_t>>(Pattern(cases[i].size, 5 + i)));
    bodies.push_back(Answer(i + 1, cases[i].text, *bytes.back(), bytes.back()));
    EXPECT_EQ(bodies.back().References().size(),
              cases[i].size >= MessageBuffer::kMinReferencedRun ? 1u : 0u);
  }
  for (const MessageBuffer& body : bodies)
    batch.push_back(&body);
  writer_.Adopt(std::move(server_));
  auto written = std::async(std::launch::async, [&] { return writer_.WriteFrames(batch); });
  for (uint32_t sequence = 1; sequence <= std::size(cases); ++sequence) {
    const Case& c = cases[sequence - 1];
    SCOPED_TRACE(c.what);
    auto landing = ByteArrayLanding::Make(c.landing == kTooSmall ? c.size - 1 : c.size);
    if (c.awaited) {
      ASSERT_TRUE(store_.Await(sequence, c.landing == kNone ? nullptr : landing));
    }
    ASSERT_EQ(reader_.ReadFrame(), PipeChannel::ReadStatus::kFrame);
    EXPECT_EQ(dispatcher_.Dispatch(reader_.Input()),
              c.awaited ? IncomingDispatcher::Outcome::kResponseDelivered
                        : IncomingDispatcher::Outcome::kUnawaitedResponse);
    reader_.ReleaseRead();
    if (!c.awaited) continue;

    std::shared_ptr<CResponse> arrived;
    ASSERT_EQ(store_.Wait(sequence, store_.Epoch(), arrived), WaitError::kWaitSuccess);
    const auto& read = static_cast<const CGetMemoryResponse&>(*arrived);
    EXPECT_TRUE(read.ReadData == *bytes[sequence - 1]);
    EXPECT_EQ(read.ReadData.LandedIn(*landing), c.lands);
    EXPECT_EQ(read.BadBytes, sequence);
  }
  EXPECT_EQ(written.get(), PipeChannel::WriteStatus::kWritten);
}

// A body cut short leaves its message undecoded, and the reader finds no frame after it.
TEST_F(BulkBytesTest, ABodyCutShortEndsTheStream) {
  const auto bytes = Pattern(1 << 20, 3);
  const MessageBuffer body = Answer(1, 0, bytes, nullptr);
  const auto header = EncodeFrameHeader(static_cast<uint32_t>(body.Size()));
  auto written = std::async(std::launch::async, [&] {
    const std::span<const uint8_t> parts[] = {header, {body.Data(), body.Size() / 2}};
    const auto result = server_->Write(parts, stop_);
    server_.reset();
    return result;
  });
  ASSERT_TRUE(store_.Await(1, ByteArrayLanding::Make(bytes.size())));
  ASSERT_EQ(reader_.ReadFrame(), PipeChannel::ReadStatus::kFrame);
  EXPECT_EQ(dispatcher_.Dispatch(reader_.Input()),
            IncomingDispatcher::Outcome::kUndecodableResponse);
  reader_.ReleaseRead();
  EXPECT_EQ(written.get(), platform::IoResult::kOk);
  EXPECT_EQ(reader_.ReadFrame(), PipeChannel::ReadStatus::kClosed);
}

}  // namespace
}  // namespace qv
