// Debian's gdb and lldb, unmodified and in batch mode, debugging through vesta-gdbserver: real
// programs on the local target, and the built-in kit's virtual process. Each row is one debugger
// session against its own vesta-kx, checked by what the debugger printed. Rows on the local
// target are skipped where this process may not trace its children.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/process_identity.h"
#include "server/server_harness.h"

namespace {

using qv::servertest::ReadText;
using qv::servertest::TestRoot;

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

bool PtraceAllowed() {
  const pid_t child = fork();
  if (child == 0) _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

bool Installed(const std::string& tool) {
  return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0;
}

// Whether a process whose command line contains `text` runs (pgrep -f).
bool Running(const std::string& text) {
  return std::system(("pgrep -f " + Quoted("^" + text) + " >/dev/null").c_str()) == 0;
}

enum class After { kNothing, kStillRunning, kGone };

struct Row {
  const char* name;
  // The debugger (gdb or lldb), the target ("localhost" or a kit of the built-in scenario), then
  // the program and its arguments: "{inferior}" is the test program, "{tag}" a unique word.
  const char* session;
  std::vector<std::string> commands;  // one per -ex / -o
  std::vector<std::string> expected;  // regular expressions the output must contain, in order
  After after = After::kNothing;      // what becomes of "{inferior} ... {tag}"
  std::function<void(const std::string&)> check = nullptr;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

std::string Tag() {
  return "tag" + std::to_string(getpid());
}

std::string Substituted(std::string text) {
  for (const auto& [from, to] :
       {std::pair<std::string, std::string>{"{inferior}", VEKX_GDB_INFERIOR}, {"{tag}", Tag()}}) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from))
      text.replace(at, from.size(), to);
  }
  return text;
}

// The script that runs one session; the debugger's output goes to `out`.
std::string Script(const std::string& debugger, const std::string& target,
                   const std::string& program, const Row& row, const std::string& out) {
  const std::string local_file =
      target == "localhost" ? " " + Quoted(VEKX_GDB_INFERIOR) : std::string();
  std::string script;
  if (debugger == "gdb") {
    script += "timeout -k 5 60 gdb -nx -batch -q -ex 'set confirm off' -ex 'set pagination off' " +
              std::string("-ex 'set sysroot /' -ex ") +
              Quoted("target remote | " + Quoted(VEKX_GDBSERVER) + " " + target + " --" + program);
    for (const std::string& command : row.commands)
      script += " -ex " + Quoted(Substituted(command));
    script += local_file + " >" + Quoted(out) + " 2>&1";
  } else {
    const std::string err = out + ".server";
    script += Quoted(VEKX_GDBSERVER) + " --listen 127.0.0.1:0 " + target + " --" + program + " 2>" +
              Quoted(err) + " & for i in $(seq 200); do grep -q 'Listening on port' " +
              Quoted(err) +
              " && break; sleep 0.05; done; port=$(sed -n 's/Listening on port //p' " +
              Quoted(err) + "); timeout -k 5 60 lldb -b --no-lldbinit" + local_file +
              " -o \"gdb-remote 127.0.0.1:$port\"";
    for (const std::string& command : row.commands)
      script += " -o " + Quoted(Substituted(command));
    script += " >" + Quoted(out) + " 2>&1; wait";
  }
  return "cd " + Quoted(TestRoot().string()) + " || exit 1; " + script;
}

// The addresses in `output` of "$N = (T *) 0x... <name>" lines, and the debug registers that
// "monitor debug-registers" printed.
void ExpectWatched(const std::string& output) {
  std::vector<std::string> addresses;
  const std::regex pointer_any(R"((0x[0-9a-f]+) <gdb_(value|counter|hit)[>(])");
  for (auto it = std::sregex_iterator(output.begin(), output.end(), pointer_any);
       it != std::sregex_iterator(); ++it) {
    addresses.push_back((*it)[1]);
  }
  ASSERT_GE(addresses.size(), 3u) << output;
  std::string registers;
  const std::regex debug_register(R"(dr([0-3]) (0x[0-9a-f]+))");
  for (auto it = std::sregex_iterator(output.begin(), output.end(), debug_register);
       it != std::sregex_iterator(); ++it) {
    registers += (*it)[2].str() + " ";
  }
  for (size_t i = 0; i < 3; ++i)
    EXPECT_NE(registers.find(addresses[i] + " "), std::string::npos)
        << addresses[i] << " is in no debug register: " << registers;
  // DR7: four slots enabled: a 4-byte write watch (RW 01, LEN 11), an 8-byte access watch (RW 11,
  // LEN 10), a 4-byte read watch (which the CPU can only do as access, RW 11, LEN 11) and an
  // execute breakpoint (RW 00, LEN 00).
  std::smatch dr7;
  ASSERT_TRUE(std::regex_search(output, dr7, std::regex(R"(dr7 (0x[0-9a-f]+))"))) << output;
  const unsigned long long value = std::stoull(dr7[1], nullptr, 16);
  std::vector<unsigned> kinds;
  for (unsigned slot = 0; slot < 4; ++slot)
    if (value >> (2 * slot) & 1) kinds.push_back(value >> (16 + 4 * slot) & 0xF);
  std::sort(kinds.begin(), kinds.end());
  EXPECT_EQ(kinds, (std::vector<unsigned>{0x0, 0xB, 0xD, 0xF})) << "dr7 " << dr7[1];
}

