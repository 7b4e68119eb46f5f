#pragma once
// Framing of the pipe: every message in either direction is a 16-byte frame header and a body.
//
//   offset 0  u32  reserved, 0 (a reader that sees anything else drops the connection)
//   offset 4  u32  body length
//   offset 8  u64  reserved, 0 (not examined)
//
// Requests start their body with a 12-byte request header (type number, target handle,
// sequence); incoming bodies start with the message kind and the type number.

#include <array>
#include <atomic>
#include <cstdint>

#include "serverlink/message_buffer.h"

namespace qv {

inline constexpr size_t kFrameHeaderBytes = 16;
// The one limit on a frame body, for both ends: a larger body closes the connection rather than
// being allocated, and a larger request is not sent.
inline constexpr uint32_t kMaxFrameBodyBytes = 256u << 20;

// The target handle of requests that are about no particular target.
inline constexpr uint32_t kNoTarget = 0xFFFFFFFF;

enum class IncomingKind : uint32_t { kResponse = 0, kNotification = 1 };

std::array<uint8_t, kFrameHeaderBytes> EncodeFrameHeader(uint32_t body_length);

enum class FrameHeaderCheck { kOk, kBadReservedWord, kTooLarge };
// Checks a received header and extracts the body length.
FrameHeaderCheck ParseFrameHeader(const uint8_t (&header)[kFrameHeaderBytes],
                                  uint32_t& body_length);

// Writes the request header; false when the buffer cannot grow.
bool WriteRequestHeader(MessageBuffer& buffer, uint32_t type_number, uint32_t target_handle,
                        uint32_t sequence);

// Request sequence numbers: the counter is incremented atomically and its low 31 bits are the
// number, so numbers are never negative and 2,147,483,647 is followed by 0.
class SequenceCounter {
 public:
  explicit SequenceCounter(uint32_t start = 0) : counter_(start) {}
  uint32_t Next() { return (counter_.fetch_add(1, std::memory_order_relaxed) + 1) & 0x7FFFFFFFu; }
  // Continues counting after `value`.
  void Restart(uint32_t value) { counter_.store(value, std::memory_order_relaxed); }

 private:
  std::atomic<uint32_t> counter_;
};

}  // namespace qv
