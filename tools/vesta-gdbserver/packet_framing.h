#pragma once
// The GDB remote serial protocol's framing: "$payload#cs" packets with a two-digit checksum, the
// '+'/'-' acknowledgements, and the lone 0x03 byte that asks for an interrupt. The reader is
// incremental (bytes arrive in any pieces) and never fails: what it cannot frame it reports, and
// carries on at the next '$'.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vesta_gdb {

struct FramingEvent {
  enum class Kind {
    kPacket,     // a whole packet with a good checksum: payload as sent (escapes kept)
    kBadPacket,  // a bad checksum or a payload over the limit: the peer should send it again
    kInterrupt,  // 0x03 between packets
    kAck,        // '+'
    kNack,       // '-': send the last packet again
  };
  Kind kind;
  std::string payload;
};

class PacketReader {
 public:
  // Payloads longer than `max_payload` bytes are dropped and reported as bad.
  explicit PacketReader(size_t max_payload) : max_payload_(max_payload) {}

  // Appends what `bytes` completes to `events`.
  void Feed(std::string_view bytes, std::vector<FramingEvent>& events);

 private:
  enum class State { kIdle, kPayload, kChecksum1, kChecksum2 };
  const size_t max_payload_;
  State state_ = State::kIdle;
  std::string payload_;
  bool overflow_ = false;
  std::uint8_t sum_ = 0;
  int high_digit_ = 0;
};

// "$payload#cs": `payload` must already be escaped where it carries binary data.
std::string Frame(std::string_view payload);

// Binary data as a packet may carry it: '#', '$', '}' and '*' (which the debugger would read as
// run-length encoding) become '}' followed by the byte xor 0x20.
std::string EscapeBinary(std::string_view data);
// The reverse; false when an escape is cut off.
bool UnescapeBinary(std::string_view data, std::string& out);

// Two lower-case hex digits per byte, and back (false on an odd count or a non-digit).
std::string HexEncode(std::string_view bytes);
bool HexDecode(std::string_view hex, std::string& out);
int HexDigitValue(char c);
// A number in lower-case hex without leading zeros, as addresses and thread ids are written.
std::string HexNumber(std::uint64_t value);

}  // namespace vesta_gdb
