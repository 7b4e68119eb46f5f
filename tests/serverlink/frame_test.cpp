#include "serverlink/frame.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/wire_bytes.h"

namespace qv {
namespace {

using testing::ByteVector;

template <class Bytes>
FrameHeaderCheck Parse(const Bytes& bytes, uint32_t& length) {
  uint8_t header[kFrameHeaderBytes];
  std::memcpy(header, bytes.data(), kFrameHeaderBytes);
  return ParseFrameHeader(header, length);
}

TEST(FrameTest, HeaderLayoutAndChecks) {
  const auto header = EncodeFrameHeader(0x01020304);
  EXPECT_EQ(ByteVector(header.begin(), header.end()),
            (ByteVector{0, 0, 0, 0, 4, 3, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0}));

  uint32_t length = 0;
  EXPECT_EQ(Parse(header, length), FrameHeaderCheck::kOk);
  EXPECT_EQ(length, 0x01020304u);
  // The trailing reserved words are not examined; the first one is.
  EXPECT_EQ(Parse(ByteVector{0, 0, 0, 0, 5, 0, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9}, length),
            FrameHeaderCheck::kOk);
  EXPECT_EQ(Parse(ByteVector{1, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, length),
            FrameHeaderCheck::kBadReservedWord);

  EXPECT_EQ(Parse(EncodeFrameHeader(kMaxFrameBodyBytes), length), FrameHeaderCheck::kOk);
  EXPECT_EQ(Parse(EncodeFrameHeader(kMaxFrameBodyBytes + 1), length), FrameHeaderCheck::kTooLarge);
}

TEST(FrameTest, RequestHeaderIsTypeTargetSequence) {
  MessageBuffer buffer;
  ASSERT_TRUE(WriteRequestHeader(buffer, 0x2c3903b5, kNoTarget, 7));
  EXPECT_EQ(ByteVector(buffer.Data(), buffer.Data() + buffer.Size()),
            (ByteVector{0xb5, 0x03, 0x39, 0x2c, 0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0}));
}

TEST(FrameTest, SequenceNumbersKeepThirtyOneBitsAndWrapToZero) {
  SequenceCounter fresh;
  EXPECT_EQ(fresh.Next(), 1u);
  EXPECT_EQ(fresh.Next(), 2u);

  // The wrap past 0x7FFFFFFF to 0 is the link's test, on the wire.
  SequenceCounter counter_wraps(0xFFFFFFFE);
  EXPECT_EQ(counter_wraps.Next(), 0x7FFFFFFFu);
  EXPECT_EQ(counter_wraps.Next(), 0u);
}

}  // namespace
}  // namespace qv
