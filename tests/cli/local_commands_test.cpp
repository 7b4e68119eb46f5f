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
#include <string>

#include "cli/ctrl_run.h"

namespace {

using qv::clitest::Named;
using qv::clitest::RunSteps;

bool PtraceAllowed() {
  const pid_t child = fork();
  if (child == 0) _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

class LocalCommandsTest : public qv::clitest::BuiltInKitTest {
 protected:
  void SetUp() override {
    if (!PtraceAllowed()) GTEST_SKIP() << "ptrace is not permitted here";
    BuiltInKitTest::SetUp();
  }
};

TEST_F(LocalCommandsTest, RunPassesOutputAndExitCodeThrough) {
  const std::string program = VEKX_DEBUGGEE;
  RunSteps({
      // Both streams, each to its own, and the last words before the end.
      {{"run", "localhost", program, "--", "exit", "3"},
       3,
       {},
       "out from debuggee\n",
       "err from debuggee\n"},
      {{"run", "localhost", program, "--", "exit", "0"}, 0, {}, "out from debuggee\n"},
      // A signal stops it under the debugger; run lets it go on to die of it, as a shell says.
      {{"run", "localhost", program, "--", "raise", "11"}, 139, {}, "", "was ended by SIGSEGV"},
      {{"run", "localhost", "/no/such/program"}, 1},
  });
}

TEST_F(LocalCommandsTest, SymbolsOfTheMainProgramStandForAddresses) {
  for (const std::string program : {VEKX_DEBUGGEE, VEKX_DEBUGGEE_PIE}) {
    SCOPED_TRACE(program);
    const std::string name = std::filesystem::path(program).filename().string();
    const std::string core = (qv::clitest::TestRoot() / (name + ".core")).string();
    const std::string dump = "crash-" + name;
    RunSteps({
        {{"--json", "load", "localhost", program, "--stop-at-entry", "--", "spin"},
         0,
         {{"/pid", Named("pid")}}},
        {{"--json", "break", "localhost", "{pid}", "vekx_tick"},
         0,
         {{"/address", Named("address")}}},
        // Where the program really is: the stop lands on it (a wrong load bias would fault or
        // never stop).
        {{"--json", "resume", "localhost", "{pid}", "--wait", "--timeout", "10"},
         0,
         {{"/rip", "{address}"}, {"/reason_name", "STOP_REASON_SIGSWBRKPT"}}},
        {{"--json", "mem", "read", "localhost", "{pid}", "vekx_marker", "8"},
         0,
         {{"/data", "ed5e000000000000"}}},
        {{"break", "localhost", "{pid}", "vekx_nothing"}, 1, {}, "", "no symbol 'vekx_nothing'"},
        // The stopped process's core, with its progress on standard error; never over a file.
        {{"core", "localhost", "{pid}", core}, 0, {}, "Wrote the core of process", "dumping: 100%"},
        {{"core", "localhost", "{pid}", core}, 1, {}, "", "already exists"},
        // Reopened as a target of its own, which reads as the process did and changes nothing.
        {{"--json", "core-load", core, dump}, 0, {{"/pid", "{pid}"}}},
        {{"--json", "regs", dump, "{pid}", "{pid}", "rip"}, 0, {{"/rip", "{address}"}}},
        {{"--json", "mem", "read", dump, "{pid}", "vekx_marker", "8"},
         0,
         {{"/data", "ed5e000000000000"}}},
        {{"mem", "write", dump, "{pid}", "vekx_marker", "00"}, 1, {}, "", "read-only core dump"},
        {{"kill", "localhost", "{pid}"}, 0},
    });
  }
}

}  // namespace

#endif  // VEKX_DEBUGGEE_PIE
