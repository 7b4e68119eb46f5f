#pragma once
// The virtual kits the server simulates, as a scenario describes them: read from a YAML file
// (vesta-kx --scenario FILE) or the built-in default. The format is documented in
// docs/scenarios.md; scenarios/example.yaml is a commented example.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "requests/debug_records.h"
#include "requests/target_states.h"
#include "server/kits/protocol_endpoints.h"

namespace qv {
class CNotification;
}  // namespace qv

namespace qv::server {

struct KitTimings {
  uint32_t boot_ms = 2000;       // off -> on
  uint32_t power_off_ms = 1000;  // on -> off
  uint32_t connect_ms = 100;     // time to bring up a connection
  uint32_t step_ms = 10;         // a running virtual thread's time per step of its path

  friend bool operator==(const KitTimings&, const KitTimings&) = default;
};

// When a kit's script begins: with the server, or when a client first subscribes to the event
// group of the script's first step for that kit (the Server group: for the whole server).
enum class ScriptTrigger { kServerStart, kFirstSubscription };

// One notification a script pushes: the catalogue's type number and its body as the wire
// carries it. Unless the script gave TargetKey, the kit's handle is put in when it is sent.
struct ScriptStep {
  uint32_t type_number = 0;
  std::vector<uint8_t> body;
  bool target_key_given = false;
  // A text field holds '{': the placeholders are expanded each time the step is sent.
  bool has_placeholders = false;
  uint32_t after_ms = 0;  // from the previous step (or the trigger), and between repeats
  uint32_t repeat = 1;    // how many times it is sent
  // Without placeholders the body says the same every time: decoded once, copied for a sending.
  // It follows from the body, so it takes no part in comparing steps.
  struct Decoded {
    std::shared_ptr<const CNotification> notification;
    friend bool operator==(const Decoded&, const Decoded&) { return true; }
  } decoded;

  friend bool operator==(const ScriptStep&, const ScriptStep&) = default;
};

struct KitScript {
  ScriptTrigger trigger = ScriptTrigger::kFirstSubscription;
  std::vector<ScriptStep> steps;  // never empty
  uint32_t after_ms = 0;          // from the trigger to the first round
  uint32_t repeat = 1;            // rounds: the steps are sent in order this many times

  friend bool operator==(const KitScript&, const KitScript&) = default;
};

// Protection bits of a region, as GET_VMEM_INFO reports them (and module segments' attributes).
enum : uint32_t { kProtectRead = 1, kProtectWrite = 2, kProtectExecute = 4 };

// A program a kit can load (LOAD_PROCESS names it by `path`): its memory and its threads as they
// are when the process starts.
struct ImageRegion {
  uint64_t base = 0;
  std::vector<uint8_t> bytes;  // what the region holds at the start; its size is the region's
  std::u16string name;         // empty: the image's path
  uint32_t protection = kProtectRead | kProtectWrite;

  friend bool operator==(const ImageRegion&, const ImageRegion&) = default;
};

// One step of a thread's path: the next address it reaches, or a fault that stops it where it is.
struct PathStep {
  uint64_t address = 0;
  std::optional<uint32_t> fault;  // an eStopNotificationReason code

  friend bool operator==(const PathStep&, const PathStep&) = default;
};

// What the address sanitizer reported for a thread (GET_COREDUMP_USER_DATA).
struct SanitizerReport {
  std::string error_type;  // "heap-buffer-overflow", ...
  uint64_t address = 0;
  uint32_t access_size = 0;
  bool is_write = false;
  std::string report;  // the sanitizer's text

  friend bool operator==(const SanitizerReport&, const SanitizerReport&) = default;
};

struct ImageThread {
  std::string name;
  // Register id (eRegisters) -> its four 64-bit words, lowest first.
  std::map<uint32_t, std::array<uint64_t, 4>> registers;
  // What the thread does while it runs, a step at a time: without a path it waits for ever;
  // at the end of one it exits with `exit_code`, unless the path loops.
  std::vector<PathStep> path;
  bool loop = false;
  uint32_t exit_code = 0;
  std::optional<size_t> wait;           // the position in the image's `sync` of what it waits on
  std::optional<SanitizerReport> asan;  // answered while the thread is stopped

  friend bool operator==(const ImageThread&, const ImageThread&) = default;
};

struct ProgramImage {
  std::u16string path;
  std::string name;  // the process name; the last part of the path when not given
  uint64_t entry = 0;
  std::vector<ImageRegion> regions;
  std::vector<ImageThread> threads;  // the first is the main thread; never empty
  bool running = false;              // a process of it runs from the server's start

  // What a debugger sees of the process besides memory and threads, as the debug records carry
  // it. The fields that name a kernel thread (thread_fields.h) hold the thread's position in
  // `threads` plus one (0: none) until a process is made of the image.
  std::vector<ModuleInfoRecord> modules;  // empty: the program itself is the one module
  std::vector<SyncObjectRecord> sync;     // names unique where given
  AppObjectInfoRecord app_objects;        // Flags unused
  std::vector<SocketInfoRecord> sockets;
  std::vector<OpenFileRecord> files;
  std::vector<uint8_t> gpu_info;  // what READ_GPU_INFO answers

  friend bool operator==(const ProgramImage&, const ProgramImage&) = default;
};

struct Kit {
  std::u16string host;  // the host name clients add it by; unique (case-insensitive)
  std::u16string name;  // the kit's own name; the host name when not given
  std::vector<uint8_t> mac{0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  std::array<uint32_t, 4> sdk_version{5, 0, 10, 0};
  PowerStatus power = PowerStatus::kOff;
  bool reachable = true;
  bool registered = true;   // in the target list from the start
  bool is_default = false;  // the default target from the start
  std::u16string address;   // IPv4 address that discovery answers with; empty: not discovered
  KitTimings timings;
  std::vector<KitScript> scripts;
  std::vector<ProgramImage> images;
  bool local = false;  // the host machine itself, its processes debugged through ptrace (Linux)
  std::vector<ProtocolEndpoint> protocols;  // numbers unique
  // Kit hardware of the second kind: only the Mirador search (FIND_MIRADOR_TARGETS) finds it.
  bool mirador = false;

  friend bool operator==(const Kit&, const Kit&) = default;
};

struct Scenario {
  std::vector<Kit> kits;

  // The kit whose host name is `host` (ASCII case-insensitive), or nullptr.
  const Kit* FindKit(std::u16string_view host) const;
};

struct ScenarioResult {
  std::optional<Scenario> scenario;
  // "<file>:<line>: <what is wrong>" when the scenario was refused.
  std::string error;
};

// Parses scenario text; `file_name` only names the source in error messages. Read with yaml-cpp
// where the build has it, else with our reader of the subset docs/scenarios.md describes.
ScenarioResult ParseScenario(const std::string& text, const std::string& file_name) noexcept;
// Reads and parses the file at `path`.
ScenarioResult LoadScenarioFile(const std::string& path) noexcept;

// The built-in scenario: two reachable kits (one on and the default, one off), one host that
// does not answer and, on Linux, the local target.
Scenario DefaultScenario();

// The local target: host "localhost", name "local", always on and reachable.
Kit LocalKit();

// Puts `forwards` on the local target of `scenario`, each replacing an endpoint of the same
// number; false with `error` set when the scenario has no local target.
bool AddForwards(Scenario& scenario, const std::vector<ProtocolEndpoint>& forwards,
                 std::string& error);

// ASCII case-insensitive equality, as host names compare.
bool SameHost(std::u16string_view a, std::u16string_view b);

}  // namespace qv::server