const Row kRows[] = {
    {"BreakContinueBacktrace",
     "gdb localhost {inferior} count 5",
     {"break gdb_hit", "continue", "backtrace", "continue", "print i", "print gdb_counter",
      "delete", "continue"},
     {R"(Breakpoint 1 at 0x[0-9a-f]+: file .*gdb_inferior\.cpp)",
      R"(Breakpoint 1, gdb_hit \(i=0\))", R"(#0 +gdb_hit \(i=0\) at .*gdb_inferior\.cpp:\d+)",
      R"(#1 +0x[0-9a-f]+ in main \(argc=3)", R"(Breakpoint 1, gdb_hit \(i=1\))", R"(\$1 = 1)",
      R"(\$2 = 0)", R"(done 10)", R"(\[Inferior 1 \(.*\) exited with code 03\])"}},
    {"SetGlobalThenSoftwareWatchpointOnAWrite",
     "gdb localhost {inferior} count 2",
     {"set can-use-hw-watchpoints 0", "break gdb_store", "continue", "print gdb_value",
      "set var gdb_value = 1234", "print gdb_value", "print/x gdb_value", "info registers rip",
      "watch gdb_value", "continue"},
     {R"(Breakpoint 1, gdb_store \(v=42\))", R"(\$1 = 7)", R"(\$2 = 1234)", R"(\$3 = 0x4d2)",
      R"(rip +0x[0-9a-f]+ +0x[0-9a-f]+ <gdb_store\(int\)\+\d+>)", R"(Watchpoint 2: gdb_value)",
      R"(Watchpoint 2: gdb_value\s+Old value = 1234\s+New value = 42)"}},
    {"StepAndFinish",
     "gdb localhost {inferior} count 3",
     {"tbreak gdb_hit", "continue", "finish", "step", "step", "print i"},
     {R"(gdb_hit \(i=0\))", R"(main \(argc=3)", R"(gdb_hit \(i=1\) at .*gdb_inferior\.cpp)",
      R"(\$1 = 1)"}},
    {"HardwarePointsProgramTheDebugRegisters",
     "gdb localhost {inferior} count 2",
     {"break gdb_store", "continue", "set breakpoint always-inserted on", "watch gdb_value",
      "awatch gdb_counter", "rwatch gdb_value", "hbreak *gdb_hit", "print &gdb_value",
      "print &gdb_counter", "print gdb_hit", "monitor debug-registers", "delete",
      "monitor debug-registers"},
     {R"(Hardware watchpoint 2: gdb_value)", R"(Hardware access \(read/write\) watchpoint 3)",
      R"(Hardware read watchpoint 4: gdb_value)", R"(Hardware assisted breakpoint 5 at)",
      R"(dr7 0x[0-9a-f]+)", R"(dr0 0x0\s)"},
     After::kNothing,
     ExpectWatched},
    {"ThreadsOfAThreadedProgram",
     "gdb localhost {inferior} threads 3",
     {"break gdb_threads_ready", "continue", "info threads", "kill"},
     {R"(hit Breakpoint 1, gdb_threads_ready)", R"(\* 1 +Thread [0-9a-f.]+ .*gdb_threads_ready)",
      R"(\n +4 +Thread )"}},
    {"InterruptARunningLoop",
     "gdb localhost {inferior} loop {tag}",
     // Ctrl-C a second into the run (past the loader's stops): gdb sends 0x03.
     {"break main", "continue", "delete",
      "python import threading, os, signal; threading.Timer(1.0, lambda: os.kill(os.getpid(), "
      "signal.SIGINT)).start()",
      "continue", "print gdb_counter > 0", "kill"},
     {R"(Breakpoint 1, main)", R"(Program received signal SIGINT)", R"(\$1 = true)",
      R"(\[Inferior 1 \(.*\) killed\])"},
     After::kGone},
    {"DetachLeavesTheProgramRunning",
     "gdb localhost {inferior} loop {tag}",
     {"print gdb_counter", "detach"},
     {R"(\$1 = 0)", R"(\[Inferior 1 \(.*\) detached\])"},
     After::kStillRunning},
    {"VirtualProcessRegistersAndMemory",
     "gdb devkit-alpha /app/sample.elf",
     {"x/s 0x404000", "print/x $rip", "print/x $rsp", "x/4xb 0x401000",
      "set var *(char*)0x404000 = 'J'", "x/s 0x404000", "info threads"},
     {R"(0x404000:\s+"Hello from sample")", R"(\$1 = 0x401000)", R"(\$2 = 0x7ffff000)",
      R"(0x401000:\s+0x55\s+0x48\s+0x89\s+0xe5)", R"(0x404000:\s+"Jello from sample")",
      R"(Thread [0-9a-f]+ "main")", R"(Thread [0-9a-f]+ "worker")"}},
    {"LldbBreakBacktraceAndGlobal",
     "lldb localhost {inferior} count 3",
     {"breakpoint set -n gdb_hit", "continue", "continue", "bt", "target variable gdb_counter",
      "process kill"},
     {R"(Breakpoint 1: where = gdb_inferior`::gdb_hit\(int\))", R"(stop reason = breakpoint 1)",
      R"(frame #0: 0x[0-9a-f]+ gdb_inferior`::gdb_hit\(i=1\))", R"(frame #1: .*`main)",
      R"(\(volatile long\) gdb_counter = 0)", R"(Process \d+ exited with status = 9)"}},
    {"LldbVirtualProcessRegistersAndMemory",
     "lldb devkit-alpha /app/sample.elf",
     {"register read rip rsp", "memory read --format s 0x404000"},
     {R"(rip = 0x0000000000401000)", R"(rsp = 0x000000007ffff000)", R"("Hello from sample")"}},
};

