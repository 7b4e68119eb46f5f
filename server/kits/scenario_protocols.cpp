// The `protocols` of a kit and of the local target: numbered endpoints that generic protocol
// channels open (docs/protocols.md).

#include <set>
#include <string>

#include "server/kits/protocol_endpoints.h"
#include "server/kits/scenario.h"
#include "server/kits/scenario_checks.h"

namespace qv::server {
namespace {

using Kind = DocNode::Kind;

// A source's default pattern: every byte value once, so that a lost or repeated byte shows.
std::vector<uint8_t> AllByteValues() {
  std::vector<uint8_t> bytes(256);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(i);
  return bytes;
}

// A decimal number up to `max`; nullopt for anything else.
std::optional<uint64_t> Decimal(const std::string& text, uint64_t max) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (value > max) return std::nullopt;
  return value;
}

uint64_t EndpointNumber(const DocNode& node, const std::string& key, uint64_t max) {
  const std::string value = Single(node, key);
  const auto number = Decimal(value, max);
  if (!number) {
    Refuse(node, "'" + key + "' must be a whole number up to " + std::to_string(max) + ", not '" +
                     value + "'");
  }
  return *number;
}

std::vector<uint8_t> PatternBytes(const DocNode& node) {
  const std::string value = Single(node, "pattern");
  std::vector<uint8_t> bytes;
  int high = -1;
  for (char c : value) {
    if ((c == ' ' || c == ':') && high < 0) continue;
    int digit = -1;
    if (c >= '0' && c <= '9') digit = c - '0';
    if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    if (digit < 0) Refuse(node, "'pattern' must be pairs of hex digits, not '" + value + "'");
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
      high = -1;
    }
  }
  if (high >= 0 || bytes.empty()) {
    Refuse(node, "'pattern' must be pairs of hex digits, not '" + value + "'");
  }
  return bytes;
}

ScriptAction ReadAction(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each script step must be a mapping");
  CheckKeys(node, {"after_ms", "send", "expect", "status", "close"}, "a script step");
  ScriptAction action;
  if (const DocNode* value = Find(node, "after_ms")) {
    action.after_ms = Milliseconds(*value, "after_ms");
  }
  int actions = 0;
  if (const DocNode* value = Find(node, "send")) {
    action.kind = ScriptAction::Kind::kSend;
    action.text = Single(*value, "send");
    ++actions;
  }
  if (const DocNode* value = Find(node, "expect")) {
    action.kind = ScriptAction::Kind::kExpect;
    action.text = Single(*value, "expect");
    ++actions;
  }
  if (const DocNode* value = Find(node, "status")) {
    const std::string status = Single(*value, "status");
    if (status != "down" && status != "up") {
      Refuse(*value, "'status' must be down or up, not '" + status + "'");
    }
    action.kind = status == "down" ? ScriptAction::Kind::kDown : ScriptAction::Kind::kUp;
    ++actions;
  }
  if (const DocNode* value = Find(node, "close")) {
    if (!Flag(*value, "close")) Refuse(*value, "'close' can only be true");
    action.kind = ScriptAction::Kind::kClose;
    ++actions;
  }
  if (actions != 1) Refuse(node, "a script step takes one of send, expect, status or close");
  return action;
}

