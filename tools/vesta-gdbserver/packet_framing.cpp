#include "packet_framing.h"

#include <cstdio>

namespace vesta_gdb {

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void PacketReader::Feed(std::string_view bytes, std::vector<FramingEvent>& events) {
  for (const char c : bytes) {
    switch (state_) {
      case State::kIdle:
        // Anything else between packets is line noise, as gdbserver treats it.
        if (c == '$') {
          state_ = State::kPayload;
          payload_.clear();
          overflow_ = false;
          sum_ = 0;
        } else if (c == '\x03') {
          events.push_back({FramingEvent::Kind::kInterrupt, {}});
        } else if (c == '+') {
          events.push_back({FramingEvent::Kind::kAck, {}});
        } else if (c == '-') {
          events.push_back({FramingEvent::Kind::kNack, {}});
        }
        break;
      case State::kPayload:
        if (c == '#') {
          state_ = State::kChecksum1;
        } else if (c == '$') {
          // A packet that starts again before its end: the first one is lost.
          events.push_back({FramingEvent::Kind::kBadPacket, {}});
          payload_.clear();
          overflow_ = false;
          sum_ = 0;
        } else {
          sum_ = static_cast<std::uint8_t>(sum_ + static_cast<std::uint8_t>(c));
          if (payload_.size() < max_payload_) {
            payload_ += c;
          } else {
            overflow_ = true;
          }
        }
        break;
      case State::kChecksum1:
        high_digit_ = HexDigitValue(c);
        state_ = State::kChecksum2;
        break;
      case State::kChecksum2: {
        const int low = HexDigitValue(c);
        const bool good = high_digit_ >= 0 && low >= 0 && !overflow_ &&
                          static_cast<std::uint8_t>(high_digit_ << 4 | low) == sum_;
        events.push_back(good ? FramingEvent{FramingEvent::Kind::kPacket, std::move(payload_)}
                              : FramingEvent{FramingEvent::Kind::kBadPacket, {}});
        payload_.clear();
        state_ = State::kIdle;
        break;
      }
    }
  }
}

std::string Frame(std::string_view payload) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::uint8_t sum = 0;
  for (const char c : payload)
    sum = static_cast<std::uint8_t>(sum + static_cast<std::uint8_t>(c));
  std::string framed;
  framed.reserve(payload.size() + 4);
  framed += '$';
  framed += payload;
  framed += '#';
  framed += kDigits[sum >> 4];
  framed += kDigits[sum & 0xF];
  return framed;
}

std::string EscapeBinary(std::string_view data) {
  std::string out;
  out.reserve(data.size());
  for (const char c : data) {
    if (c == '#' || c == '$' || c == '}' || c == '*') {
      out += '}';
      out += static_cast<char>(c ^ 0x20);
    } else {
      out += c;
    }
  }
  return out;
}

bool UnescapeBinary(std::string_view data, std::string& out) {
  out.clear();
  out.reserve(data.size());
  for (size_t i = 0; i < data.size(); ++i) {
    if (data[i] != '}') {
      out += data[i];
      continue;
    }
    if (++i == data.size()) return false;
    out += static_cast<char>(data[i] ^ 0x20);
  }
  return true;
}

std::string HexNumber(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string HexEncode(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex(bytes.size() * 2, '0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = static_cast<std::uint8_t>(bytes[i]);
    hex[2 * i] = kDigits[byte >> 4];
    hex[2 * i + 1] = kDigits[byte & 0xF];
  }
  return hex;
}

bool HexDecode(std::string_view hex, std::string& out) {
  out.clear();
  if (hex.size() % 2 != 0) return false;
  out.resize(hex.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    const int high = HexDigitValue(hex[2 * i]);
    const int low = HexDigitValue(hex[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    out[i] = static_cast<char>(high << 4 | low);
  }
  return true;
}

}  // namespace vesta_gdb
