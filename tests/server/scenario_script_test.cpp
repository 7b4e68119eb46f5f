// Kit scripts in scenario files: every field type of the catalogue written as text, and the
// mistakes refused with their line, by both readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "dispatch_harness.h"
#include "platform/wide_string.h"
#include "server/kits/scenario.h"
#include "server/kits/scenario_script.h"
#include "server/kits/script_runner.h"

namespace qv::server {
namespace {

constexpr char kScripted[] = R"(kits:
  - host: kit-a
    scripts:
      - trigger: server_start
        steps:
          - notification: CONSOLE_OUTPUT
            after_ms: 5
            repeat: 3
            fields: {Port: 2, Category: 0x10, ProcessId: 77, Timestamp: 18446744073709551615, Text: "ready\n"}
          - notification: NOTIFICATION_EVENT
            fields:
              Header: {Id: 1, Type: 2, Timestamp: 3}
              Data: "de:ad be EF"
          - notification: MIRADOR_TARGET_FIND_PROGRESS
            fields:
              TargetKey: 9
              Description: ~
              FoundTargets:
                - {HostName: m1, Name: One, MacAddress: 0102030405ff}
          - notification: FILE_COPY_START
            fields: {TargetList: [1, 2], Id: 4}
      - steps:
          - notification: PROTOCOL_STATUS
            fields: {Availability: true}
          - notification: SAVE_DATA_ERROR
            fields: {Result: 0x80004005, RawResult: 7}
)";

TEST(ScenarioScriptTest, EveryFieldTypeIsWrittenAsDocumented) {
  for (DocumentReader reader : Readers()) {
    const ScenarioResult result = ParseScenarioWith(reader, kScripted, "s.yaml");
    ASSERT_TRUE(result.scenario.has_value()) << result.error;
    const auto& scripts = result.scenario->kits[0].scripts;
    ASSERT_EQ(scripts.size(), 2u);
    EXPECT_EQ(scripts[0].trigger, ScriptTrigger::kServerStart);
    EXPECT_EQ(scripts[1].trigger, ScriptTrigger::kFirstSubscription);
    ASSERT_EQ(scripts[0].steps.size(), 4u);
    EXPECT_EQ(scripts[0].steps[0].after_ms, 5u);
    EXPECT_EQ(scripts[0].steps[0].repeat, 3u);

    const auto console = ScriptedNotification(scripts[0].steps[0], 42);
    const auto* output = dynamic_cast<const CConsoleOutputNotification*>(console.get());
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(output->TargetKey, 42u);  // not given: the kit's handle
    EXPECT_EQ(output->Port, 2u);
    EXPECT_EQ(output->Category, 16u);
    EXPECT_EQ(output->ProcessId, 77u);
    EXPECT_EQ(output->Timestamp, UINT64_MAX);
    EXPECT_EQ(output->Text, u"ready\n");

    const auto viewer = ScriptedNotification(scripts[0].steps[1], 42);
    const auto* event = dynamic_cast<const CNotificationEventNotification*>(viewer.get());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->Header, (EventHeader{1, 2, 3}));
    EXPECT_EQ(event->Data, (Bytes{0xde, 0xad, 0xbe, 0xef}));

    const auto find = ScriptedNotification(scripts[0].steps[2], 42);
    const auto* found = dynamic_cast<const CMiradorTargetFindProgressNotification*>(find.get());
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->TargetKey, 9u);  // given: kept
    EXPECT_EQ(found->Description, u"");
    ASSERT_EQ(found->FoundTargets.size(), 1u);
    EXPECT_EQ(found->FoundTargets[0].Name, u"One");
    EXPECT_EQ(found->FoundTargets[0].MacAddress, (Bytes{1, 2, 3, 4, 5, 0xff}));

    const auto copy = ScriptedNotification(scripts[0].steps[3], 42);
    EXPECT_EQ(dynamic_cast<const CFileCopyStartNotification&>(*copy).TargetList, (U32List{1, 2}));
    const auto status = ScriptedNotification(scripts[1].steps[0], 42);
    EXPECT_TRUE(dynamic_cast<const CProtocolStatusNotification&>(*status).Availability);
    const auto error = ScriptedNotification(scripts[1].steps[1], 42);
    EXPECT_EQ(dynamic_cast<const CSaveDataErrorNotification&>(*error).Result, 0x80004005u);
  }
}

