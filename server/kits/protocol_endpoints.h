#pragma once
// The numbered generic protocol endpoints a kit offers (docs/protocols.md): what a channel opened
// to each number talks to.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv::server {

enum class EndpointKind {
  kEcho,     // what is written comes back
  kSource,   // a byte pattern of a given length, then the endpoint closes the channel
  kSink,     // counts and discards what is written
  kScript,   // timed lines out, expected lines in, the endpoint taken down and up
  kForward,  // one connection per open to a loopback TCP port or a Unix socket (local target)
};

// One step of a script endpoint, `after_ms` after the step before (or the open).
struct ScriptAction {
  enum class Kind { kSend, kExpect, kDown, kUp, kClose };
  Kind kind = Kind::kSend;
  std::string text;  // kSend: the bytes sent; kExpect: the line awaited, without its '\n'
  uint32_t after_ms = 0;

  friend bool operator==(const ScriptAction&, const ScriptAction&) = default;
};

// Where a forwarding endpoint connects: "tcp:127.0.0.1:PORT" or "unix:PATH".
struct ForwardAddress {
  enum class Kind { kTcp, kUnix };
  Kind kind = Kind::kTcp;
  uint16_t port = 0;  // kTcp, on 127.0.0.1
  std::string path;   // kUnix

  friend bool operator==(const ForwardAddress&, const ForwardAddress&) = default;
};

struct ProtocolEndpoint {
  uint32_t number = 0;
  EndpointKind kind = EndpointKind::kEcho;
  uint64_t length = 0;               // kSource: bytes before the endpoint closes
  std::vector<uint8_t> pattern;      // kSource: repeated; never empty
  std::vector<ScriptAction> script;  // kScript
  ForwardAddress forward;            // kForward

  friend bool operator==(const ProtocolEndpoint&, const ProtocolEndpoint&) = default;
};

// Parses "tcp:127.0.0.1:PORT" (the loopback address only: forwarding reaches this machine) or
// "unix:PATH"; nullopt with `error` set otherwise.
std::optional<ForwardAddress> ParseForwardAddress(const std::string& text, std::string& error);
// Parses vesta-kx's "--forward N=ADDRESS".
std::optional<ProtocolEndpoint> ParseForwardOption(const std::string& text, std::string& error);

// The endpoint's kind as scenarios and `vesta-ctrl proto --list` name it: "echo", "source", ...
const char* EndpointKindName(EndpointKind kind);

}  // namespace qv::server
