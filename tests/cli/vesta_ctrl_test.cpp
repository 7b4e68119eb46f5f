// vesta-ctrl run as a user runs it, against a real vesta-kx in the test process's private
// runtime directory: what it prints and how it exits.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <signal.h>
#include <sys/stat.h>
#endif

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli/ctrl_run.h"
#include "platform/pipe.h"
#include "platform/server_process.h"
#include "server/server_harness.h"
#include "support/child_program.h"

namespace {

using qv::clitest::Ctrl;
using qv::clitest::CtrlRun;
using qv::clitest::Json;
using qv::clitest::Lines;
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

// The target of `targets --json` whose host is `host`; null when there is none.
nlohmann::json TargetWithHost(const std::string& host) {
  const nlohmann::json list = Json(Ctrl({"--json", "targets"}));
  for (const auto& target : list.value("targets", nlohmann::json::array())) {
    if (target["host"] == host) return target;
  }
  return nullptr;
}

// vesta-ctrl serves the account's own user name; the test process's runtime directory keeps its
// servers apart from any other.
class VestaCtrlTest : public qv::servertest::ServerTest {
 protected:
  VestaCtrlTest() : ServerTest(qv::platform::CurrentUserName()) {}
};

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
       }) {
    std::string joined;
    for (const auto& arg : args)
      joined += arg + " ";
    const CtrlRun run = Ctrl(args);
    EXPECT_EQ(run.exit_code, 2) << joined << run.err;
    EXPECT_FALSE(run.err.empty()) << joined;
    EXPECT_EQ(run.out, "") << joined;
  }
}