// {time_ns} is the steady clock when the step is sent, {n} the repetition; other braces stay.
TEST(ScenarioScriptTest, TextPlaceholdersAreExpandedWhenSent) {
  const ScenarioResult result = ParseScenario(R"(kits:
  - host: a
    scripts:
      - steps:
          - notification: CONSOLE_OUTPUT
            fields: {Text: "{n}:{time_ns} {x} {n"}
)",
                                              "s.yaml");
  ASSERT_TRUE(result.scenario.has_value()) << result.error;
  const ScriptStep& step = result.scenario->kits[0].scripts[0].steps[0];
  const auto now_ns = [] {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
  };
  const uint64_t before = now_ns();
  const auto sent = ScriptedNotification(step, 1, 7);
  const uint64_t after = now_ns();
  const std::string text =
      platform::Utf16ToUtf8(dynamic_cast<const CConsoleOutputNotification&>(*sent).Text);
  ASSERT_EQ(text.rfind("7:", 0), 0u) << text;
  size_t end = 0;
  const uint64_t time_ns = std::stoull(text.substr(2), &end);
  EXPECT_GE(time_ns, before);
  EXPECT_LE(time_ns, after);
  EXPECT_EQ(text.substr(2 + end), " {x} {n");
  // The body kept the placeholders: the next sending expands them afresh.
  EXPECT_EQ(dynamic_cast<const CConsoleOutputNotification&>(*ScriptedNotification(step, 1, 8))
                .Text.substr(0, 2),
            u"8:");
}

// Scripts started while the runner waits for a later one are sent at once, and the wait survives
// the runner's list growing under it (under AddressSanitizer a wait on a moved entry shows).
TEST(ScriptRunnerTest, ScriptsStartedWhileOneWaitsAreSentAtOnce) {
  std::mutex mutex;
  std::condition_variable sent;
  std::vector<std::u16string> hosts;
  ScriptRunner runner([&](const std::u16string& host, const ScriptStep&, uint32_t) {
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

TEST(ScenarioScriptTest, RefusesMistakesWithTheirLine) {
  const std::string head = "kits:\n  - host: a\n    scripts:\n      - steps:\n";
  struct Case {
    const char* steps;
    const char* error;
  };
  const Case cases[] = {
      {"          - notification: CONSOLE_OUTPU\n",
       "s.yaml:5: unknown notification 'CONSOLE_OUTPU'"},
      {"          - notification: DEVICE_READY\n",
       "s.yaml:5: 'DEVICE_READY' reaches no subscriber"},
      {"          - after_ms: 1\n", "s.yaml:5: a step needs a 'notification'"},
      {"          - notification: IDLE\n            fields: {Port: 1}\n",
       "s.yaml:6: unknown key 'Port' in the fields of IDLE (known: TargetKey)"},
      {"          - notification: CONSOLE_OUTPUT\n            fields: {Port: 4294967296}\n",
       "s.yaml:6: 'Port' must be a whole number from 0 to 4294967295, not '4294967296'"},
      {"          - notification: CONSOLE_OUTPUT\n            fields: {Port: -1}\n",
       "s.yaml:6: 'Port' must be a whole number from 0"},
      {"          - notification: CONSOLE_OUTPUT\n            fields: {Text: [a]}\n",
       "s.yaml:6: 'Text' must be a single value"},
      {"          - notification: RECORDED_DATA\n            fields: {Data: abc}\n",
       "s.yaml:6: 'Data' must be hex byte pairs"},
      {"          - notification: FILE_COPY_START\n            fields: {TargetList: 1}\n",
       "s.yaml:6: 'TargetList' must be a list"},
      {"          - notification: PROTOCOL_STATUS\n            fields: {Availability: 2}\n",
       "s.yaml:6: 'Availability' must be true or false"},
      {"          - notification: NOTIFICATION_EVENT\n            fields: {Header: {Idd: 1}}\n",
       "s.yaml:6: unknown key 'Idd' in the fields of Header"},
      {"          - notification: IDLE\n            repeat: 0\n",
       "s.yaml:6: 'repeat' must be at least 1"},
      {"          - notification: IDLE\n            every: 1\n",
       "s.yaml:6: unknown key 'every' in a step"},
  };
  for (const Case& c : cases)
    ExpectRefused(head + c.steps, c.error);
  const std::string scripts = "kits:\n  - host: a\n    scripts:\n";
  const Case script_cases[] = {
      {"      - trigger: later\n        steps: []\n",
       "s.yaml:4: 'trigger' must be server_start or first_subscription, not 'later'"},
      {"      - steps: []\n", "s.yaml:4: a script needs a list of 'steps'"},
      {"      - trigger: server_start\n", "s.yaml:4: a script needs a list of 'steps'"},
  };
  for (const Case& c : script_cases)
    ExpectRefused(scripts + c.steps, c.error);
}

}  // namespace
}  // namespace qv::server
