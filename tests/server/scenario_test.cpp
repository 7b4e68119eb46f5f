// Reading scenarios and the command line of vesta-kx.
#include "server/kits/scenario.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "server/core/options.h"
#include "server/dispatch_harness.h"

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
  ASSERT_EQ(result.scenario->kits.size(), 2u);
  const Kit& a = result.scenario->kits[0];
  EXPECT_EQ(a.host, u"kit-a");
  EXPECT_EQ(a.name, u"Alpha");
  EXPECT_EQ(a.mac, (std::vector<uint8_t>{0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}));
  EXPECT_EQ(a.sdk_version, (std::array<uint32_t, 4>{6, 5, 4, 3}));
  EXPECT_EQ(a.power, PowerStatus::kStandby);
  EXPECT_FALSE(a.reachable);
  EXPECT_TRUE(a.is_default);
  EXPECT_EQ(a.address, u"10.0.0.7");
  EXPECT_EQ(a.timings.boot_ms, 5u);
  EXPECT_EQ(a.timings.power_off_ms, 6u);
  EXPECT_EQ(a.timings.connect_ms, 7u);
  // Defaults: the name is the host, reachable, registered, off, not discovered.
  const Kit& b = result.scenario->kits[1];
  EXPECT_EQ(b.name, u"kit-b");
  EXPECT_TRUE(b.reachable);
  EXPECT_TRUE(b.registered);
  EXPECT_EQ(b.power, PowerStatus::kOff);
  EXPECT_TRUE(b.address.empty());
  EXPECT_NE(result.scenario->FindKit(u"KIT-B"), nullptr);
}

TEST(ScenarioTest, RefusesMistakesWithTheirLine) {
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"kits:\n  - host: a\n    power: sideways\n",
       "s.yaml:3: 'power' must be on, off or standby, not 'sideways'"},
      {"kits:\n  - host: a\n    hots: b\n", "s.yaml:3: unknown key 'hots' in a kit"},
      {"kits:\n  - name: a\n", "s.yaml:2: a kit needs a 'host'"},
      {"kits:\n  - host: a\n  - host: A\n", "s.yaml:3: host 'A' is listed twice"},
      {"kits:\n  - host: a\n    mac: 00:11:22:33:44\n", "s.yaml:3: 'mac' must be six hex"},
      {"kits:\n  - host: a\n    sdk_version: 1.2.3\n", "s.yaml:3: 'sdk_version' must be 4"},
      {"kits:\n  - host: a\n    address: 10.0.0.256\n", "s.yaml:3: 'address' must be 4"},
      {"kits:\n  - host: a\n    timings: {boot_ms: -1}\n", "s.yaml:3: 'boot_ms' must be a whole"},
      {"kits:\n  - host: a\n    reachable: maybe\n", "s.yaml:3: 'reachable' must be true or false"},
      {"kits:\n  - host: a\n    default: true\n  - host: b\n    default: true\n",
       "s.yaml:5: only one kit can be default"},
      {"kits:\n  - host: a\n    registered: false\n    default: true\n",
       "s.yaml:4: a default kit must be registered"},
      {"kits: {host: a}\n", "s.yaml:1: 'kits' must be a list"},
      {"targets: []\n", "s.yaml:1: unknown key 'targets' in the scenario"},
      {"kits:\n  - host: [a\n", "s.yaml:"},
      {"kits:\n  - host: a\n    protocols:\n      - {number: 1, endpoint: telnet}\n",
       "s.yaml:4: 'endpoint' must be echo, source, sink, script or forward, not 'telnet'"},
      {"kits:\n  - host: a\n    protocols:\n      - {number: 1, endpoint: echo}\n"
       "      - {number: 1, endpoint: sink}\n",
       "s.yaml:5: protocol 1 is listed twice"},
      {"kits:\n  - host: a\n    protocols:\n      - {number: 1, endpoint: source}\n",
       "s.yaml:4: a source needs a 'length'"},
      {"kits:\n  - host: a\n    protocols:\n      - {number: 1, endpoint: echo, length: 5}\n",
       "s.yaml:4: 'length' does not belong to echo"},
      {"kits:\n  - host: a\n    protocols:\n      - {number: 1, endpoint: forward, to: x}\n",
       "s.yaml:4: only the local target forwards protocols"},
      {"kits:\n  - host: a\n    protocols:\n      - number: 1\n        endpoint: script\n"
       "        steps: [{send: a, expect: b}]\n",
       "s.yaml:6: a script step takes one of send, expect, status or close"},
      {"kits:\n  - host: a\n    protocols:\n      - number: 1\n        endpoint: script\n"
       "        steps: [{status: sideways}]\n",
       "s.yaml:6: 'status' must be down or up, not 'sideways'"},
  };
  for (const Case& c : cases)
    ExpectRefused(c.text, c.error);
}

