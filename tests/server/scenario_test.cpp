// Reading scenarios (kits, their scripts and program images) and the command line of vesta-kx.
#include "server/kits/scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "platform/wide_string.h"
#include "server/core/options.h"
#include "server/dispatch_harness.h"
#include "server/kits/scenario_script.h"
#include "server/kits/script_runner.h"

namespace qv::server {
namespace {

// With yaml-cpp where the build has it, with the subset reader elsewhere.
TEST(ScenarioTest, ReadsEveryFieldOfAKit) {
  const ScenarioResult result = ParseScenario(R"(kits:
  - host: kit-a
    name: Alpha
    mac: "0A:1b:2C:3d:4E:5f"
    sdk_version: 6.5.4.3
    power: standby
    reachable: false
    registered: true
    default: true
    address: 10.0.0.7
    timings: {boot_ms: 5, power_off_ms: 6, connect_ms: 7}
  - host: kit-b
)",
                                              "kits.yaml");
  ASSERT_TRUE(result.scenario.has_value()) << result.error;
  // The second kit's defaults: the name is the host, reachable, registered, off, not discovered.
  const std::vector<Kit> expected = {
      {.host = u"kit-a",
       .name = u"Alpha",
       .mac = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f},
       .sdk_version = {6, 5, 4, 3},
       .power = PowerStatus::kStandby,
       .reachable = false,
       .is_default = true,
       .address = u"10.0.0.7",
       .timings = {.boot_ms = 5, .power_off_ms = 6, .connect_ms = 7}},
      {.host = u"kit-b", .name = u"kit-b"},
  };
  EXPECT_EQ(result.scenario->kits, expected);
  EXPECT_NE(result.scenario->FindKit(u"KIT-B"), nullptr);
}

