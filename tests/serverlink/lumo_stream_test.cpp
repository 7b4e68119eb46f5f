#include "serverlink/lumo_stream.h"

#include <gtest/gtest.h>

#include <vector>

#include "serverlink/wire_fields.h"

namespace qv {
namespace {

using ByteVector = std::vector<uint8_t>;

ByteVector Bytes(const MessageBuffer& buffer) {
  return ByteVector(buffer.Data(), buffer.Data() + buffer.Size());
}

// Writes a block holding `fields` u32 values after its length placeholder.
void WriteBlock(CLumoOStream& out, std::initializer_list<uint32_t> fields) {
  ASSERT_TRUE(out.BeginBlock());
  ASSERT_TRUE(WriteField<uint32_t>(out.Buffer(), 0));  // length placeholder
  for (uint32_t field : fields)
    ASSERT_TRUE(WriteField(out.Buffer(), field));
  ASSERT_TRUE(out.EndBlock());
}

// Opens a block and reads `words` u32 values from it, its length first; returns the last one.
uint32_t OpenAndRead(CLumoIStream& in, MessageBuffer& buffer, int words) {
  uint32_t value = 0;
  EXPECT_TRUE(in.BeginBlock());
  for (int i = 0; i < words; ++i)
    EXPECT_TRUE(ReadField(buffer, value));
  return value;
}

TEST(LumoStreamTest, BlockLengthCountsItselfAndTheContentsButNotThePadding) {
  MessageBuffer buffer;
  CLumoOStream out(buffer);
  ASSERT_TRUE(out.BeginBlock());
  ASSERT_TRUE(WriteField<uint32_t>(buffer, 0));
  const uint8_t contents[5] = {1, 2, 3, 4, 5};
  ASSERT_TRUE(buffer.Write(contents, sizeof contents));
  ASSERT_TRUE(out.EndBlock());
  EXPECT_EQ(Bytes(buffer), (ByteVector{9, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0}));

  // The reader lands after the ninth byte: it skips to the recorded end, not over the padding.
  CLumoIStream in(buffer);
  EXPECT_EQ(OpenAndRead(in, buffer, 1), 9u);
  ASSERT_TRUE(in.EndBlock());
  EXPECT_EQ(buffer.ReadOffset(), 9u);
  EXPECT_FALSE(in.Failed());

  // Nested blocks patch their own lengths.
  MessageBuffer nested;
  CLumoOStream nested_out(nested);
  ASSERT_TRUE(nested_out.BeginBlock());
  ASSERT_TRUE(WriteField<uint32_t>(nested, 0));
  WriteBlock(nested_out, {7});
  ASSERT_TRUE(nested.Write("x", 1));
  ASSERT_TRUE(nested_out.EndBlock());
  EXPECT_EQ(Bytes(nested), (ByteVector{13, 0, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0, 'x', 0, 0, 0}));
}

// A reader that knows fewer fields lands at the block's end; one that reads past a block fails,
// and stays failed.
TEST(LumoStreamTest, AReaderLandsAtTheBlockEndAndFailsPastIt) {
  MessageBuffer buffer;
  CLumoOStream out(buffer);
  WriteBlock(out, {10, 20, 30});
  WriteBlock(out, {40});
  WriteBlock(out, {50, 60});
  WriteBlock(out, {70});

  CLumoIStream in(buffer);
  EXPECT_EQ(OpenAndRead(in, buffer, 2), 10u);
  ASSERT_TRUE(in.EndBlock());
  EXPECT_FALSE(in.Failed());
  EXPECT_EQ(OpenAndRead(in, buffer, 2), 40u);
  ASSERT_TRUE(in.EndBlock());
  EXPECT_EQ(buffer.Size(), 20u);  // the last two blocks, untouched

  OpenAndRead(in, buffer, 4);  // one word too many
  EXPECT_FALSE(in.EndBlock());
  EXPECT_TRUE(in.Failed());
  EXPECT_FALSE(in.BeginBlock());  // stays failed even though a block follows
  EXPECT_TRUE(in.Failed());
}

TEST(LumoStreamTest, BlocksAndRegionsThatCannotBeReadFail) {
  // A length word cut short fails at BeginBlock; a length that claims more than the buffer holds
  // fails at EndBlock.
  for (const ByteVector& bytes : {ByteVector{9, 0}, ByteVector{40, 0, 0, 0, 1, 2}}) {
    MessageBuffer buffer(bytes.data(), bytes.size());
    CLumoIStream in(buffer);
    EXPECT_EQ(in.BeginBlock(), bytes.size() >= 4);
    EXPECT_FALSE(in.EndBlock());
    EXPECT_TRUE(in.Failed());
  }

  MessageBuffer empty;
  CLumoIStream unbalanced(empty);
  EXPECT_FALSE(unbalanced.EndBlock());
  CLumoOStream unbalanced_out(empty);
  EXPECT_FALSE(unbalanced_out.EndBlock());
  EXPECT_FALSE(unbalanced_out.EndAligned());

  // An aligned skip that runs out fails without setting the flag.
  const ByteVector three{1, 2, 3};
  MessageBuffer short_region(three.data(), three.size());
  CLumoIStream aligned(short_region);
  ASSERT_TRUE(aligned.BeginAligned());
  ASSERT_TRUE(short_region.Skip(3));  // one byte of padding is owed and missing
  EXPECT_FALSE(aligned.EndAligned());
  EXPECT_FALSE(aligned.Failed());
}

TEST(LumoStreamTest, AlignedRegionsPadToWholeWords) {
  for (size_t length = 0; length < 9; ++length) {
    MessageBuffer buffer;
    CLumoOStream out(buffer);
    ASSERT_TRUE(WriteField<uint8_t>(buffer, 0xEE));  // regions start at any offset
    ASSERT_TRUE(out.BeginAligned());
    const ByteVector contents(length, 0xAB);
    ASSERT_TRUE(buffer.Write(contents.data(), contents.size()));
    ASSERT_TRUE(out.EndAligned());
    const size_t padded = (length + 3) / 4 * 4;
    ASSERT_EQ(buffer.Size(), 1 + padded) << length;
    for (size_t i = 1 + length; i < buffer.Size(); ++i)
      EXPECT_EQ(buffer.Data()[i], 0);

    uint8_t first = 0;
    CLumoIStream in(buffer);
    ASSERT_TRUE(ReadField(buffer, first));
    ASSERT_TRUE(in.BeginAligned());
    ASSERT_TRUE(buffer.Skip(length));
    ASSERT_TRUE(in.EndAligned());
    EXPECT_EQ(buffer.Size(), 0u);
  }
}

}  // namespace
}  // namespace qv
