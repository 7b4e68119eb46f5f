#include "serverlink/lumo_stream.h"

#include <array>

#include "serverlink/wire_fields.h"

namespace qv {

namespace {

constexpr std::array<uint8_t, 3> kZeros{};

uint64_t PaddingToWord(uint64_t length) {
  return ((length + 3) & ~uint64_t{3}) - length;
}

bool Pop(std::vector<uint64_t>& stack, uint64_t& value) {
  if (stack.empty()) return false;
  value = stack.back();
  stack.pop_back();
  return true;
}

// Stack pushes that cannot allocate fail instead of throwing.
bool Push(std::vector<uint64_t>& stack, uint64_t value) {
  try {
    stack.push_back(value);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

bool CLumoOStream::BeginBlock() {
  return Push(blocks_, buffer_.WriteOffset());
}

bool CLumoOStream::EndBlock() {
  uint64_t start = 0;
  if (!Pop(blocks_, start)) return false;
  const uint64_t end = buffer_.WriteOffset();
  if (end < start + sizeof(uint32_t)) return false;  // no room was taken for the length
  const auto length = static_cast<uint32_t>(end - start);
  buffer_.WriteAt(start, &length, sizeof length);
  return buffer_.Write(kZeros.data(), PaddingToWord(length));
}

bool CLumoOStream::BeginAligned() {
  return Push(aligned_, buffer_.WriteOffset());
}

bool CLumoOStream::EndAligned() {
  uint64_t start = 0;
  if (!Pop(aligned_, start)) return false;
  const auto length = static_cast<uint32_t>(buffer_.WriteOffset() - start);
  return buffer_.Write(kZeros.data(), PaddingToWord(length));
}

bool CLumoIStream::BeginBlock() {
  uint32_t length = 0;
  const bool ok = !failed_ && buffer_.Peek(&length, sizeof length);
  const uint64_t offset = buffer_.ReadOffset();
  if (!Push(blocks_, ok ? offset + length : offset) || !ok) {
    failed_ = true;
    return false;
  }
  return true;
}

bool CLumoIStream::EndBlock() {
  uint64_t end = 0;
  if (!Pop(blocks_, end)) {
    failed_ = true;
    return false;
  }
  const uint64_t offset = buffer_.ReadOffset();
  if (offset > end || !buffer_.Skip(end - offset)) {
    failed_ = true;
    return false;
  }
  return !failed_;
}

bool CLumoIStream::BeginAligned() {
  return Push(aligned_, buffer_.ReadOffset());
}

bool CLumoIStream::EndAligned() {
  uint64_t start = 0;
  if (!Pop(aligned_, start)) return false;
  const auto length = static_cast<uint32_t>(buffer_.ReadOffset() - start);
  return buffer_.Skip(PaddingToWord(length));
}

}  // namespace qv