// Each row's text follows `head`: a kit's first lines, a script's or a step list's, a program
// image's; every reader of the build refuses it with the error that names its line.
TEST(ScenarioTest, RefusesMistakesWithTheirLine) {
  const std::string none, kit = "kits:\n  - host: a\n", scripts = kit + "    scripts:\n",
                          protocol = kit + "    protocols:\n      - ",
                          steps = scripts + "      - steps:\n          - ",
                          image = "kits:\n  - host: dk\n    images:\n      - ";
  const struct {
    const std::string& head;
    const char* text;
    const char* error;
  } cases[] = {
      {kit, "    power: sideways\n",
       "s.yaml:3: 'power' must be on, off or standby, not 'sideways'"},
      {kit, "    hots: b\n", "s.yaml:3: unknown key 'hots' in a kit"},
      {none, "kits:\n  - name: a\n", "s.yaml:2: a kit needs a 'host'"},
      {kit, "  - host: A\n", "s.yaml:3: host 'A' is listed twice"},
      {kit, "    mac: 00:11:22:33:44\n", "s.yaml:3: 'mac' must be six hex"},
      {kit, "    sdk_version: 1.2.3\n", "s.yaml:3: 'sdk_version' must be 4"},
      {kit, "    address: 10.0.0.256\n", "s.yaml:3: 'address' must be 4"},
      {kit, "    timings: {boot_ms: -1}\n", "s.yaml:3: 'boot_ms' must be a whole"},
      {kit, "    reachable: maybe\n", "s.yaml:3: 'reachable' must be true or false"},
      {kit, "    default: true\n  - host: b\n    default: true\n",
       "s.yaml:5: only one kit can be default"},
      {kit, "    registered: false\n    default: true\n",
       "s.yaml:4: a default kit must be registered"},
      {none, "kits: {host: a}\n", "s.yaml:1: 'kits' must be a list"},
      {none, "targets: []\n", "s.yaml:1: unknown key 'targets' in the scenario"},
      {none, "kits:\n  - host: [a\n", "s.yaml:"},
      {protocol, "{number: 1, endpoint: telnet}\n",
       "s.yaml:4: 'endpoint' must be echo, source, sink, script or forward, not 'telnet'"},
      {protocol, "{number: 1, endpoint: echo}\n      - {number: 1, endpoint: sink}\n",
       "s.yaml:5: protocol 1 is listed twice"},
      {protocol, "{number: 1, endpoint: source}\n", "s.yaml:4: a source needs a 'length'"},
      {protocol, "{number: 1, endpoint: echo, length: 5}\n",
       "s.yaml:4: 'length' does not belong to echo"},
      {protocol, "{number: 1, endpoint: forward, to: x}\n",
       "s.yaml:4: only the local target forwards protocols"},
      {protocol, "number: 1\n        endpoint: script\n        steps: [{send: a, expect: b}]\n",
       "s.yaml:6: a script step takes one of send, expect, status or close"},
      {protocol, "number: 1\n        endpoint: script\n        steps: [{status: sideways}]\n",
       "s.yaml:6: 'status' must be down or up, not 'sideways'"},
      // Kit scripts.
      {scripts, "      - trigger: later\n        steps: []\n",
       "s.yaml:4: 'trigger' must be server_start or first_subscription, not 'later'"},
      {scripts, "      - steps: []\n", "s.yaml:4: a script needs a list of 'steps'"},
      {scripts, "      - trigger: server_start\n", "s.yaml:4: a script needs a list of 'steps'"},
      {steps, "notification: CONSOLE_OUTPU\n", "s.yaml:5: unknown notification 'CONSOLE_OUTPU'"},
      {steps, "notification: DEVICE_READY\n", "s.yaml:5: 'DEVICE_READY' reaches no subscriber"},
      {steps, "after_ms: 1\n", "s.yaml:5: a step needs a 'notification'"},
      {steps, "notification: IDLE\n            fields: {Port: 1}\n",
       "s.yaml:6: unknown key 'Port' in the fields of IDLE (known: TargetKey)"},
      {steps, "notification: CONSOLE_OUTPUT\n            fields: {Port: 4294967296}\n",
       "s.yaml:6: 'Port' must be a whole number from 0 to 4294967295, not '4294967296'"},
      {steps, "notification: CONSOLE_OUTPUT\n            fields: {Port: -1}\n",
       "s.yaml:6: 'Port' must be a whole number from 0"},
      {steps, "notification: CONSOLE_OUTPUT\n            fields: {Text: [a]}\n",
       "s.yaml:6: 'Text' must be a single value"},
      {steps, "notification: RECORDED_DATA\n            fields: {Data: abc}\n",
       "s.yaml:6: 'Data' must be hex byte pairs"},
      {steps, "notification: FILE_COPY_START\n            fields: {TargetList: 1}\n",
       "s.yaml:6: 'TargetList' must be a list"},
      {steps, "notification: PROTOCOL_STATUS\n            fields: {Availability: 2}\n",
       "s.yaml:6: 'Availability' must be true or false"},
      {steps, "notification: NOTIFICATION_EVENT\n            fields: {Header: {Idd: 1}}\n",
       "s.yaml:6: unknown key 'Idd' in the fields of Header"},
      {steps, "notification: IDLE\n            repeat: 0\n",
       "s.yaml:6: 'repeat' must be at least 1"},
      {scripts, "      - repeat: 0\n        steps: [{notification: IDLE}]\n",
       "s.yaml:4: 'repeat' must be at least 1"},
      {steps, "notification: IDLE\n            every: 1\n",
       "s.yaml:6: unknown key 'every' in a step"},
      // Program images.
      {image, "{path: /a, threads: [{registers: {rxx: 1}}]}\n",
       "s.yaml:4: 'rxx' is not a register"},
      {image, "{path: /a, regions: [{base: 0, size: 4}, {base: 2, size: 4}]}\n",
       "s.yaml:4: this region overlaps an earlier one"},
      {image, "{path: /a, regions: [{base: 0, fill: \"90\"}]}\n",
       "s.yaml:4: a region needs a 'size'"},
      {image, "{path: /a, regions: [{base: 0, hex: \"9\"}]}\n",
       "s.yaml:4: 'hex' must be whole pairs of hex digits"},
      {image, "{path: /a, entry: 0x1g}\n", "s.yaml:4: 'entry' must be a number"},
      {image, "{path: /a, regions: [{base: 0, size: 1, protection: rwz}]}\n",
       "s.yaml:4: 'protection' must be"},
      {image, "{path: /a, sync: [{kind: Mutex}]}\n",
       "s.yaml:4: 'Mutex' is not a kind of synchronisation object"},
      {image, "{path: /a, sync: [{kind: VestaMutex, Owner: 1}]}\n",
       "s.yaml:4: unknown key 'Owner'"},
      {image, "{path: /a, sync: [{kind: VestaMutex, OwnerThreadID: 1}]}\n",
       "s.yaml:4: 'OwnerThreadID' takes the name of one of the image's threads (a)"},
      {image, "{path: /a, sync: [{kind: VestaMutex}, {kind: PosixMutex, KernelID: 1}]}\n",
       "s.yaml:4: kernel id 1 is given to two objects"},
      {image, "{path: /a, sync: [{kind: VestaMutex, Name: m}, {kind: PosixMutex, Name: m}]}\n",
       "s.yaml:4: two synchronisation objects are named 'm'"},
      {image, "{path: /a, threads: [{wait: m}]}\n",
       "s.yaml:4: 'wait' names none of the image's synchronisation"},
  };
  for (const auto& c : cases)
    ExpectRefused(c.head + c.text, c.error);
}

