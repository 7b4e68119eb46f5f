// vesta-ctrl run as a user runs it, against a real vesta-kx in the test process's private
// runtime directory: what it prints and how it exits.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <signal.h>
#include <sys/stat.h>
#endif

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli/ctrl_run.h"
#include "platform/server_process.h"
#include "server/server_harness.h"
#include "support/child_program.h"

namespace {

using qv::clitest::Ctrl;
using qv::clitest::CtrlRun;
using qv::clitest::Json;
using qv::clitest::Lines;
using qv::clitest::Named;
using qv::clitest::RunSteps;
using qv::clitest::Whole;
using qv::servertest::ReadText;
using qv::servertest::TestRoot;

// Runs vesta-ctrl until its output (standard output and error) holds `until`, then stops it as
// Ctrl+C would, expecting a clean exit, where the test can (not under Wine, which gives the test
// no console to share); returns the output.
std::string RunUntil(const std::vector<std::string>& args, const std::string& until,
                     const std::function<void()>& after_first_line = {}) {
  const auto path = TestRoot() / "ctrl-watch.out";
  const auto program = qv::testing::ChildProgram::Start(VEKX_CTRL_EXECUTABLE, args, path.string());
  if (program == nullptr) return "(not started)";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  bool started = false;
  for (std::string text; (text = Lines(ReadText(path))).find(until) == std::string::npos &&
                         std::chrono::steady_clock::now() < deadline;) {
    if (!started && after_first_line && text.find('\n') != std::string::npos) {
      started = true;
      after_first_line();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (program->RequestStop()) {
    EXPECT_EQ(program->Wait(10000), std::optional<int>(0));
  } else {
    program->Kill();
  }
  return Lines(ReadText(path));
}

using VestaCtrlTest = qv::clitest::OwnUserServerTest;

TEST_F(VestaCtrlTest, CommandLineMistakesExitWithTwo) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {},
           {"--no-such-option", "targets"},
           {"--json", "kit-one"},
           {"power"},
           {"power", "sideways", "kit-one"},
           {"info"},
           {"find", "10.1.0.300"},
           {"find", "10.1.0.9-10.1.0.1"},
           {"error", "not-a-code"},
           {"--timeout", "0", "targets"},
           {"events", "--group", "sideways"},
       }) {
    RunSteps({{args, 2, {}, Whole(""), "Run with --help for more information.\n"}});
  }
}

TEST_F(VestaCtrlTest, FailuresExitWithOneAndSayWhy) {
  const std::string nowhere =
      "no target has the handle, host name or name 'kit-nowhere' (see 'vesta-ctrl targets')";
  const std::string entry = Whole("0x8004021B  Target error - The entry does not exist.\n");
  RunSteps({
      {{"info", "kit-nowhere"}, 1, {}, Whole(""), Whole("vesta-ctrl: " + nowhere + "\n")},
      {{"--json", "power", "on", "kit-nowhere"}, 1, {{"/error/message", nowhere}}},
      // kit-gone is registered but never answers: the library's description, then the server's.
      {{"power", "on", "kit-gone"},
       1,
       {},
       Whole(""),
       Whole("vesta-ctrl: Target error - Could not connect. no kit answers at 'kit-gone'; check "
             "the host name and the network\n")},
      {{"--json", "connect", "kit-gone"}, 1, {{"/error/code", "0x80040246"}}},
      // info says so once, plainly, rather than an error beside "off" and "available".
      {{"info", "kit-gone"},
       0,
       {},
       Whole("handle:       3\nhost:         kit-gone\nname:         kit-gone\ntype:         VE\n"
             "power:        unreachable\nconnection:   unreachable\nreachable:    no\n"
             "mac address:  unknown\nsdk version:  5.0.10.0\ndefault:      no\n")},
      // error describes result codes, given in hexadecimal or as a signed decimal.
      {{"error", "0x8004021B"}, 0, {}, entry},
      {{"error", "-2147220965"}, 0, {}, entry},
      {{"--json", "error", "0"}, 0, {{"", {{"code", "0x00000000"}, {"description", "Success."}}}}},
      {{"error", "0x80041000"},
       1,
       {},
       Whole(""),
       Whole("vesta-ctrl: 0x80041000 is not one of the library's result codes\n")},
  });
}

