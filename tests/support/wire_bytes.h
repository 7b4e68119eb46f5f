#pragma once
// Encoding to and decoding from plain byte vectors, for tests that compare exact bytes. Works on
// single fields (through the field codecs) and on whole messages (through Serialize).

#include <gtest/gtest.h>

#include <cstdint>
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

}  // namespace qv::testing
