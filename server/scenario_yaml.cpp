// Reading scenarios from YAML (yaml-cpp).
#include "server/scenario.h"

#include <yaml-cpp/yaml.h>

#include <exception>
#include <set>

#include "platform/wide_string.h"

namespace qv::server {
namespace {

// A refusal with the line it concerns (yaml-cpp counts lines from 0).
struct ScenarioError {
  int line;
  std::string what;
};

[[noreturn]] void Refuse(const YAML::Node& node, std::string what) {
  throw ScenarioError{node.Mark().line, std::move(what)};
}

std::string Scalar(const YAML::Node& node, const std::string& key) {
  if (!node.IsScalar()) Refuse(node, "'" + key + "' must be a single value");
  return node.Scalar();
}

std::u16string Text(const YAML::Node& node, const std::string& key) {
  const std::string value = Scalar(node, key);
  if (value.empty()) Refuse(node, "'" + key + "' must not be empty");
  return platform::Utf8ToUtf16(value);
}

bool Flag(const YAML::Node& node, const std::string& key) {
  const std::string value = Scalar(node, key);
  if (value == "true" || value == "yes" || value == "on") return true;
  if (value == "false" || value == "no" || value == "off") return false;
  Refuse(node, "'" + key + "' must be true or false, not '" + value + "'");
}

uint32_t Milliseconds(const YAML::Node& node, const std::string& key) {
  const std::string value = Scalar(node, key);
  uint64_t result = 0;
  if (value.empty() || value.size() > 9) {
    Refuse(node, "'" + key + "' must be a whole number of milliseconds up to 999999999");
  }
  for (char c : value) {
    if (c < '0' || c > '9') {
      Refuse(node, "'" + key + "' must be a whole number of milliseconds, not '" + value + "'");
    }
    result = result * 10 + static_cast<uint64_t>(c - '0');
  }
  return static_cast<uint32_t>(result);
}

// Dotted decimal numbers: "a.b.c.d" with `count` parts, each at most `max`.
std::vector<uint32_t> Dotted(const YAML::Node& node, const std::string& key, size_t count,
                             uint32_t max) {
  const std::string value = Scalar(node, key);
  std::vector<uint32_t> parts(1, 0);
  bool digit_seen = false;
  for (char c : value) {
    if (c == '.') {
      if (!digit_seen) break;
      parts.push_back(0);
      digit_seen = false;
    } else if (c >= '0' && c <= '9' && parts.back() <= max) {
      parts.back() = parts.back() * 10 + static_cast<uint32_t>(c - '0');
      digit_seen = true;
    } else {
      digit_seen = false;
      break;
    }
  }
  bool ok = digit_seen && parts.size() == count;
  for (uint32_t part : parts)
    ok = ok && part <= max;
  if (!ok) {
    Refuse(node, "'" + key + "' must be " + std::to_string(count) +
                     " dot-separated numbers up to " + std::to_string(max) + ", not '" + value +
                     "'");
  }
  return parts;
}

std::vector<uint8_t> Mac(const YAML::Node& node) {
  const std::string value = Scalar(node, "mac");
  std::vector<uint8_t> bytes;
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  bool ok = value.size() == 17;
  for (size_t i = 0; ok && i < value.size(); i += 3) {
    const int high = hex(value[i]);
    const int low = hex(value[i + 1]);
    ok = high >= 0 && low >= 0 && (i + 2 == value.size() || value[i + 2] == ':');
    if (ok) bytes.push_back(static_cast<uint8_t>(high * 16 + low));
  }
  if (!ok) Refuse(node, "'mac' must be six hex byte pairs joined by ':', not '" + value + "'");
  return bytes;
}

PowerStatus Power(const YAML::Node& node) {
  const std::string value = Scalar(node, "power");
  // YAML 1.1 readers take on/off for booleans; both spellings mean the power state here.
  if (value == "on" || value == "true") return PowerStatus::kOn;
  if (value == "off" || value == "false") return PowerStatus::kOff;
  if (value == "standby") return PowerStatus::kStandby;
  Refuse(node, "'power' must be on, off or standby, not '" + value + "'");
}

void CheckKeys(const YAML::Node& map, const std::set<std::string>& known, const char* what) {
  for (const auto& entry : map) {
    const std::string key = entry.first.Scalar();
    if (known.count(key) == 0) {
      std::string list;
      for (const std::string& name : known)
        list += (list.empty() ? "" : ", ") + name;
      Refuse(entry.first, "unknown key '" + key + "' in " + what + " (known: " + list + ")");
    }
  }
}

KitTimings Timings(const YAML::Node& node) {
  if (!node.IsMap()) Refuse(node, "'timings' must be a mapping");
  CheckKeys(node, {"boot_ms", "power_off_ms", "connect_ms"}, "timings");
  KitTimings timings;
  if (node["boot_ms"]) timings.boot_ms = Milliseconds(node["boot_ms"], "boot_ms");
  if (node["power_off_ms"]) {
    timings.power_off_ms = Milliseconds(node["power_off_ms"], "power_off_ms");
  }
  if (node["connect_ms"]) timings.connect_ms = Milliseconds(node["connect_ms"], "connect_ms");
  return timings;
}

Kit ReadKit(const YAML::Node& node) {
  if (!node.IsMap()) Refuse(node, "each kit must be a mapping with at least 'host'");
  CheckKeys(node,
            {"host", "name", "mac", "sdk_version", "power", "reachable", "registered", "default",
             "address", "timings"},
            "a kit");
  Kit kit;
  if (!node["host"]) Refuse(node, "a kit needs a 'host'");
  kit.host = Text(node["host"], "host");
  kit.name = node["name"] ? Text(node["name"], "name") : kit.host;
  if (node["mac"]) kit.mac = Mac(node["mac"]);
  if (node["sdk_version"]) {
    const auto parts = Dotted(node["sdk_version"], "sdk_version", 4, 0xFFFF);
    std::copy(parts.begin(), parts.end(), kit.sdk_version.begin());
  }
  if (node["power"]) kit.power = Power(node["power"]);
  if (node["reachable"]) kit.reachable = Flag(node["reachable"], "reachable");
  if (node["registered"]) kit.registered = Flag(node["registered"], "registered");
  if (node["default"]) kit.is_default = Flag(node["default"], "default");
  if (node["address"]) {
    Dotted(node["address"], "address", 4, 255);
    kit.address = Text(node["address"], "address");
  }
  if (node["timings"]) kit.timings = Timings(node["timings"]);
  if (kit.is_default && !kit.registered) {
    Refuse(node["default"], "a default kit must be registered");
  }
  return kit;
}

Scenario ReadScenario(const YAML::Node& root) {
  Scenario scenario;
  if (!root || root.IsNull()) return scenario;
  if (!root.IsMap()) Refuse(root, "a scenario must be a mapping with the key 'kits'");
  CheckKeys(root, {"kits"}, "the scenario");
  const YAML::Node kits = root["kits"];
  if (!kits || kits.IsNull()) return scenario;
  if (!kits.IsSequence()) Refuse(kits, "'kits' must be a list");
  bool default_seen = false;
  for (const YAML::Node& entry : kits) {
    Kit kit = ReadKit(entry);
    if (scenario.FindKit(kit.host) != nullptr) {
      Refuse(entry["host"], "host '" + platform::Utf16ToUtf8(kit.host) + "' is listed twice");
    }
    if (kit.is_default && default_seen) Refuse(entry["default"], "only one kit can be default");
    default_seen = default_seen || kit.is_default;
    scenario.kits.push_back(std::move(kit));
  }
  return scenario;
}

}  // namespace

ScenarioResult ParseScenario(const std::string& text, const std::string& file_name) noexcept {
  ScenarioResult result;
  try {
    result.scenario = ReadScenario(YAML::Load(text));
  } catch (const ScenarioError& error) {
    result.error = file_name + ":" + std::to_string(error.line + 1) + ": " + error.what;
  } catch (const YAML::Exception& error) {
    result.error = file_name + ":" + std::to_string(error.mark.line + 1) + ": " + error.msg;
  } catch (const std::exception& error) {
    result.error = file_name + ": " + error.what();
  }
  return result;
}

}  // namespace qv::server