TEST_F(VestaCtrlTest, UnknownTargetFailsWithOneAndSaysWhy) {
  const CtrlRun run = Ctrl({"info", "kit-nowhere"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err,
            "vesta-ctrl: no target has the handle, host name or name 'kit-nowhere' (see "
            "'vesta-ctrl targets')\n");
  EXPECT_EQ(run.out, "");

  const CtrlRun json = Ctrl({"--json", "power", "on", "kit-nowhere"});
  EXPECT_EQ(json.exit_code, 1);
  EXPECT_EQ(Json(json)["error"]["message"],
            "no target has the handle, host name or name 'kit-nowhere' (see 'vesta-ctrl "
            "targets')");
}

TEST_F(VestaCtrlTest, ServerFailureCarriesTheLibrarysDescription) {
  // kit-gone is registered but never answers.
  CtrlRun run = Ctrl({"power", "on", "kit-gone"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err.rfind("vesta-ctrl: Target error - Could not connect.", 0), 0u) << run.err;

  const nlohmann::json json = Json(Ctrl({"--json", "connect", "kit-gone"}));
  EXPECT_EQ(json["error"]["code"], "0x80040246") << json;

  // info says so once, plainly, rather than an error beside "off" and "available".
  run = Ctrl({"info", "kit-gone"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  for (const char* line : {"\npower:        unreachable\n", "\nconnection:   unreachable\n",
                           "\nreachable:    no\n", "\nmac address:  unknown\n"})
    EXPECT_NE(run.out.find(line), std::string::npos) << line << run.out;
  EXPECT_EQ(run.out.find("error"), std::string::npos) << run.out;
}

TEST_F(VestaCtrlTest, ErrorDescribesResultCodes) {
  CtrlRun run = Ctrl({"error", "0x8004021B"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, "0x8004021B  Target error - The entry does not exist.\n");
  // The same code as a signed decimal.
  EXPECT_EQ(Ctrl({"error", "-2147220965"}).out, run.out);

  run = Ctrl({"--json", "error", "0"});
  EXPECT_EQ(Json(run), nlohmann::json({{"code", "0x00000000"}, {"description", "Success."}}));

  run = Ctrl({"error", "0x80041000"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "vesta-ctrl: 0x80041000 is not one of the library's result codes\n");
}

TEST_F(VestaCtrlTest, TargetsListsEveryRegisteredKit) {
  const CtrlRun run = Ctrl({"--json", "targets"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const nlohmann::json list = Json(run);
  ASSERT_TRUE(list.is_object()) << run.out;
  ASSERT_EQ(list["targets"].size(), 4u) << run.out;  // kit-spare is not registered.
  const nlohmann::json one = TargetWithHost("kit-one");
  EXPECT_EQ(one["name"], "One");
  EXPECT_EQ(one["power"], "on");
  EXPECT_EQ(one["connection"], "available");
  EXPECT_EQ(one["default"], true);
  EXPECT_TRUE(one["handle"].is_number_unsigned());
  // What an unreachable kit cannot tell is null, not made up.
  const nlohmann::json gone = TargetWithHost("kit-gone");
  EXPECT_TRUE(gone["name"].is_null()) << gone;
  EXPECT_TRUE(gone["power"].is_null()) << gone;

  // The human table: every row's cells start under their column's header.
  const CtrlRun table = Ctrl({"targets"});
  std::istringstream lines(table.out);
  std::string header;
  std::getline(lines, header);
  ASSERT_EQ(header.rfind("HANDLE", 0), 0u) << table.out;
  const std::size_t host_column = header.find("HOST");
  const std::size_t power_column = header.find("POWER");
  int rows = 0;
  for (std::string line; std::getline(lines, line); ++rows) {
    EXPECT_NE(line[host_column], ' ') << table.out;
    EXPECT_EQ(line[host_column - 1], ' ') << table.out;
    EXPECT_NE(line[power_column], ' ') << table.out;
    EXPECT_NE(line.back(), ' ') << table.out;
  }
  EXPECT_EQ(rows, 4);
}

TEST_F(VestaCtrlTest, PowerAndDefaultChangeTheTargetsState) {
  const nlohmann::json two = TargetWithHost("kit-two");
  ASSERT_EQ(two["power"], "off");
  const std::string handle = std::to_string(two["handle"].get<unsigned>());

  // By name, by host and by handle.
  CtrlRun run = Ctrl({"power", "on", "Two"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(Ctrl({"power", "status", "kit-two"}).out, "on\n");
  run = Ctrl({"--json", "default", handle});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(Json(run)["default"]["host"], "kit-two");
  EXPECT_EQ(TargetWithHost("kit-two")["default"], true);
  EXPECT_EQ(TargetWithHost("kit-one")["default"], false);
  EXPECT_EQ(Json(Ctrl({"--json", "default"}))["default"]["handle"], two["handle"]);

  run = Ctrl({"power", "off", handle});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(TargetWithHost("kit-two")["power"], "off");
}

TEST_F(VestaCtrlTest, AddInfoAndDelete) {
  CtrlRun run = Ctrl({"--json", "add", "kit-spare"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(Json(run)["target"]["host"], "kit-spare");

  run = Ctrl({"--json", "info", "kit-spare"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const nlohmann::json info = Json(run);
  EXPECT_EQ(info["target"]["host"], "kit-spare");
  bool names_host = false;
  for (const auto& pair : info["info"])
    names_host = names_host || pair["value"] == "kit-spare";
  EXPECT_TRUE(names_host) << info;

  run = Ctrl({"delete", "kit-spare"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(TargetWithHost("kit-spare").is_null());
  EXPECT_EQ(Ctrl({"delete", "kit-spare"}).exit_code, 1);
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
  void SetUp() override {
    server_ = std::make_unique<qv::servertest::ServerProcess>(
        user_, std::vector<std::string>{"--log-level", "2", "--scenario",
                                        qv::servertest::WriteScenario(ScriptedScenario())});
    ASSERT_TRUE(server_->Started());
    ASSERT_TRUE(server_->WaitReady()) << server_->Output();
  }
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
  const CtrlRun tail =
      Ctrl({"--json", "console", "kit-one", "--since", std::to_string(kConsoleLines - 1)});
  EXPECT_EQ(tail.exit_code, 0) << tail.err;
  const nlohmann::json piece = Json(tail);
  EXPECT_EQ(piece["index"], kConsoleLines - 1) << tail.out;
  EXPECT_EQ(piece["port"], 1);
  EXPECT_EQ(piece["text"], last);
  EXPECT_EQ(Ctrl({"console", "kit-one", "--port", "2"}).out, "");

  // Input with echo comes back as output on its port; empty input is refused by the library.
  CtrlRun run = Ctrl({"console", "kit-one", "--send", "echo me", "--port", "2", "--echo"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(Ctrl({"console", "kit-one", "--port", "2"}).out, "echo me");
  run = Ctrl({"console", "kit-one", "--send", ""});
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

  EXPECT_EQ(Ctrl({"events", "--group", "sideways"}).exit_code, 2);

  // Without a TARGET, a target added while the command runs is followed too.
  ASSERT_EQ(Ctrl({"delete", "kit-two"}).exit_code, 0);
  // The server group's first subscription brings a line: the command has subscribed by then.
  const std::string later = RunUntil({"events", "--group", "server,target"}, "OnIdle", [] {
    EXPECT_EQ(Ctrl({"add", "kit-two"}).exit_code, 0);
    EXPECT_EQ(Ctrl({"power", "on", "kit-two"}).exit_code, 0);
  });
  const nlohmann::json kit_two = TargetWithHost("kit-two");
  ASSERT_FALSE(kit_two.is_null());
  // "<time>  <handle> [(<name>)]  OnBusy"
  const std::string handle = "  " + kit_two["handle"].dump() + " ";
  for (const char* method : {"  OnBusy\n", "  OnIdle\n"}) {
    const size_t at = later.find(method);
    ASSERT_NE(at, std::string::npos) << later;
    const std::string found = later.substr(later.rfind('\n', at) + 1, at - later.rfind('\n', at));
    EXPECT_NE((found + " ").find(handle), std::string::npos) << found;
  }
}

TEST_F(VestaCtrlEventsTest, FindListsTheKitsItsProgressEventsReport) {
  CtrlRun run = Ctrl({"find", "10.1.0.1", "10.1.0.2-10.1.0.9"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "10.1.0.1\n10.1.0.2\nAdd one with 'vesta-ctrl add ADDRESS'.\n");
  // Standard error is no terminal here: plain progress lines rather than a bar.
  EXPECT_EQ(run.err, "searching: 50%, 1 found\nsearching: 100%, 2 found\n");

  run = Ctrl({"--json", "find", "10.2.0.0/16"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(Json(run), nlohmann::json({{"searched", {"10.2.0.0/16"}},
                                       {"found", nlohmann::json::array()},
                                       {"finished", true},
                                       {"joined", nlohmann::json::array()}}));
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

  CtrlRun run = Ctrl({"server", "start"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const std::optional<std::uint32_t> pid = RunningServer();
  ASSERT_TRUE(pid.has_value());
  EXPECT_EQ(run.out, "vesta-kx 5.0.10.0 started (process " + std::to_string(*pid) + ").\n");
  EXPECT_EQ(Json(Ctrl({"--json", "server", "status"})),
            nlohmann::json({{"running", true}, {"pid", *pid}}));
  EXPECT_EQ(Ctrl({"server", "start"}).out,
            "vesta-kx is already running (process " + std::to_string(*pid) + ").\n");

  run = Ctrl({"server", "stop"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "vesta-kx (process " + std::to_string(*pid) + ") stopped.\n");
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

  const std::string saved = std::getenv("XDG_RUNTIME_DIR") ? std::getenv("XDG_RUNTIME_DIR") : "";
  const std::string parent = (TestRoot() / "open-runtime").string();
  std::filesystem::create_directories(parent + "/vesta");
  ASSERT_EQ(chmod((parent + "/vesta").c_str(), 0777), 0);
  setenv("XDG_RUNTIME_DIR", parent.c_str(), 1);
  const CtrlRun refused = Ctrl({"targets"});
  setenv("XDG_RUNTIME_DIR", saved.c_str(), 1);
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
