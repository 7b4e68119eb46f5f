#pragma once
// One open generic protocol channel on the server: what GENERIC_PROTOCOL_WRITE, _READ and _STATUS
// of one client reach. Each endpoint kind has its own (protocol_channels.cpp, forward_channel.cpp).
//
// Every call returns within a bounded time: a read waits at most kReadWait for its first byte and
// then takes what has arrived (nothing is not a failure), a write waits at most kWriteWait for
// room and then takes what fits (flow control: the count it reports may be short, even 0, but a
// byte it counted is never dropped).

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "requests/wire_types.h"
#include "server/core/status.h"
#include "server/kits/protocol_endpoints.h"

namespace qv::server {

inline constexpr std::chrono::milliseconds kReadWait{200};
inline constexpr std::chrono::milliseconds kWriteWait{1000};
// What one channel holds that its reader has not taken yet.
inline constexpr size_t kChannelBuffer = 1u << 20;

class ProtocolChannel {
 public:
  virtual ~ProtocolChannel() = default;
  // Takes what fits of `data`; `written` is how much. Fails once the endpoint has closed.
  virtual Status Write(const Bytes& data, uint32_t& written) = 0;
  // Up to `size` bytes that have arrived. Fails once the endpoint has closed and nothing is left.
  virtual Status Read(uint32_t size, Bytes& data) = 0;
  // False once the endpoint has closed its side.
  virtual bool IsOpen() const = 0;
  // Ends the channel: every wait in it returns, its threads end and its connection closes.
  virtual void Close() = 0;
};

// What a channel tells its target about the endpoint behind it (a script takes it down and up).
using AvailabilityChange = std::function<void(bool available)>;

// The channel to `endpoint`, connected where it forwards; a failure says why none could be made.
Status OpenChannel(const ProtocolEndpoint& endpoint, const AvailabilityChange& availability,
                   std::unique_ptr<ProtocolChannel>& channel);

// The failures every kind shares, naming the protocol.
Status ClosedByEndpoint(uint32_t protocol);

#ifndef _WIN32
// A channel over one connection to where `endpoint` forwards (forward_channel.cpp).
Status OpenForwardChannel(const ProtocolEndpoint& endpoint,
                          std::unique_ptr<ProtocolChannel>& channel);
#endif

}  // namespace qv::server