TEST(ScenarioTest, AnEmptyFileIsAnEmptyScenario) {
  const ScenarioResult empty = ParseScenario("", "empty.yaml");
  ASSERT_TRUE(empty.scenario.has_value()) << empty.error;
  EXPECT_TRUE(empty.scenario->kits.empty());
}

TEST(ScenarioTest, TheExampleScenarioParses) {
  const ScenarioResult result = LoadScenarioFile(VEKX_SOURCE_DIR "/scenarios/example.yaml");
  ASSERT_TRUE(result.scenario.has_value()) << result.error;
  EXPECT_EQ(result.scenario->kits.size(), 4u);
}

// What the subset reader does not read it refuses, with the line, rather than read differently.
TEST(ScenarioTest, TheSubsetReaderRefusesYamlBeyondTheSubset) {
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
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
  for (const Case& c : cases)
    ExpectRefused(c.text, c.error, {ReadYamlSubset});
}

#ifdef VEKX_SERVER_HAVE_YAML
// The line a refusal names: "s.yaml:<line>: ...".
std::string RefusedLine(const std::string& error) {
  const size_t start = error.find(':') + 1;
  return error.substr(start, error.find(':', start) - start);
}

// The Windows build's reader and yaml-cpp read every scenario the same way: the same document
// (values and their lines), the same kits, or a refusal at the same line.
TEST(ScenarioTest, TheSubsetReaderAndYamlCppAgree) {
  std::vector<std::pair<std::string, std::string>> files;  // what it is, its text
  for (const auto& entry : std::filesystem::directory_iterator(VEKX_SOURCE_DIR "/scenarios")) {
    if (entry.path().extension() == ".yaml") {
      files.emplace_back(entry.path().filename().string(), servertest::ReadText(entry.path()));
    }
  }
  ASSERT_FALSE(files.empty());
  files.emplace_back("the quick test scenario", servertest::kQuickScenario);
  const char* texts[] = {
      // What the subset reads.
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
  for (const char* text : texts)
    files.emplace_back(text, text);

  for (const auto& [what, text] : files) {
    SCOPED_TRACE(what);
    const ScenarioResult ours = ParseScenarioWith(ReadYamlSubset, text, "s.yaml");
    const ScenarioResult theirs = ParseScenarioWith(ReadYamlWithYamlCpp, text, "s.yaml");
    ASSERT_EQ(ours.scenario.has_value(), theirs.scenario.has_value())
        << "subset: " << ours.error << "\nyaml-cpp: " << theirs.error;
    if (ours.scenario) {
      EXPECT_EQ(ReadYamlSubset(text), ReadYamlWithYamlCpp(text));
      EXPECT_EQ(ours.scenario->kits, theirs.scenario->kits);
    } else {
      EXPECT_EQ(RefusedLine(ours.error), RefusedLine(theirs.error))
          << "subset: " << ours.error << "\nyaml-cpp: " << theirs.error;
    }
  }
}
#endif

TEST(OptionsTest, ParsesWhatItKnowsAndNamesWhatItDoesNot) {
  struct Case {
    std::vector<std::string> args;
    bool ok;
    const char* error;
  };
  const Case cases[] = {
      {{"--log-level", "12"}, false, "--log-level takes a number from 0 to 4, not '12'"},
      {{"--scenario", ""}, false, "--scenario needs a value"},
      {{"kits.yaml"}, false, "unknown argument 'kits.yaml'"},
      {{"--user", "vkx-test_1.a"}, true, ""},
      {{"--forward", "5=tcp:127.0.0.1:8000"}, true, ""},
      {{"--forward", "5=unix:/tmp/s"}, true, ""},
      {{"--forward", "5=tcp:10.0.0.1:80"},
       false,
       "a forward goes to tcp:127.0.0.1:PORT or unix:PATH, not 'tcp:10.0.0.1:80'"},
      {{"--forward", "5=tcp:127.0.0.1:0"},
       false,
       "a forward goes to tcp:127.0.0.1:PORT or unix:PATH, not 'tcp:127.0.0.1:0'"},
      {{"--forward", "x=unix:/s"},
       false,
       "--forward takes N=tcp:127.0.0.1:PORT or N=unix:PATH, not 'x=unix:/s'"},
      {{"--user", "a/b"},
       false,
       "--user takes up to 64 letters, digits, '.', '_' or '-', not 'a/b'"},
  };
  for (const Case& c : cases) {
    Options options;
    std::string error;
    EXPECT_EQ(ParseOptions(c.args, options, error), c.ok) << c.args[0];
    EXPECT_EQ(error, c.error);
  }
  Options options;
  std::string error;
  ASSERT_TRUE(
      ParseOptions({"--scenario", "kits.yaml", "--log-level", "4", "--version"}, options, error));
  EXPECT_EQ(options.scenario_path, "kits.yaml");
  EXPECT_EQ(options.log_level, 4);
  EXPECT_TRUE(options.show_version);
  EXPECT_FALSE(options.show_help);
}

}  // namespace
}  // namespace qv::server
