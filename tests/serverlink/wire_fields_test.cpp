#include "serverlink/wire_fields.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "requests/wire_types.h"
#include "support/wire_bytes.h"

namespace qv {
namespace {

using testing::ByteVector;
using testing::Encode;

template <class T>
std::optional<T> Decode(const ByteVector& bytes, size_t* consumed = nullptr) {
  MessageBuffer buffer(bytes.data(), bytes.size());
  T value{};
  const bool ok = ReadField(buffer, value);
  if (consumed != nullptr) *consumed = buffer.ReadOffset();
  if (!ok) return std::nullopt;
  return value;
}

template <class T>
std::string Render(const T& value) {
  std::string out;
  RenderField(out, value);
  return out;
}

// Every strict prefix of a valid encoding must fail to decode.
template <class T>
void ExpectEveryPrefixFails(const T& value) {
  const ByteVector bytes = Encode(value);
  for (size_t n = 0; n < bytes.size(); ++n) {
    EXPECT_FALSE(Decode<T>(ByteVector(bytes.begin(), bytes.begin() + n)).has_value())
        << "prefix of " << n << " of " << bytes.size() << " bytes";
  }
  EXPECT_EQ(Decode<T>(bytes), value);
}

TEST(WireFieldsTest, ExactBytesOfEachShape) {
  EXPECT_EQ(Encode<uint16_t>(0x1234), (ByteVector{0x34, 0x12}));
  EXPECT_EQ(Encode<int32_t>(-2), (ByteVector{0xFE, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(Encode<uint64_t>(0x0102030405060708), (ByteVector{8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(Encode(true), (ByteVector{1, 0, 0, 0}));
  EXPECT_EQ(Encode(std::u16string()), (ByteVector{1, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Encode(std::string()), (ByteVector{1, 0, 0, 0, 0}));
  EXPECT_EQ(Encode(std::u16string(u"ab")), (ByteVector{3, 0, 0, 0, 'a', 0, 'b', 0, 0, 0}));
  EXPECT_EQ(Encode(std::string("ab")), (ByteVector{3, 0, 0, 0, 'a', 'b', 0}));
  EXPECT_EQ(Encode(U32List{}), (ByteVector{0, 0, 0, 0}));
  EXPECT_EQ(Encode(Bytes{0xAA, 0xBB}), (ByteVector{2, 0, 0, 0, 0xAA, 0xBB}));
  EXPECT_EQ(Encode(std::optional<uint64_t>()), (ByteVector{0, 0, 0, 0}));
  EXPECT_EQ(Encode(std::optional<uint32_t>(5)), (ByteVector{1, 0, 0, 0, 5, 0, 0, 0}));
  EXPECT_EQ(Encode(WStringList{u"x"}), (ByteVector{1, 0, 0, 0, 2, 0, 0, 0, 'x', 0, 0, 0}));
  // A plain record goes as its memory image, in one piece per array.
  EXPECT_EQ(Encode(FindRuleList{{1, 2, 3}}),
            (ByteVector{1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0}));
  // A record goes field by field with no length prefix.
  EXPECT_EQ(Encode(NameValue{u"a", u""}), (ByteVector{2, 0, 0, 0, 'a', 0, 0, 0, 1, 0, 0, 0, 0, 0}));
}

TEST(WireFieldsTest, ReadersTakeAnyNonZeroWordAsTrue) {
  EXPECT_EQ(Decode<bool>({7, 0, 0, 0}), true);
  EXPECT_EQ(Decode<bool>({0, 0, 0, 0}), false);
  EXPECT_EQ(Decode<std::optional<uint32_t>>({2, 0, 0, 0, 9, 0, 0, 0}), std::optional<uint32_t>(9));
}

TEST(WireFieldsTest, StringsDropTheirLastUnitAndKeepEmbeddedZeros) {
  // The terminator is dropped unchecked; a zero inside the string is kept.
  EXPECT_EQ(Decode<std::u16string>({3, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0}), u"ab");
  const std::u16string with_zero(u"a\0b", 3);
  EXPECT_EQ(Decode<std::u16string>(Encode(with_zero)), with_zero);
  // A count of zero would mean a length of minus one.
  EXPECT_FALSE(Decode<std::u16string>({0, 0, 0, 0}).has_value());
  EXPECT_FALSE(Decode<std::string>({0, 0, 0, 0}).has_value());
}

TEST(WireFieldsTest, CountsBeyondTheBytesPresentFailAfterTheCountAlone) {
  size_t consumed = 0;
  EXPECT_FALSE(Decode<std::u16string>({5, 0, 0, 0, 'a', 0}, &consumed).has_value());
  EXPECT_EQ(consumed, 4u);
  // Counts near 2^32 must fail at once instead of allocating: 2^31 units would be 4 GiB.
  const ByteVector huge{0xFF, 0xFF, 0xFF, 0xFF, 1,  2,  3,  4,  5,  6,
                        7,    8,    9,    10,   11, 12, 13, 14, 15, 16};
  EXPECT_FALSE(Decode<std::u16string>(huge).has_value());
  EXPECT_FALSE(Decode<std::string>(huge).has_value());
  EXPECT_FALSE(Decode<U64List>(huge).has_value());
  EXPECT_FALSE(Decode<Bytes>(huge).has_value());
  EXPECT_FALSE(Decode<WStringList>(huge).has_value());
  EXPECT_FALSE(Decode<NameValueList>(huge).has_value());
  EXPECT_FALSE(Decode<std::vector<std::optional<uint64_t>>>(huge).has_value());
}

TEST(WireFieldsTest, TruncatedValuesNeverDecode) {
  ExpectEveryPrefixFails(std::u16string(u"kit"));
  ExpectEveryPrefixFails(std::optional<uint64_t>(1));
  ExpectEveryPrefixFails(NameValueList{{u"n", u"v"}, {u"", u"w"}});
  ExpectEveryPrefixFails(FindRuleList{{1, 2, 3}, {4, 5, 6}});
  ExpectEveryPrefixFails(ConsoleCacheRecordList{{1, 2, 3, 4, 5, u"text"}});
}

TEST(WireFieldsTest, RendersAsThePacketLogShowsThem) {
  EXPECT_EQ(Render(uint8_t{200}), "200");
  EXPECT_EQ(Render(int32_t{-3}), "-3");
  EXPECT_EQ(Render(std::u16string(u"tool")), "tool");
  EXPECT_EQ(Render(std::optional<uint64_t>()), "<none>");
  EXPECT_EQ(Render(std::optional<uint64_t>(12)), "12");
  EXPECT_EQ(Render(U32List{}), "0{ }");
  EXPECT_EQ(Render(U32List{1, 2, 3}), "3{ 1 2 3 }");
  EXPECT_EQ(Render(U32List{1, 2, 3, 4, 5, 6, 7, 8}), "8{ 1 2 3 4 5 6 7 8 }");
  EXPECT_EQ(Render(U32List{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}), "10{ 1 2 3 4 5 6 7 8  ...}");
  EXPECT_EQ(Render(FindRule{1, 2, 3}), "{ StartAddress:1 EndAddress:2 SubnetMask:3 }");
  EXPECT_EQ(Render(NameValueList{{u"a", u"b"}}), "1{ { Name:a Value:b } }");
}

}  // namespace
}  // namespace qv