// What the subset reader does not read it refuses, with the line, rather than read differently.
TEST(ScenarioTest, TheSubsetReaderRefusesYamlBeyondTheSubset) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"kits:\n  - &a {host: a}\n", "s.yaml:2: '&' starts YAML that scenario files do not use"},
      {"kits:\n  - host: a\n    name: |\n      x\n", "s.yaml:3: '|' starts YAML"},
      {"kits:\n  - host: \"a\n      b\"\n", "s.yaml:2: a quoted value must end on its line"},
      {"kits:\n  - host: a\n    name: b\n      c\n",
       "s.yaml:4: this line's indentation matches no"},
      // yaml-cpp marks an empty item where the next one starts; this reader, at its dash.
      {"kits:\n  -\n  - host: a\n", "s.yaml:2: each kit must be a mapping"},
      {"kits:\n  - host: \"\\x41\"\n", "s.yaml:2: unsupported escape '\\x'"},
      {"kits:\n  - {host: a\n", "s.yaml:2: '{' must be closed with '}' on the same line"},
      {"kits:\n\t- host: a\n", "s.yaml:2: tabs cannot indent"},
      {"kits:\n  - host: a\n    name: [[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[\n",
       "s.yaml:3: values nest deeper than 32 levels"},
      {"kits:\n  - host: a: b\n", "s.yaml:2: a value that holds ': ' must be in quotes"},
  };
  for (const auto& c : cases)
    ExpectRefused(c.text, c.error, {ReadYamlSubset});
}

#ifdef VEKX_SERVER_HAVE_YAML
// The line a refusal names: "s.yaml:<line>: ...".
std::string RefusedLine(const std::string& error) {
  const size_t start = error.find(':') + 1;
  return error.substr(start, error.find(':', start) - start);
}
#endif

// Every reader of the build reads the shipped scenarios and the texts that the subset reads, the
// empty file among them, and refuses the mistakes; the Windows build's reader and yaml-cpp read
// each the same way: the same document (values and their lines), the same kits, or a refusal at
// the same line.
TEST(ScenarioTest, TheReadersAgreeOnEveryScenario) {
  struct File {
    std::string what, text;
    bool read;
  };
  std::vector<File> files;
  for (const auto& entry : std::filesystem::directory_iterator(VEKX_SOURCE_DIR "/scenarios")) {
    if (entry.path().extension() == ".yaml") {
      std::string text = servertest::ReadText(entry.path());
#ifdef __linux__
      const bool read = true;
#else
      const bool read = text.find("\nlocal:") == std::string::npos;  // the local target is Linux's
#endif
      files.push_back({entry.path().filename().string(), std::move(text), read});
    }
  }
  ASSERT_FALSE(files.empty());
  files.push_back({"the quick test scenario", servertest::kQuickScenario, true});
  const char* read[] = {
      "",
      "# only a comment\n",
      "---\nkits:\n- host: a\n- host: b\n",
      "kits: []\n",
      "kits: ~\n",
      "kits:\r\n  - host: a\r\n    name: 'it''s a #1'  # comment\r\n",
      "kits:\n  - \"host\": \"x\\\"y\\\\z\"\n    name: \"null\"\n",
      "kits:\n  -\n    host: a\n    timings:\n      boot_ms: 1\n\n      connect_ms: 2\n",
      "kits:\n  - {host: a, name: b c, timings: {boot_ms: 1,},}\n",
      "kits:\n  - host: a\n    mac: 00:11:22:33:44:55\n    name: a#b\n",
  };
  const char* refused[] = {
      // Mistakes in the scenario (more are refused by both readers above).
      "kits:\n  - host: a\n  - [a, 'b']\n",
      "kits:\n  - host: a\n    name:\n",
      "kits:\n  - host: a\n    name: b\n\n\n    power: sideways\n",
      "kits:\n  - host: a\n    host: b\n",
      "kits:\n  - host: a\n    timings: {boot_ms: 1, boot: 2}\n",
      "kits:\n  - host: a\n    timings: {boot_ms}\n",
      "kits:\n  - host: a\n    name: [x, {a: 1}]\n",
      "kits:\n  - host: a\nhost: b\n",
      "- host: a\n",
      // Mistakes in the YAML.
      "kits:\n  - host: a: b\n",
      "kits: [a, b}\n",
      "kits:\n  - host: a\n    name: \"b\" c\n",
      "kits:\n  - host: a\n   name: b\n",
      "kits:\n  - host: a\n - host: b\n",
      "kits:\n  - host: a\n    timings:\n      boot_ms: 1\n     connect_ms: 2\n",
  };
  for (const char* text : read)
    files.push_back({text, text, true});
  for (const char* text : refused)
    files.push_back({text, text, false});

  for (const auto& [what, text, expected] : files) {
    SCOPED_TRACE(what);
    std::vector<ScenarioResult> results;
    for (const DocumentReader reader : Readers()) {
      results.push_back(ParseScenarioWith(reader, text, "s.yaml"));
      EXPECT_EQ(results.back().scenario.has_value(), expected) << results.back().error;
    }
#ifdef VEKX_SERVER_HAVE_YAML
    const ScenarioResult &ours = results[0], &theirs = results[1];
    if (ours.scenario && theirs.scenario) {
      EXPECT_EQ(ReadYamlSubset(text), ReadYamlWithYamlCpp(text));
      EXPECT_EQ(ours.scenario->kits, theirs.scenario->kits);
    } else {
      EXPECT_EQ(RefusedLine(ours.error), RefusedLine(theirs.error))
          << "subset: " << ours.error << "\nyaml-cpp: " << theirs.error;
    }
#endif
  }
}

