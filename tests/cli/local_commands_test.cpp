// vesta-ctrl on the local target: `run` as a remote shell, symbols of the main program where an
// address goes, and `core` and `core-load`, against the test program (tests/programs/debuggee.cpp)
// built as a fixed-address and as a position-independent executable. Skipped where this process may
// not trace its children.
#ifdef VEKX_DEBUGGEE_PIE

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "cli/ctrl_run.h"
#include "platform/process_identity.h"

namespace {

using JsonValue = nlohmann::json;
using qv::clitest::Ctrl;

bool PtraceAllowed() {
  const pid_t child = fork();
  if (child == 0) _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

struct LocalStep {
  std::vector<std::string> args;
  int exit_code = 0;
  std::string out;                                          // in standard output
  std::string err;                                          // in standard error
  std::vector<std::pair<std::string, std::string>> fields;  // JSON pointer, "{name}" or a value
  std::string capture;  // a JSON pointer whose value later rows name by its last part
};

class LocalCommandsTest : public qv::servertest::ServerTest {
 protected:
  LocalCommandsTest() : ServerTest(qv::platform::CurrentUserName()) {}
  void SetUp() override {
    if (!PtraceAllowed()) GTEST_SKIP() << "ptrace is not permitted here";
    StartServer(/*built_in=*/true);
  }

  void RunSteps(const std::vector<LocalStep>& steps) {
    std::map<std::string, std::string> captured;
    const auto substituted = [&](std::string text) {
      for (const auto& [name, value] : captured) {
        const std::string placeholder = "{" + name + "}";
        for (size_t at = text.find(placeholder); at != std::string::npos;
             at = text.find(placeholder))
          text.replace(at, placeholder.size(), value);
      }
      return text;
    };
    for (const LocalStep& step : steps) {
      std::vector<std::string> args;
      std::string line;
      for (const std::string& arg : step.args) {
        args.push_back(substituted(arg));
        line += args.back() + " ";
      }
      const qv::clitest::CtrlRun run = Ctrl(args);
      ASSERT_EQ(run.exit_code, step.exit_code) << line << "\n" << run.out << run.err;
      EXPECT_NE(run.out.find(step.out), std::string::npos) << line << run.out;
      EXPECT_NE(run.err.find(substituted(step.err)), std::string::npos) << line << run.err;
      const JsonValue document = qv::clitest::Json(run);
      for (const auto& [pointer, value] : step.fields) {
        const JsonValue::json_pointer at(pointer);
        const JsonValue got = document.contains(at) ? document[at] : JsonValue("(missing)");
        EXPECT_EQ(got.is_string() ? got.get<std::string>() : got.dump(), substituted(value))
            << line << pointer << "\n"
            << run.out;
      }
      if (!step.capture.empty()) {
        const JsonValue::json_pointer at(step.capture);
        ASSERT_TRUE(document.contains(at)) << line << run.out;
        const JsonValue& value = document[at];
        captured[step.capture.substr(step.capture.rfind('/') + 1)] =
            value.is_string() ? value.get<std::string>() : value.dump();
      }
    }
  }
};

TEST_F(LocalCommandsTest, RunPassesOutputAndExitCodeThrough) {
  const std::string program = VEKX_DEBUGGEE;
  RunSteps({
      // Both streams, each to its own, and the last words before the end.
      {{"run", "localhost", program, "--", "exit", "3"},
       3,
       "out from debuggee\n",
       "err from debuggee\n"},
      {{"run", "localhost", program, "--", "exit", "0"}, 0, "out from debuggee\n"},
      // A signal stops it under the debugger; run lets it go on to die of it, as a shell says.
      {{"run", "localhost", program, "--", "raise", "11"}, 139, "", "was ended by SIGSEGV"},
      {{"run", "localhost", "/no/such/program"}, 1},
  });
}

TEST_F(LocalCommandsTest, SymbolsOfTheMainProgramStandForAddresses) {
  for (const std::string program : {VEKX_DEBUGGEE, VEKX_DEBUGGEE_PIE}) {
    SCOPED_TRACE(program);
    const std::string core =
        (qv::clitest::TestRoot() / (std::filesystem::path(program).filename().string() + ".core"))
            .string();
    const std::string dump = "crash-" + std::filesystem::path(program).filename().string();
    RunSteps({
        {{"--json", "load", "localhost", program, "--stop-at-entry", "--", "spin"},
         0,
         "",
         "",
         {},
         "/pid"},
        {{"--json", "break", "localhost", "{pid}", "vekx_tick"}, 0, "", "", {}, "/address"},
        // Where the program really is: the stop lands on it (a wrong load bias would fault or
        // never stop).
        {{"--json", "resume", "localhost", "{pid}", "--wait", "--timeout", "10"},
         0,
         "",
         "",
         {{"/rip", "{address}"}, {"/reason_name", "STOP_REASON_SIGSWBRKPT"}}},
        {{"--json", "mem", "read", "localhost", "{pid}", "vekx_marker", "8"},
         0,
         "",
         "",
         {{"/data", "ed5e000000000000"}}},
        {{"break", "localhost", "{pid}", "vekx_nothing"}, 1, "", "no symbol 'vekx_nothing'"},
        // The stopped process's core, with its progress on standard error; never over a file.
        {{"core", "localhost", "{pid}", core}, 0, "Wrote the core of process", "dumping: 100%"},
        {{"core", "localhost", "{pid}", core}, 1, "", "already exists"},
        // Reopened as a target of its own, which reads as the process did and changes nothing.
        {{"--json", "core-load", core, dump}, 0, "", "", {{"/pid", "{pid}"}}},
        {{"--json", "regs", dump, "{pid}", "{pid}", "rip"}, 0, "", "", {{"/rip", "{address}"}}},
        {{"--json", "mem", "read", dump, "{pid}", "vekx_marker", "8"},
         0,
         "",
         "",
         {{"/data", "ed5e000000000000"}}},
        {{"mem", "write", dump, "{pid}", "vekx_marker", "00"}, 1, "", "read-only core dump"},
        {{"kill", "localhost", "{pid}"}, 0},
    });
  }
}

}  // namespace

#endif  // VEKX_DEBUGGEE_PIE
