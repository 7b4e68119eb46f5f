#include "serverlink/message_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <vector>

namespace qv {
namespace {

std::vector<uint8_t> Iota(size_t n) {
  std::vector<uint8_t> bytes(n);
  std::iota(bytes.begin(), bytes.end(), uint8_t{0});
  return bytes;
}

TEST(MessageBufferTest, GrowsInWholeStepsByTheShortfall) {
  struct Case {
    size_t first_write;
    size_t second_write;
    size_t capacity;
  };
  const Case cases[] = {
      {1, 0, 4096},         // 1 byte into capacity 0
      {4097, 0, 8192},      // 4097 bytes into capacity 0
      {4096, 0, 4096},      // exactly one step
      {4000, 100, 8192},    // shortfall of 4 rounds up to a whole step
      {4096, 4097, 12288},  // shortfall of 4097 takes two steps
  };
  for (const Case& c : cases) {
    MessageBuffer buffer;
    const auto bytes = Iota(c.first_write + c.second_write);
    ASSERT_TRUE(buffer.Write(bytes.data(), c.first_write));
    ASSERT_TRUE(buffer.Write(bytes.data() + c.first_write, c.second_write));
    EXPECT_EQ(buffer.Capacity(), c.capacity) << c.first_write << "+" << c.second_write;
    EXPECT_EQ(buffer.Size(), bytes.size());
    EXPECT_EQ(std::memcmp(buffer.Data(), bytes.data(), bytes.size()), 0);
  }
}

TEST(MessageBufferTest, GrowingKeepsOnlyTheUnreadBytes) {
  MessageBuffer buffer;
  const auto bytes = Iota(4096);
  ASSERT_TRUE(buffer.Write(bytes.data(), bytes.size()));
  uint8_t head[100];
  ASSERT_TRUE(buffer.Read(head, sizeof head));
  ASSERT_EQ(buffer.ReadOffset(), 100u);

  const uint8_t more[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  ASSERT_TRUE(buffer.Write(more, sizeof more));
  EXPECT_EQ(buffer.Capacity(), 8192u);
  EXPECT_EQ(buffer.ReadOffset(), 0u);  // read bytes dropped
  EXPECT_EQ(buffer.WriteOffset(), 4096u - 100u + 10u);
  EXPECT_EQ(buffer.Data()[0], bytes[100]);
  EXPECT_EQ(std::memcmp(buffer.Data() + 3996, more, sizeof more), 0);
}

TEST(MessageBufferTest, BuiltFromARangeRoundsTheCapacityUp) {
  const auto bytes = Iota(5000);
  MessageBuffer buffer(bytes.data(), bytes.size());
  EXPECT_TRUE(buffer.Valid());
  EXPECT_EQ(buffer.Capacity(), 8192u);
  EXPECT_EQ(buffer.ReadOffset(), 0u);
  EXPECT_EQ(buffer.WriteOffset(), 5000u);

  MessageBuffer empty(nullptr, 0);
  EXPECT_EQ(empty.Capacity(), 0u);
  EXPECT_EQ(empty.Size(), 0u);
}

TEST(MessageBufferTest, ShortReadsPeeksAndSkipsFailWithoutMoving) {
  const uint8_t bytes[3] = {7, 8, 9};
  MessageBuffer buffer(bytes, sizeof bytes);
  uint8_t out[4] = {};
  EXPECT_FALSE(buffer.Read(out, 4));
  EXPECT_FALSE(buffer.Peek(out, 4));
  EXPECT_FALSE(buffer.Skip(4));
  EXPECT_EQ(buffer.ReadOffset(), 0u);

  ASSERT_TRUE(buffer.Peek(out, 2));
  EXPECT_EQ(buffer.ReadOffset(), 0u);
  ASSERT_TRUE(buffer.Skip(1));
  ASSERT_TRUE(buffer.Read(out, 2));
  EXPECT_EQ(out[0], 8);
  EXPECT_EQ(out[1], 9);
  EXPECT_EQ(buffer.Size(), 0u);
}

TEST(MessageBufferTest, ReserveHandsOutRoomInPlaceAndResetKeepsTheBlock) {
  MessageBuffer buffer;
  const uint8_t head[2] = {1, 2};
  ASSERT_TRUE(buffer.Write(head, sizeof head));
  uint8_t* room = buffer.Reserve(3);
  ASSERT_NE(room, nullptr);
  room[0] = 3;
  room[1] = 4;
  room[2] = 5;
  EXPECT_EQ(buffer.WriteOffset(), 5u);
  EXPECT_EQ(buffer.Data()[4], 5);

  const uint8_t patch = 9;
  buffer.WriteAt(0, &patch, 1);
  EXPECT_EQ(buffer.Data()[0], 9);

  buffer.Reset();
  EXPECT_EQ(buffer.Size(), 0u);
  EXPECT_EQ(buffer.Capacity(), 4096u);
  EXPECT_NE(MessageBuffer().Reserve(0), nullptr);
}

}  // namespace
}  // namespace qv