// The kits in registration order: kit-one, kit-two, kit-gone, kit-slow (kit-spare is not
// registered). Rows name kit-two's handle {handle}.
TEST_F(VestaCtrlTest, TargetsPowerDefaultAddAndDelete) {
  const nlohmann::json one = {{"connection", "available"}, {"default", true}, {"handle", 1},
                              {"host", "kit-one"},         {"name", "One"},   {"power", "on"}};
  RunSteps({
      // What an unreachable kit cannot tell is null, not made up.
      {{"--json", "targets"},
       0,
       {{"/targets/0", one},
        {"/targets/1/power", "off"},
        {"/targets/2/host", "kit-gone"},
        {"/targets/2/name", nullptr},
        {"/targets/2/power", nullptr},
        {"/targets/3/host", "kit-slow"},
        {"/targets/4", "(missing)"},
        {"/targets/1/handle", Named("handle")}}},
      // The human table: every row's cells start under their column's header.
      {{"targets"},
       0,
       {},
       Whole("HANDLE  NAME      HOST      POWER  CONNECTION  DEFAULT\n"
             "1       One       kit-one   on     available   *\n"
             "2       Two       kit-two   off    available\n"
             "3       -         kit-gone  -      available\n"
             "4       kit-slow  kit-slow  off    available\n")},
      // By name, by host and by handle.
      {{"power", "on", "Two"}, 0},
      {{"power", "status", "kit-two"}, 0, {}, Whole("on\n")},
      {{"--json", "default", "{handle}"}, 0, {{"/default/host", "kit-two"}}},
      {{"--json", "targets"}, 0, {{"/targets/0/default", false}, {"/targets/1/default", true}}},
      {{"--json", "default"}, 0, {{"/default/handle", "{handle}"}}},
      {{"power", "off", "{handle}"}, 0},
      {{"--json", "targets"}, 0, {{"/targets/1/power", "off"}}},
      {{"--json", "add", "kit-spare"}, 0, {{"/target/host", "kit-spare"}}},
      {{"--json", "info", "kit-spare"},
       0,
       {{"/target/host", "kit-spare"},
        {"/info/1", {{"name", "HostName"}, {"value", "kit-spare"}}}}},
      {{"delete", "kit-spare"}, 0},
      {{"delete", "kit-spare"}, 1, {}, "", "'kit-spare'"},
  });
}

// kit-one's console output runs from the server's start for a few seconds, one numbered line at a
// time; its target, process-lock and server groups each send one event on their first
// subscription.
constexpr int kConsoleLines = 400;
std::string ScriptedScenario() {
  std::string scenario = R"(kits:
  - host: kit-one
    name: One
    power: on
    address: 10.1.0.1
    scripts:
      - steps:
          - notification: MOUNT_PROGRESS
            fields: {Type: 1, TitleId: ABCD00001, Phase: 1, NumberOfPhases: 2, Percentage: 50}
      - steps:
          - notification: LOCK_STATUS_CHANGED
            fields: {ProcessId: 4660, Available: false, Owner: build-agent}
      - steps:
          - notification: USB_TARGET_PLUGGED_IN
            fields: {Flags: 1, Address: 1}
      - trigger: server_start
        steps:
)";
  for (int line = 1; line <= kConsoleLines; ++line) {
    scenario +=
        "          - {notification: CONSOLE_OUTPUT, after_ms: 1, fields: {Port: 1, Text: \"line " +
        std::to_string(line) + "\\n\"}}\n";
  }
  return scenario + R"(  - host: kit-two
    power: off
    address: 10.1.0.2
)";
}

class VestaCtrlEventsTest : public VestaCtrlTest {
 protected:
  void SetUp() override { StartServer(/*built_in=*/false, ScriptedScenario().c_str()); }
};