// Kit scripts: the forms of field values that no scenario of the end-to-end tests writes (hex
// above 2^31, the largest 64-bit number, null, byte pairs with separators and upper case, a target
// key of the step's own) and the text placeholders: {time_ns} is the steady clock when the step is
// sent, {n} the repetition; other braces stay.
TEST(ScenarioScriptTest, FieldFormsAndPlaceholdersAreWrittenAsDocumented) {
  constexpr char kScripted[] = R"(kits:
  - host: kit-a
    scripts:
      - trigger: server_start
        after_ms: 3
        repeat: 2
        steps:
          - notification: CONSOLE_OUTPUT
            after_ms: 5
            fields: {Category: 0x80004005, Timestamp: 18446744073709551615, Text: "{n}:{time_ns} {x} {n"}
          - notification: NOTIFICATION_EVENT
            fields: {TargetKey: 9, Data: "de:ad be EF"}
          - notification: CONSOLE_OUTPUT
            fields: {Text: ~}
)";
  const auto now_ns = [] {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
  };
  for (DocumentReader reader : Readers()) {
    const ScenarioResult result = ParseScenarioWith(reader, kScripted, "s.yaml");
    ASSERT_TRUE(result.scenario.has_value()) << result.error;
    const KitScript& script = result.scenario->kits[0].scripts.at(0);
    EXPECT_EQ(script.trigger, ScriptTrigger::kServerStart);
    EXPECT_EQ(script.after_ms, 3u);
    EXPECT_EQ(script.repeat, 2u);
    ASSERT_EQ(script.steps.size(), 3u);
    EXPECT_EQ(script.steps[0].after_ms, 5u);

    const uint64_t before = now_ns();
    const auto sent = ScriptedNotification(script.steps[0], 42, 7);
    const uint64_t after = now_ns();
    const auto& output = dynamic_cast<const CConsoleOutputNotification&>(*sent);
    EXPECT_EQ(output.TargetKey, 42u);  // not given: the kit's handle
    EXPECT_EQ(output.Category, 0x80004005u);
    EXPECT_EQ(output.Timestamp, UINT64_MAX);
    const std::string text = platform::Utf16ToUtf8(output.Text);
    ASSERT_EQ(text.rfind("7:", 0), 0u) << text;
    size_t end = 0;
    const uint64_t time_ns = std::stoull(text.substr(2), &end);
    EXPECT_GE(time_ns, before);
    EXPECT_LE(time_ns, after);
    EXPECT_EQ(text.substr(2 + end), " {x} {n");

    const auto viewer = ScriptedNotification(script.steps[1], 42);
    const auto& event = dynamic_cast<const CNotificationEventNotification&>(*viewer);
    EXPECT_EQ(event.TargetKey, 9u);  // given: kept
    EXPECT_EQ(event.Data, (Bytes{0xde, 0xad, 0xbe, 0xef}));
    const auto empty = ScriptedNotification(script.steps[2], 42);
    EXPECT_EQ(dynamic_cast<const CConsoleOutputNotification&>(*empty).Text, u"");
  }
}

