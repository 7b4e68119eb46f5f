#include "server/kits/scenario.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <set>
#include <sstream>

#include "platform/wide_string.h"
#include "server/kits/scenario_checks.h"
#include "server/kits/scenario_document.h"

namespace qv::server {

bool SameHost(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c - u'A' + u'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

const Kit* Scenario::FindKit(std::u16string_view host) const {
  for (const Kit& kit : kits) {
    if (SameHost(kit.host, host)) return &kit;
  }
  return nullptr;
}

ScenarioResult LoadScenarioFile(const std::string& path) noexcept {
  try {
    std::ifstream file(path, std::ios::binary);
    if (!file) return {std::nullopt, path + ": cannot be opened"};
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad()) return {std::nullopt, path + ": cannot be read"};
    return ParseScenario(text.str(), path);
  } catch (const std::exception& error) {
    return {std::nullopt, path + ": " + error.what()};
  }
}

namespace {

// A program the built-in kit runs from the start, so that a debugger has something to look at:
// a main thread going round a loop of four instructions and holding a lock, a worker waiting for
// that lock, a semaphore, and the system library beside the program.
ProgramImage SampleImage() {
  ProgramImage image;
  image.path = u"/app/sample.elf";
  image.name = "sample";
  image.entry = 0x401000;
  image.running = true;
  // push rbp; mov rbp, rsp; nop; jmp back to the nop
  image.regions.push_back(
      {0x401000,
       {0x55, 0x48, 0x89, 0xe5, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0xeb, 0xf6}});
  image.regions.back().bytes.resize(0x1000);
  image.regions.back().protection = kProtectRead | kProtectExecute;
  const std::string greeting = "Hello from sample";
  image.regions.push_back({0x404000, {greeting.begin(), greeting.end()}});
  image.regions.back().bytes.resize(0x1000);
  const std::u16string library = u"/system/lib/libkernel.sprx";
  image.regions.push_back({0x800000, {0xc3}, library, kProtectRead | kProtectExecute});  // ret
  image.regions.back().bytes.resize(0x2000);
  ImageThread main;
  main.name = "main";
  main.registers[0x10004] = {0x7ffff000, 0, 0, 0};  // rsp
  main.path = {{0x401000, {}}, {0x401004, {}}, {0x401008, {}}, {0x40100c, {}}};
  main.loop = true;
  ImageThread worker;
  worker.name = "worker";
  worker.wait = 0;  // the mutex below
  image.threads = {main, worker};
  image.threads.front().registers[0x10012] = {image.entry, 0, 0, 0};  // rip

  // Threads by position plus one: main is 1, worker 2 (thread_fields.h).
  MutexRecord lock;
  lock.KernelID = 1;
  lock.Name = "sample_lock";
  lock.OwnerThreadID = 1;
  lock.Count = 1;
  lock.WaitingThreads = {2};
  SemaphoreRecord jobs;
  jobs.KernelID = 2;
  jobs.Name = "sample_jobs";
  jobs.Count = 2;
  jobs.InitialValue = 2;
  jobs.MaxValue = 8;
  jobs.RefCount = 1;
  image.sync = {SyncObjectRecord::Make<SyncObjectKind::kVestaMutex>(lock),
                SyncObjectRecord::Make<SyncObjectKind::kVestaSemaphore>(jobs)};

  ModuleInfoRecord program;
  program.ModuleName = u"sample";
  program.LoadPath = image.path;
  program.StartEntryAddress = image.entry;
  program.ReferenceCount = 1;
  program.SegmentInfoList = {{kProtectRead | kProtectExecute, 0, 0x401000, 0x1000},
                             {kProtectRead | kProtectWrite, 0, 0x404000, 0x1000}};
  ModuleInfoRecord kernel;
  kernel.ModuleName = u"libkernel.sprx";
  kernel.LoadPath = library;
  kernel.Type = 2;   // MODULE_TYPE_SYSTEM
  kernel.Flags = 1;  // MODULE_FLAG_SYSTEM
  kernel.StartEntryAddress = 0x800000;
  kernel.ReferenceCount = 1;
  kernel.SegmentInfoList = {{kProtectRead | kProtectExecute, 0, 0x800000, 0x2000}};
  image.modules = {program, kernel};
  return image;
}

}  // namespace

Kit LocalKit() {
  Kit local;
  local.host = u"localhost";
  local.name = u"local";
  local.power = PowerStatus::kOn;
  local.local = true;
  return local;
}

Scenario DefaultScenario() {
  Scenario scenario;
  Kit alpha;
  alpha.host = u"devkit-alpha";
  alpha.name = u"Alpha";
  alpha.mac = {0x00, 0x1a, 0x7d, 0x00, 0x00, 0x01};
  alpha.power = PowerStatus::kOn;
  alpha.is_default = true;
  alpha.address = u"192.168.40.11";
  alpha.images = {SampleImage()};
  // Endpoints to try channels on: 1 echoes, 2 sends 1 MiB of every byte value, 3 swallows.
  ProtocolEndpoint echo;
  echo.number = 1;
  ProtocolEndpoint source;
  source.number = 2;
  source.kind = EndpointKind::kSource;
  source.length = 1u << 20;
  for (int value = 0; value < 256; ++value)
    source.pattern.push_back(static_cast<uint8_t>(value));
  ProtocolEndpoint sink;
  sink.number = 3;
  sink.kind = EndpointKind::kSink;
  alpha.protocols = {echo, source, sink};
  Kit beta;
  beta.host = u"devkit-beta";
  beta.name = u"Beta";
  beta.mac = {0x00, 0x1a, 0x7d, 0x00, 0x00, 0x02};
  beta.power = PowerStatus::kOff;
  beta.address = u"192.168.40.12";
  Kit unreachable;
  unreachable.host = u"192.168.40.99";
  unreachable.name = unreachable.host;
  unreachable.reachable = false;
  scenario.kits = {alpha, beta, unreachable};
#ifdef __linux__
  scenario.kits.push_back(LocalKit());
#endif
  return scenario;
}

using Kind = DocNode::Kind;

[[noreturn]] void Refuse(const DocNode& node, std::string what) {
  throw DocumentError{node.line, std::move(what)};
}

const DocNode* Find(const DocNode& map, std::string_view key) {
  for (const auto& [name, value] : map.entries) {
    if (name.kind == Kind::kScalar && name.scalar == key) return &value;
  }
  return nullptr;
}

std::string Single(const DocNode& node, const std::string& key) {
  if (node.kind != Kind::kScalar) Refuse(node, "'" + key + "' must be a single value");
  return node.scalar;
}

namespace {

std::u16string Text(const DocNode& node, const std::string& key) {
  const std::string value = Single(node, key);
  if (value.empty()) Refuse(node, "'" + key + "' must not be empty");
  return platform::Utf8ToUtf16(value);
}

}  // namespace

bool Flag(const DocNode& node, const std::string& key) {
  const std::string value = Single(node, key);
  if (value == "true" || value == "yes" || value == "on") return true;
  if (value == "false" || value == "no" || value == "off") return false;
  Refuse(node, "'" + key + "' must be true or false, not '" + value + "'");
}

uint32_t Milliseconds(const DocNode& node, const std::string& key) {
  const std::string value = Single(node, key);
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

namespace {

// Dotted decimal numbers: "a.b.c.d" with `count` parts, each at most `max`.
std::vector<uint32_t> Dotted(const DocNode& node, const std::string& key, size_t count,
                             uint32_t max) {
  const std::string value = Single(node, key);
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

std::vector<uint8_t> Mac(const DocNode& node) {
  const std::string value = Single(node, "mac");
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

PowerStatus Power(const DocNode& node) {
  const std::string value = Single(node, "power");
  // YAML 1.1 readers take on/off for booleans; both spellings mean the power state here.
  if (value == "on" || value == "true") return PowerStatus::kOn;
  if (value == "off" || value == "false") return PowerStatus::kOff;
  if (value == "standby") return PowerStatus::kStandby;
  Refuse(node, "'power' must be on, off or standby, not '" + value + "'");
}

}  // namespace

void CheckKeys(const DocNode& map, const std::set<std::string>& known, const char* what) {
  std::set<std::string> seen;
  for (const auto& [key, value] : map.entries) {
    if (key.kind != Kind::kScalar) Refuse(key, std::string("a key in ") + what + " must be a name");
    if (known.count(key.scalar) == 0) {
      std::string list;
      for (const std::string& name : known)
        list += (list.empty() ? "" : ", ") + name;
      Refuse(key, "unknown key '" + key.scalar + "' in " + what + " (known: " + list + ")");
    }
    if (!seen.insert(key.scalar).second) {
      Refuse(key, "'" + key.scalar + "' is given twice in " + what);
    }
  }
}

namespace {

KitTimings Timings(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "'timings' must be a mapping");
  CheckKeys(node, {"boot_ms", "power_off_ms", "connect_ms", "step_ms"}, "timings");
  KitTimings timings;
  if (const DocNode* value = Find(node, "boot_ms")) {
    timings.boot_ms = Milliseconds(*value, "boot_ms");
  }
  if (const DocNode* value = Find(node, "power_off_ms")) {
    timings.power_off_ms = Milliseconds(*value, "power_off_ms");
  }
  if (const DocNode* value = Find(node, "connect_ms")) {
    timings.connect_ms = Milliseconds(*value, "connect_ms");
  }
  if (const DocNode* value = Find(node, "step_ms")) {
    timings.step_ms = std::max<uint32_t>(1, Milliseconds(*value, "step_ms"));
  }
  return timings;
}

Kit ReadKit(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each kit must be a mapping with at least 'host'");
  CheckKeys(node,
            {"host", "name", "mac", "sdk_version", "power", "reachable", "registered", "default",
             "address", "timings", "scripts", "images", "protocols", "mirador"},
            "a kit");
  Kit kit;
  const DocNode* host = Find(node, "host");
  if (host == nullptr) Refuse(node, "a kit needs a 'host'");
  kit.host = Text(*host, "host");
  const DocNode* name = Find(node, "name");
  kit.name = name != nullptr ? Text(*name, "name") : kit.host;
  if (const DocNode* value = Find(node, "mac")) kit.mac = Mac(*value);
  if (const DocNode* value = Find(node, "sdk_version")) {
    const auto parts = Dotted(*value, "sdk_version", 4, 0xFFFF);
    std::copy(parts.begin(), parts.end(), kit.sdk_version.begin());
  }
  if (const DocNode* value = Find(node, "power")) kit.power = Power(*value);
  if (const DocNode* value = Find(node, "reachable")) kit.reachable = Flag(*value, "reachable");
  if (const DocNode* value = Find(node, "registered")) {
    kit.registered = Flag(*value, "registered");
  }
  if (const DocNode* value = Find(node, "mirador")) kit.mirador = Flag(*value, "mirador");
  const DocNode* is_default = Find(node, "default");
  if (is_default != nullptr) kit.is_default = Flag(*is_default, "default");
  if (const DocNode* value = Find(node, "address")) {
    Dotted(*value, "address", 4, 255);
    kit.address = Text(*value, "address");
  }
  if (const DocNode* value = Find(node, "timings")) kit.timings = Timings(*value);
  if (const DocNode* value = Find(node, "scripts")) kit.scripts = ReadScripts(*value);
  if (const DocNode* value = Find(node, "images")) kit.images = ReadImages(*value);
  if (const DocNode* value = Find(node, "protocols")) kit.protocols = ReadProtocols(*value, false);
  if (kit.is_default && !kit.registered) Refuse(*is_default, "a default kit must be registered");
  return kit;
}

}  // namespace

Scenario ScenarioFromDocument(const DocNode& root) {
  Scenario scenario;
  if (root.kind == Kind::kNull) return scenario;
  if (root.kind != Kind::kMap) Refuse(root, "a scenario must be a mapping with the key 'kits'");
  CheckKeys(root, {"kits", "local"}, "the scenario");
  // `local: true`, or a mapping that gives the local target's protocols.
  const DocNode* local = Find(root, "local");
  const bool local_map = local != nullptr && local->kind == Kind::kMap;
  if (local != nullptr && (local_map || Flag(*local, "local"))) {
#ifdef __linux__
    scenario.kits.push_back(LocalKit());
    if (local_map) {
      CheckKeys(*local, {"protocols"}, "the local target");
      if (const DocNode* value = Find(*local, "protocols")) {
        scenario.kits.back().protocols = ReadProtocols(*value, true);
      }
    }
#else
    Refuse(*local, "the local target exists only on Linux");
#endif
  }
  const DocNode* kits = Find(root, "kits");
  if (kits == nullptr || kits->kind == Kind::kNull) return scenario;
  if (kits->kind != Kind::kList) Refuse(*kits, "'kits' must be a list");
  bool default_seen = false;
  for (const DocNode& entry : kits->items) {
    Kit kit = ReadKit(entry);
    if (scenario.FindKit(kit.host) != nullptr) {
      Refuse(*Find(entry, "host"),
             "host '" + platform::Utf16ToUtf8(kit.host) + "' is listed twice");
    }
    if (kit.is_default && default_seen)
      Refuse(*Find(entry, "default"), "only one kit can be default");
    default_seen = default_seen || kit.is_default;
    scenario.kits.push_back(std::move(kit));
  }
  return scenario;
}

ScenarioResult ParseScenarioWith(DocumentReader reader, const std::string& text,
                                 const std::string& file_name) noexcept {
  ScenarioResult result;
  try {
    result.scenario = ScenarioFromDocument(reader(text));
  } catch (const DocumentError& error) {
    result.error = file_name + ":" + std::to_string(error.line) + ": " + error.what;
  } catch (const std::exception& error) {
    result.error = file_name + ": " + error.what();
  }
  return result;
}

ScenarioResult ParseScenario(const std::string& text, const std::string& file_name) noexcept {
#ifdef VEKX_SERVER_HAVE_YAML
  return ParseScenarioWith(ReadYamlWithYamlCpp, text, file_name);
#else
  return ParseScenarioWith(ReadYamlSubset, text, file_name);
#endif
}

}  // namespace qv::server