// One test per row, so that ctest runs them side by side.
class DebuggerSessionTest : public qv::servertest::ServerTest,
                            public ::testing::WithParamInterface<Row> {
 protected:
  DebuggerSessionTest() : ServerTest(qv::platform::CurrentUserName()) {}
  void SetUp() override {}
};

TEST_P(DebuggerSessionTest, Session) {
  const Row& row = GetParam();
  std::istringstream words(row.session);
  std::string tool, target, program, word;
  words >> tool >> target;
  while (words >> word)
    program += " " + Quoted(Substituted(word));
  if (!Installed(tool)) GTEST_SKIP() << tool << " is not installed: not tested";
  if (target == "localhost" && !PtraceAllowed())
    GTEST_SKIP() << "this process may not trace its children: not tested";
  ASSERT_NO_FATAL_FAILURE(StartServer(/*built_in=*/true));
  const std::string out = (TestRoot() / "debugger.out").string();
  const std::string script = Script(tool, target, program, row, out);
  std::system(script.c_str());
  const std::string output = ReadText(out);
  size_t from = 0;
  for (const std::string& pattern : row.expected) {
    std::smatch match;
    const std::string rest = output.substr(from);
    ASSERT_TRUE(std::regex_search(rest, match, std::regex(pattern)))
        << "no /" << pattern << "/ after offset " << from << " in:\n"
        << output << "\nscript: " << script;
    from += static_cast<size_t>(match.position(0) + match.length(0));
  }
  if (row.check) row.check(output);
  const std::string inferior = std::string(VEKX_GDB_INFERIOR) + " loop " + Tag();
  if (row.after == After::kStillRunning) {
    EXPECT_TRUE(Running(inferior)) << "a detached program runs on";
    std::system(("pkill -KILL -f " + Quoted("^" + inferior)).c_str());
  }
  if (row.after == After::kGone) {
    EXPECT_TRUE(qv::servertest::WaitUntil([&] { return !Running(inferior); }, 5000))
        << "a killed program is gone";
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, DebuggerSessionTest, ::testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