// Scripts started while the runner waits for a later one are sent at once, and the wait survives
// the runner's list growing under it (under AddressSanitizer a wait on a moved entry shows).
TEST(ScriptRunnerTest, ScriptsStartedWhileOneWaitsAreSentAtOnce) {
  std::mutex mutex;
  std::condition_variable sent;
  std::vector<std::u16string> hosts;
  ScriptRunner runner([&](const std::u16string& host, const ScriptStep&, uint32_t, uint32_t) {
    std::lock_guard lock(mutex);
    hosts.push_back(host);
    sent.notify_all();
  });
  const KitScript later{ScriptTrigger::kServerStart, {ScriptStep{.after_ms = 60'000}}};
  const KitScript now{ScriptTrigger::kServerStart, {ScriptStep{}}};
  runner.Start(u"later", later);
  constexpr size_t kStarted = 40;
  std::vector<std::u16string> expected;
  for (size_t i = 0; i < kStarted; ++i) {
    expected.push_back(u"kit-" + platform::Utf8ToUtf16(std::to_string(i)));
    runner.Start(expected.back(), now);
  }
  std::unique_lock lock(mutex);
  ASSERT_TRUE(
      sent.wait_for(lock, std::chrono::seconds(10), [&] { return hosts.size() == kStarted; }));
  std::sort(hosts.begin(), hosts.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(hosts, expected);  // each once, and not the one that waits a minute
}

// A script's rounds send its steps in order again, each step's repeats counted afresh; the repeats
// due together go together, up to the runner's limit, and those apart in time one by one.
TEST(ScriptRunnerTest, RoundsSendTheStepsAgainInOrder) {
  std::mutex mutex;
  std::condition_variable sent;
  std::vector<std::array<uint32_t, 3>> order;  // step type, first repetition, count
  ScriptRunner runner(
      [&](const std::u16string&, const ScriptStep& step, uint32_t first, uint32_t count) {
        std::lock_guard lock(mutex);
        order.push_back({step.type_number, first, count});
        sent.notify_all();
      });
  constexpr uint32_t kMax = ScriptRunner::kMaxTogether;
  const KitScript rounds{ScriptTrigger::kServerStart,
                         {ScriptStep{.type_number = 1, .repeat = 2 * kMax + 2},
                          ScriptStep{.type_number = 2, .after_ms = 1, .repeat = 2}},
                         /*after_ms=*/1,
                         /*repeat=*/2};
  runner.Start(u"kit", rounds);
  std::unique_lock lock(mutex);
  ASSERT_TRUE(sent.wait_for(lock, std::chrono::seconds(10), [&] { return order.size() >= 10; }));
  lock.unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a third round would show
  lock.lock();
  const std::vector<std::array<uint32_t, 3>> round = {
      {1, 0, kMax}, {1, kMax, kMax}, {1, 2 * kMax, 2}, {2, 0, 1}, {2, 1, 1}};
  std::vector<std::array<uint32_t, 3>> expected = round;
  expected.insert(expected.end(), round.begin(), round.end());
  EXPECT_EQ(order, expected);
}

// An empty error is a row that must parse.
TEST(OptionsTest, ParsesWhatItKnowsAndNamesWhatItDoesNot) {
  const std::string to = "a forward goes to tcp:127.0.0.1:PORT or unix:PATH, not ";
  const struct {
    std::vector<std::string> args;
    std::string error;
  } cases[] = {
      {{"--log-level", "12"}, "--log-level takes a number from 0 to 4, not '12'"},
      {{"--scenario", ""}, "--scenario needs a value"},
      {{"--user", "vkx-test_1.a"}, ""},
      {{"--user", "a/b"}, "--user takes up to 64 letters, digits, '.', '_' or '-', not 'a/b'"},
      {{"--forward", "5=tcp:127.0.0.1:8000"}, ""},
      {{"--forward", "5=unix:/tmp/s"}, ""},
      {{"--forward", "5=tcp:10.0.0.1:80"}, to + "'tcp:10.0.0.1:80'"},
      {{"--forward", "5=tcp:127.0.0.1:0"}, to + "'tcp:127.0.0.1:0'"},
      {{"--forward", "x=unix:/s"},
       "--forward takes N=tcp:127.0.0.1:PORT or N=unix:PATH, not 'x=unix:/s'"},
  };
  for (const auto& c : cases) {
    Options options;
    std::string error;
    EXPECT_EQ(ParseOptions(c.args, options, error), c.error.empty()) << c.args[1];
    EXPECT_EQ(error, c.error);
  }
}

}  // namespace
}  // namespace qv::server
