// The same gdb batch script against Debian's gdbserver and against vesta-gdbserver (through the
// library and vesta-kx to the local target), on the same program, in the same run:
//
//   BM_BreakpointLoop/gdbserver, /vesta   a breakpoint hit 1,000 times (gdb's ignore count: every
//                                         hit stops, and gdb resumes it)
//   BM_MemoryDump/gdbserver, /vesta       "dump binary memory" of a 16 MiB buffer
//
// gdb itself times the measured command (Python's perf_counter around it), so that starting gdb,
// the server and the program is not counted. The ratios vesta-gdbserver / gdbserver are printed
// at the end. Needs ptrace of children, gdb and gdbserver.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench_floor.h"

namespace {

constexpr int kHits = 1000;
constexpr int kDumpMiB = 16;
// Each iteration is a whole gdb session of seconds; gdb's own work dominates the dump.
constexpr int kLoopIterations = 3;
constexpr int kDumpIterations = 2;

std::filesystem::path g_root;

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The command gdb pipes to for `server` ("gdbserver" or "vesta") running the program with `args`.
std::string Remote(const std::string& server, const std::string& args) {
  const std::string program = Quoted(VEKX_GDB_INFERIOR) + " " + args;
  if (server == "gdbserver") return "target remote | gdbserver - " + program;
  return "target remote | " + Quoted(VEKX_GDBSERVER) + " localhost -- " + program;
}

// Runs gdb on `commands` around the measured one; the seconds it took, or a negative number.
double TimedSession(const std::string& remote, const std::vector<std::string>& setup,
                    const std::string& measured) {
  const auto out = g_root / "gdb.out";
  std::string script =
      "timeout 300 gdb -nx -batch -q -ex 'set confirm off' -ex 'set sysroot /' "
      "-ex 'set pagination off' -ex " +
      Quoted(remote);
  for (const std::string& command : setup)
    script += " -ex " + Quoted(command);
  script += " -ex 'python import time; vekx_t0 = time.perf_counter()' -ex " + Quoted(measured) +
            " -ex 'python print(\"vekx-elapsed %.6f\" % (time.perf_counter() - vekx_t0))'" +
            " -ex kill " + Quoted(VEKX_GDB_INFERIOR) + " >" + Quoted(out.string()) + " 2>&1";
  std::system(script.c_str());
  std::ifstream file(out);
  std::stringstream text;
  text << file.rdbuf();
  const std::string output = text.str();
  const size_t at = output.find("vekx-elapsed ");
  if (at == std::string::npos) {
    std::fprintf(stderr, "gdb did not finish the session:\n%s\n", output.c_str());
    return -1;
  }
  return std::strtod(output.c_str() + at + 13, nullptr);
}

void Measure(benchmark::State& state, const std::string& remote,
             const std::vector<std::string>& setup, const std::string& measured) {
  for (auto _ : state) {
    const double seconds = TimedSession(remote, setup, measured);
    if (seconds < 0) {
      state.SkipWithError("the gdb session failed");
      break;
    }
    state.SetIterationTime(seconds);
  }
}

void BM_BreakpointLoop(benchmark::State& state, const std::string& server) {
  Measure(state, Remote(server, "count " + std::to_string(kHits + 1)),
          {"break gdb_hit", "ignore 1 " + std::to_string(kHits - 1)}, "continue");
  state.SetItemsProcessed(state.iterations() * kHits);
}

void BM_MemoryDump(benchmark::State& state, const std::string& server) {
  const std::string file = (g_root / "dump.bin").string();
  Measure(state, Remote(server, "memory " + std::to_string(kDumpMiB)),
          {"break gdb_memory_ready", "continue"},
          "dump binary memory " + file + " buffer buffer+size");
  state.SetBytesProcessed(state.iterations() * (int64_t{kDumpMiB} << 20));
  state.SetItemsProcessed(state.iterations());  // dumps/s, for the ratio
}

BENCHMARK_CAPTURE(BM_BreakpointLoop, gdbserver, std::string("gdbserver"))
    ->UseManualTime()
    ->Iterations(kLoopIterations)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BreakpointLoop, vesta, std::string("vesta"))
    ->UseManualTime()
    ->Iterations(kLoopIterations)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MemoryDump, gdbserver, std::string("gdbserver"))
    ->UseManualTime()
    ->Iterations(kDumpIterations)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MemoryDump, vesta, std::string("vesta"))
    ->UseManualTime()
    ->Iterations(kDumpIterations)
    ->Unit(benchmark::kMillisecond);

void PrintRatios(const qv::bench::FigureReporter& reporter) {
  const std::pair<const char*, int> benchmarks[] = {{"BM_BreakpointLoop", kLoopIterations},
                                                    {"BM_MemoryDump", kDumpIterations}};
  for (const auto& [name, iterations] : benchmarks) {
    const std::string suffix = "/iterations:" + std::to_string(iterations) + "/manual_time";
    const auto* theirs = reporter.Find(std::string(name) + "/gdbserver" + suffix);
    const auto* ours = reporter.Find(std::string(name) + "/vesta" + suffix);
    if (theirs == nullptr || ours == nullptr || ours->calls_per_second <= 0) continue;
    std::fprintf(reporter.out(), "%s: vesta-gdbserver takes %.2fx gdbserver's time\n", name,
                 theirs->calls_per_second / ours->calls_per_second);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // A runtime directory of our own: the library starts its vesta-kx there, and it is stopped at
  // the end.
  g_root = std::filesystem::temp_directory_path() / ("vkx-gdb-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(g_root);
  std::filesystem::permissions(g_root, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::replace);
  setenv("XDG_RUNTIME_DIR", g_root.c_str(), 1);
  qv::bench::RunBenchmarks(format, PrintRatios);
  std::system((Quoted(VEKX_CTRL) + " server stop >/dev/null 2>&1").c_str());
  std::error_code ignored;
  std::filesystem::remove_all(g_root, ignored);
  benchmark::Shutdown();
  return 0;
}