TEST_F(VestaCtrlEventsTest, ConsoleFollowsItsCacheWithoutGapOrRepeat) {
  // Some lines are cached before the tool subscribes, the rest arrive live.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  std::string every_line;
  for (int line = 1; line <= kConsoleLines; ++line)
    every_line += "line " + std::to_string(line) + "\n";
  const std::string last = "line " + std::to_string(kConsoleLines) + "\n";
  EXPECT_EQ(RunUntil({"console", "kit-one", "--follow"}, last), every_line);

  // The cache alone, from an index, with each piece's index in JSON; another port's is empty.
  // Input with echo comes back as output on its port; empty input is refused by the library.
  RunSteps({
      {{"--json", "console", "kit-one", "--since", std::to_string(kConsoleLines - 1)},
       0,
       {{"/index", kConsoleLines - 1}, {"/port", 1}, {"/text", last}}},
      {{"console", "kit-one", "--port", "2"}, 0, {}, Whole("")},
      {{"console", "kit-one", "--send", "echo me", "--port", "2", "--echo"}, 0},
      {{"console", "kit-one", "--port", "2"}, 0, {}, Whole("echo me")},
  });
  const CtrlRun run = Ctrl({"console", "kit-one", "--send", ""});
  EXPECT_EQ(run.exit_code, 1);
  // The system's text for E_INVALIDARG, which differs between Linux, Windows and Wine.
  EXPECT_EQ(run.err.rfind("vesta-ctrl: ", 0), 0u) << run.err;
  EXPECT_GT(run.err.size(), std::string("vesta-ctrl: \n").size()) << run.err;
}

TEST_F(VestaCtrlEventsTest, EventsPrintsEachScriptedEventAsOneLine) {
  const std::string text = RunUntil({"events", "kit-one", "--group", "target"}, "Description");
  EXPECT_NE(text.find(" (One)  OnMountProgress Type=1 TitleId=\"ABCD00001\" Phase=1 "
                      "NumberOfPhases=2 Percentage=50 Flags=0 EstimatedDuration=0 "
                      "Description=\"\"\n"),
            std::string::npos)
      << text;

  const std::string json =
      RunUntil({"--json", "events", "kit-one", "--group", "process-lock"}, "}}");
  const nlohmann::json line =
      nlohmann::json::parse(json.substr(0, json.find('\n')), nullptr, false);
  EXPECT_EQ(line["group"], "process-lock") << json;
  EXPECT_EQ(line["target"]["name"], "One");
  EXPECT_EQ(line["event"], "OnLockStatusChanged");
  EXPECT_EQ(line["properties"],
            nlohmann::json({{"ProcessId", 4660}, {"Available", false}, {"Owner", "build-agent"}}));
  EXPECT_TRUE(line["time"].is_string());

  // Without a TARGET, a target added while the command runs is followed too.
  ASSERT_EQ(Ctrl({"delete", "kit-two"}).exit_code, 0);
  // The server group's first subscription brings a line: the command has subscribed by then.
  std::string handle;
  const std::string later = RunUntil({"events", "--group", "server,target"}, "OnIdle", [&] {
    const nlohmann::json added = Json(Ctrl({"--json", "add", "kit-two"}));
    EXPECT_TRUE(added["target"]["handle"].is_number()) << added;
    // "<time>  <handle> [(<name>)]  OnBusy"
    handle = "  " + added["target"]["handle"].dump() + " ";
    EXPECT_EQ(Ctrl({"power", "on", "kit-two"}).exit_code, 0);
  });
  for (const char* method : {"  OnBusy\n", "  OnIdle\n"}) {
    const size_t at = later.find(method);
    ASSERT_NE(at, std::string::npos) << later;
    const std::string found = later.substr(later.rfind('\n', at) + 1, at - later.rfind('\n', at));
    EXPECT_NE((found + " ").find(handle), std::string::npos) << found;
  }
}