ProtocolEndpoint ReadEndpoint(const DocNode& node, bool local) {
  if (node.kind != Kind::kMap) Refuse(node, "each protocol must be a mapping");
  CheckKeys(node, {"number", "endpoint", "length", "pattern", "steps", "to"}, "a protocol");
  const DocNode* number = Find(node, "number");
  const DocNode* endpoint = Find(node, "endpoint");
  if (number == nullptr || endpoint == nullptr) {
    Refuse(node, "a protocol needs a 'number' and an 'endpoint'");
  }
  ProtocolEndpoint result;
  result.number = static_cast<uint32_t>(EndpointNumber(*number, "number", UINT32_MAX));
  const std::string kind = Single(*endpoint, "endpoint");
  // Which keys each kind takes besides number and endpoint.
  std::set<std::string> own;
  if (kind == "echo") {
    result.kind = EndpointKind::kEcho;
  } else if (kind == "sink") {
    result.kind = EndpointKind::kSink;
  } else if (kind == "source") {
    result.kind = EndpointKind::kSource;
    own = {"length", "pattern"};
    const DocNode* length = Find(node, "length");
    if (length == nullptr) Refuse(node, "a source needs a 'length'");
    result.length = EndpointNumber(*length, "length", UINT64_MAX / 2);
    const DocNode* pattern = Find(node, "pattern");
    result.pattern = pattern != nullptr ? PatternBytes(*pattern) : AllByteValues();
  } else if (kind == "script") {
    result.kind = EndpointKind::kScript;
    own = {"steps"};
    const DocNode* steps = Find(node, "steps");
    if (steps == nullptr || steps->kind != Kind::kList || steps->items.empty()) {
      Refuse(steps != nullptr ? *steps : node, "a script needs a list of 'steps'");
    }
    for (const DocNode& step : steps->items)
      result.script.push_back(ReadAction(step));
  } else if (kind == "forward") {
    if (!local) Refuse(*endpoint, "only the local target forwards protocols");
    result.kind = EndpointKind::kForward;
    own = {"to"};
    const DocNode* to = Find(node, "to");
    if (to == nullptr) Refuse(node, "a forward needs 'to' (tcp:127.0.0.1:PORT or unix:PATH)");
    std::string error;
    const auto address = ParseForwardAddress(Single(*to, "to"), error);
    if (!address) Refuse(*to, error);
    result.forward = *address;
  } else {
    Refuse(*endpoint,
           "'endpoint' must be echo, source, sink, script or forward, not '" + kind + "'");
  }
  for (const char* key : {"length", "pattern", "steps", "to"}) {
    if (own.count(key) == 0 && Find(node, key) != nullptr) {
      Refuse(*Find(node, key), "'" + std::string(key) + "' does not belong to " + kind);
    }
  }
  return result;
}

}  // namespace

std::vector<ProtocolEndpoint> ReadProtocols(const DocNode& node, bool local) {
  if (node.kind == Kind::kNull) return {};
  if (node.kind != Kind::kList) Refuse(node, "'protocols' must be a list");
  std::vector<ProtocolEndpoint> endpoints;
  std::set<uint32_t> numbers;
  for (const DocNode& item : node.items) {
    endpoints.push_back(ReadEndpoint(item, local));
    if (!numbers.insert(endpoints.back().number).second) {
      Refuse(item, "protocol " + std::to_string(endpoints.back().number) + " is listed twice");
    }
  }
  return endpoints;
}

std::optional<ForwardAddress> ParseForwardAddress(const std::string& text, std::string& error) {
  ForwardAddress address;
  static const std::string kTcp = "tcp:127.0.0.1:";
  if (text.rfind(kTcp, 0) == 0) {
    const auto port = Decimal(text.substr(kTcp.size()), 65535);
    if (port && *port != 0) {
      address.port = static_cast<uint16_t>(*port);
      return address;
    }
  } else if (text.rfind("unix:", 0) == 0 && text.size() > 5) {
    address.kind = ForwardAddress::Kind::kUnix;
    address.path = text.substr(5);
    return address;
  }
  error = "a forward goes to tcp:127.0.0.1:PORT or unix:PATH, not '" + text + "'";
  return std::nullopt;
}

std::optional<ProtocolEndpoint> ParseForwardOption(const std::string& text, std::string& error) {
  const size_t equals = text.find('=');
  const auto number =
      equals == std::string::npos ? std::nullopt : Decimal(text.substr(0, equals), UINT32_MAX);
  if (!number) {
    error = "--forward takes N=tcp:127.0.0.1:PORT or N=unix:PATH, not '" + text + "'";
    return std::nullopt;
  }
  const auto address = ParseForwardAddress(text.substr(equals + 1), error);
  if (!address) return std::nullopt;
  ProtocolEndpoint endpoint;
  endpoint.number = static_cast<uint32_t>(*number);
  endpoint.kind = EndpointKind::kForward;
  endpoint.forward = *address;
  return endpoint;
}

bool AddForwards(Scenario& scenario, const std::vector<ProtocolEndpoint>& forwards,
                 std::string& error) {
  if (forwards.empty()) return true;
  for (Kit& kit : scenario.kits) {
    if (!kit.local) continue;
    for (const ProtocolEndpoint& forward : forwards) {
      std::erase_if(kit.protocols, [&](const ProtocolEndpoint& endpoint) {
        return endpoint.number == forward.number;
      });
      kit.protocols.push_back(forward);
    }
    return true;
  }
  error = "--forward needs the local target (on Linux: the built-in scenario, or local: true)";
  return false;
}

const char* EndpointKindName(EndpointKind kind) {
  switch (kind) {
    case EndpointKind::kEcho:
      return "echo";
    case EndpointKind::kSource:
      return "source";
    case EndpointKind::kSink:
      return "sink";
    case EndpointKind::kScript:
      return "script";
    case EndpointKind::kForward:
      return "forward";
  }
  return "unknown";
}

}  // namespace qv::server
