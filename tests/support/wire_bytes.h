#pragma once
// Encoding to and decoding from plain byte vectors, for tests that compare exact bytes. Works on
// single fields (through the field codecs) and on whole messages (through Serialize).

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "serverlink/message_buffer.h"
#include "serverlink/wire_fields.h"

namespace qv::testing {

using ByteVector = std::vector<uint8_t>;

template <class T>
ByteVector Encode(const T& value) {
  MessageBuffer buffer;
  if constexpr (requires { value.Serialize(buffer); }) {
    EXPECT_TRUE(value.Serialize(buffer));
  } else {
    EXPECT_TRUE(WriteField(buffer, value));
  }
  return ByteVector(buffer.Data(), buffer.Data() + buffer.Size());
}

// True only when `bytes` decode as a T and every byte was used.
template <class T>
bool DecodeAll(const ByteVector& bytes, T& value) {
  MessageBuffer buffer(bytes.data(), bytes.size());
  bool ok;
  if constexpr (requires { value.Deserialize(buffer); }) {
    ok = value.Deserialize(buffer);
  } else {
    ok = ReadField(buffer, value);
  }
  return ok && buffer.Size() == 0;
}

// Little-endian bytes written out by hand, independent of the field codecs, for the encodings a
// test expects.
class HandBytes {
 public:
  // Each value in turn, at its width.
  template <class... T>
  HandBytes& U32(T... values) {
    return (Put(static_cast<uint32_t>(values), 4), ...);
  }
  template <class... T>
  HandBytes& U64(T... values) {
    return (Put(static_cast<uint64_t>(values), 8), ...);
  }
  template <class... T>
  HandBytes& Byte(T... values) {
    return (Put(static_cast<uint8_t>(values), 1), ...);
  }
  // A counted wide string with its terminator.
  HandBytes& Text(std::u16string_view text) {
    U32(static_cast<uint32_t>(text.size() + 1));
    for (char16_t unit : text)
      Put(unit, 2);
    return Put(0, 2);
  }
  // A counted narrow string with its terminator.
  HandBytes& NText(std::string_view text) {
    U32(static_cast<uint32_t>(text.size() + 1));
    for (char unit : text)
      Put(static_cast<uint8_t>(unit), 1);
    return Put(0, 1);
  }
  const ByteVector& bytes() const { return bytes_; }

 private:
  HandBytes& Put(uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
      bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return *this;
  }
  ByteVector bytes_;
};

}  // namespace qv::testing