TEST_F(VestaCtrlEventsTest, FindListsTheKitsItsProgressEventsReport) {
  const nlohmann::json none = nlohmann::json::array();
  RunSteps({
      // Standard error is no terminal here: plain progress lines rather than a bar.
      {{"find", "10.1.0.1", "10.1.0.2-10.1.0.9"},
       0,
       {},
       Whole("10.1.0.1\n10.1.0.2\nAdd one with 'vesta-ctrl add ADDRESS'.\n"),
       Whole("searching: 50%, 1 found\nsearching: 100%, 2 found\n")},
      {{"--json", "find", "10.2.0.0/16"},
       0,
       {{"",
         {{"searched", {"10.2.0.0/16"}}, {"found", none}, {"finished", true}, {"joined", none}}}}},
  });
}

// No server at first: `server start` has the library start one, `server stop` ends it.
class VestaCtrlServerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // Whatever happened above, no server of this test outlives it.
    if (auto pid = RunningServer()) qv::platform::RequestServerStop(*pid);
  }
  static std::optional<std::uint32_t> RunningServer() {
    return qv::platform::RunningServerProcessId(qv::platform::CurrentUserName(),
                                                qv::servertest::RunDir());
  }
};

TEST_F(VestaCtrlServerTest, StartStatusAndStop) {
  EXPECT_EQ(Json(Ctrl({"--json", "server", "status"})),
            nlohmann::json({{"running", false}, {"pid", nullptr}}));
  const CtrlRun start = Ctrl({"server", "start"});
  ASSERT_EQ(start.exit_code, 0) << start.err;
  const std::optional<std::uint32_t> pid = RunningServer();
  ASSERT_TRUE(pid.has_value());
  const std::string process = "(process " + std::to_string(*pid) + ")";
  EXPECT_EQ(start.out, "vesta-kx 5.0.10.0 started " + process + ".\n");
  RunSteps({
      {{"--json", "server", "status"}, 0, {{"", {{"running", true}, {"pid", *pid}}}}},
      {{"server", "start"}, 0, {}, Whole("vesta-kx is already running " + process + ".\n")},
      {{"server", "stop"}, 0, {}, Whole("vesta-kx " + process + " stopped.\n")},
  });
  EXPECT_FALSE(RunningServer().has_value());
  EXPECT_EQ(Ctrl({"server", "stop"}).out, "vesta-kx is not running.\n");
}

#ifndef _WIN32
// What keeps the tool from its server is said, not waited on: a server that stopped answering
// ends the command after --timeout; a runtime directory it cannot use is named with its fault.
TEST_F(VestaCtrlServerTest, AFrozenOrUnstartableServerEndsTheCommandWithTheReason) {
  ASSERT_EQ(Ctrl({"server", "start"}).exit_code, 0);
  const std::optional<std::uint32_t> pid = RunningServer();
  ASSERT_TRUE(pid.has_value());
  ASSERT_EQ(kill(static_cast<pid_t>(*pid), SIGSTOP), 0);
  const CtrlRun frozen = Ctrl({"--timeout", "0.5", "targets"});
  const CtrlRun frozen_json = Ctrl({"--json", "--timeout", "0.5", "info", "devkit-alpha"});
  kill(static_cast<pid_t>(*pid), SIGCONT);
  EXPECT_EQ(frozen.exit_code, 1);
  EXPECT_EQ(frozen.err, "vesta-ctrl: the server did not answer within 0.5 s\n");
  EXPECT_EQ(Json(frozen_json)["error"]["message"], "the server did not answer within 0.5 s");
  EXPECT_EQ(Ctrl({"server", "stop"}).exit_code, 0);

  const std::string parent = (TestRoot() / "open-runtime").string();
  std::filesystem::create_directories(parent + "/vesta");
  ASSERT_EQ(chmod((parent + "/vesta").c_str(), 0777), 0);
  const qv::testing::ScopedVariable runtime("XDG_RUNTIME_DIR", parent);  // until the test ends
  const CtrlRun refused = Ctrl({"targets"});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_EQ(refused.err,
            "vesta-ctrl: KX API was unable to run the vesta-kx.exe server process. The runtime "
            "directory " +
                parent +
                "/vesta is open to other users (mode 0777); make it private "
                "with chmod 700.\n");
}
#endif

}  // namespace
