// The local target against what the kernel does in this process alone: a real program under
// vesta-kx's ptrace backend, read and stopped through the public objects.
//
//   BM_GetMemory/SIZE          IProcess::GetMemory of SIZE bytes of the program's buffer
//   BM_ProcessVmReadv/SIZE     the floor: process_vm_readv of the same bytes, from here
//   BM_RawBulk/SIZE            the transport's floor: a forked child answers a small request
//                              with SIZE bytes over a Unix socket pair (as bench_get_memory)
//   BM_RawBulkWide/SIZE        the same over sockets with the send buffer the pipes ask for
//   BM_BreakpointRoundTrip     Resume until the Debug sink hears the next STOP_NOTIFICATION of a
//                              breakpoint the program hits at once (stepping over it on the way)
//   BM_PtraceBreakpointFloor   the floor: a bare ptrace loop in this process doing the same on a
//                              child of its own (int3 hit, rip back, original byte, one step,
//                              int3 again)
//
// The program is this executable itself, started with --debuggee: it fills a 16 MiB buffer and
// then calls a function in a loop. Where those lie in it is where they lie in this process, moved
// by the difference of the two load addresses. Each benchmark reports calls/s as
// items_per_second and p50/p99 in microseconds; the ratios are printed at the end. Run it pinned
// to one core (taskset -c 0) and unpinned: the README keeps both.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench_floor.h"
#include "bench_server_process.h"
#include "platform/pipe.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/variant.h"
#include "vekxapi/vekxapi.h"

namespace {

using qv::bench::Clock;
using qv::bench::Microseconds;

constexpr int64_t kSizes[] = {1 << 20, 16 << 20};
constexpr size_t kBufferSize = 16 << 20;
// What a GET_MEMORY request frame and the head of its response take around the bytes.
constexpr size_t kRequestBytes = 40;
constexpr size_t kResponseHead = 40;

// The debuggee's: filled before the loop, so that every page is there to read.
unsigned char g_buffer[kBufferSize];
volatile unsigned long g_ticks = 0;

extern "C" __attribute__((noinline)) void vekx_bench_tick() {
  g_ticks = g_ticks + 1;
}

[[noreturn]] void Debuggee() {
  for (size_t i = 0; i < kBufferSize; ++i)
    g_buffer[i] = static_cast<unsigned char>(i * 7);
  for (;;)
    vekx_bench_tick();
}

// Where this executable was loaded: the lowest mapping of its own file. Not simply the first line
// of the maps: a sanitized build has its shadow memory mapped below the program.
uintptr_t OwnLoadBase() {
  char self[4096] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return 0;
  const std::string_view path(self);
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.size() > path.size() && line.ends_with(path) &&
        line[line.size() - path.size() - 1] == ' ') {
      return static_cast<uintptr_t>(std::stoull(line, nullptr, 16));
    }
  }
  return 0;
}

// --- The local target through the public objects ----------------------------------------------

// Counts the program's stops; the benchmark waits for the next.
class StopCounter : public vekx::EventSink<IEventDebug> {
 public:
  HRESULT STDMETHODCALLTYPE OnStopNotification(IStopNotificationEvent*) override {
    {
      std::lock_guard lock(mutex_);
      ++stops_;
    }
    changed_.notify_all();  // with the lock free, the waiter does not wake only to wait for it
    return S_OK;
  }
  // Waits until more than `seen` stops have come (up to 10 s); the count, or `seen` on a time-out.
  long WaitBeyond(long seen) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return stops_ > seen; });
    return stops_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  long stops_ = 0;
};

vekx::ComPtr<ITarget> g_target;
vekx::ComPtr<IProcess> g_process;
vekx::ComPtr<StopCounter> g_stops = vekx::MakeSink<StopCounter>();
long g_seen = 0;
pid_t g_pid = 0;
pid_t g_server_pid = 0;
uint64_t g_buffer_address = 0;

void BM_GetMemory(benchmark::State& state) {
  auto samples = qv::bench::SampleStorage(state);
  const auto size = static_cast<ULONG>(state.range(0));
  for (auto _ : state) {
    const auto start = Clock::now();
    vekx::Variant bytes;
    ULONG bad = 0;
    if (g_process->GetMemory(g_buffer_address, size, &bad, bytes.Put()) != S_OK || bad != 0) {
      state.SkipWithError("GetMemory failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
  qv::bench::ReportLatency(state, samples);
}

void BM_ProcessVmReadv(benchmark::State& state) {
  auto samples = qv::bench::SampleStorage(state);
  const auto size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    const auto start = Clock::now();
    // A fresh buffer each time, as GetMemory hands out one.
    std::vector<unsigned char> bytes(size);
    iovec local{bytes.data(), size};
    iovec remote{reinterpret_cast<void*>(g_buffer_address), size};
    if (process_vm_readv(g_pid, &local, 1, &remote, 1, 0) != static_cast<ssize_t>(size)) {
      state.SkipWithError("process_vm_readv failed");
      break;
    }
    benchmark::DoNotOptimize(bytes.data());
    samples.push_back(Microseconds(Clock::now() - start));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
  qv::bench::ReportLatency(state, samples);
}

qv::bench::BulkFloors g_bulk_floors;

void BM_RawBulk(benchmark::State& state) {
  g_bulk_floors.Measure(state, false);
}

void BM_RawBulkWide(benchmark::State& state) {
  g_bulk_floors.Measure(state, true);
}

// Context switches of every thread of `pid` so far (0 once it is gone). On a VM whose speed swings
// from one minute to the next, switches per round trip compare two builds where times cannot.
uint64_t ContextSwitches(pid_t pid) {
  uint64_t total = 0;
  std::error_code error;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream status(task.path() / "status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.find("ctxt_switches:") != std::string::npos)
        total += std::strtoull(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
  }
  return total;
}

// Switches per iteration of the processes taking part (this one included) as `switches`.
class SwitchCount {
 public:
  explicit SwitchCount(std::vector<pid_t> pids) : pids_(std::move(pids)), before_(Now()) {}
  void Report(benchmark::State& state) const {
    if (state.iterations() == 0) return;
    state.counters["switches"] =
        static_cast<double>(Now() - before_) / static_cast<double>(state.iterations());
  }

 private:
  uint64_t Now() const {
    uint64_t total = ContextSwitches(getpid());
    for (pid_t pid : pids_)
      total += ContextSwitches(pid);
    return total;
  }
  std::vector<pid_t> pids_;
  uint64_t before_;
};

void BM_BreakpointRoundTrip(benchmark::State& state) {
  auto samples = qv::bench::SampleStorage(state);
  const SwitchCount switches({g_server_pid, g_pid});
  for (auto _ : state) {
    const auto start = Clock::now();
    vekx::Variant failed;
    if (g_process->Resume(vekx::Variant().Get(), failed.Put()) != S_OK) {
      state.SkipWithError("Resume failed");
      break;
    }
    const long now = g_stops->WaitBeyond(g_seen);
    if (now == g_seen) {
      state.SkipWithError("no stop within 10 s");
      break;
    }
    g_seen = now;
    samples.push_back(Microseconds(Clock::now() - start));
  }
  switches.Report(state);
  qv::bench::ReportLatency(state, samples);
}

// --- The bare ptrace floor
// ------------------------------------------------------------------------

pid_t g_floor_child = 0;
uint64_t g_floor_tick = 0;
long g_floor_original = 0;  // the word at the tick, without the int3

bool WaitTrap(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP;
}

// Forked while this process has one thread: stops itself, traced, then loops.
bool StartFloor(uintptr_t tick) {
  g_floor_child = fork();
  if (g_floor_child < 0) return false;
  if (g_floor_child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    for (;;)
      vekx_bench_tick();
  }
  int status = 0;
  if (waitpid(g_floor_child, &status, 0) != g_floor_child || !WIFSTOPPED(status)) return false;
  g_floor_tick = tick;
  errno = 0;
  g_floor_original = ptrace(PTRACE_PEEKTEXT, g_floor_child, tick, nullptr);
  if (errno != 0) return false;
  const long patched = (g_floor_original & ~0xFFL) | 0xCC;
  return ptrace(PTRACE_POKETEXT, g_floor_child, tick, patched) == 0;
}

// From a stop on the int3 (or the first stop) to the next: what the backend does for a resume.
bool FloorRoundTrip() {
  user_regs_struct regs{};
  if (ptrace(PTRACE_GETREGS, g_floor_child, nullptr, &regs) != 0) return false;
  if (regs.rip == g_floor_tick + 1) {
    // On the breakpoint: back to its address, the original byte for one step, then the int3.
    regs.rip = g_floor_tick;
    const long patched = (g_floor_original & ~0xFFL) | 0xCC;
    if (ptrace(PTRACE_SETREGS, g_floor_child, nullptr, &regs) != 0 ||
        ptrace(PTRACE_POKETEXT, g_floor_child, g_floor_tick, g_floor_original) != 0 ||
        ptrace(PTRACE_SINGLESTEP, g_floor_child, nullptr, nullptr) != 0 ||
        !WaitTrap(g_floor_child) ||
        ptrace(PTRACE_POKETEXT, g_floor_child, g_floor_tick, patched) != 0) {
      return false;
    }
  }
  return ptrace(PTRACE_CONT, g_floor_child, nullptr, nullptr) == 0 && WaitTrap(g_floor_child);
}

void BM_PtraceBreakpointFloor(benchmark::State& state) {
  auto samples = qv::bench::SampleStorage(state);
  const SwitchCount switches({g_floor_child});
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!FloorRoundTrip()) {
      state.SkipWithError("the ptrace floor failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  switches.Report(state);
  qv::bench::ReportLatency(state, samples);
}

BENCHMARK(BM_ProcessVmReadv)->Arg(kSizes[0])->Arg(kSizes[1])->UseRealTime();
BENCHMARK(BM_RawBulk)->Arg(kSizes[0])->Arg(kSizes[1])->UseRealTime();
BENCHMARK(BM_RawBulkWide)->Arg(kSizes[0])->Arg(kSizes[1])->UseRealTime();
BENCHMARK(BM_GetMemory)->Arg(kSizes[0])->Arg(kSizes[1])->UseRealTime();
BENCHMARK(BM_PtraceBreakpointFloor)->UseRealTime();
BENCHMARK(BM_BreakpointRoundTrip)->UseRealTime();

void PrintRatios(const qv::bench::FigureReporter& reporter) {
  for (int64_t size : kSizes) {
    const std::string suffix = "/" + std::to_string(size) + "/real_time";
    const auto* floor = reporter.Find("BM_ProcessVmReadv" + suffix);
    const auto* raw = reporter.Find("BM_RawBulk" + suffix);
    const auto* wide = reporter.Find("BM_RawBulkWide" + suffix);
    const auto* reads = reporter.Find("BM_GetMemory" + suffix);
    if (floor == nullptr || raw == nullptr || wide == nullptr || reads == nullptr ||
        floor->calls_per_second <= 0 || raw->calls_per_second <= 0 || wide->calls_per_second <= 0) {
      continue;
    }
    const double mib = static_cast<double>(size) / (1 << 20);
    const double rate = reads->calls_per_second;
    std::fprintf(reporter.out(),
                 "%4.0f MiB: GetMemory %.0f MiB/s, process_vm_readv %.0f MiB/s (ratio %.2f), raw "
                 "socket %.0f MiB/s (ratio %.2f), with the pipes' send buffer %.0f MiB/s (ratio "
                 "%.2f); p50 %.0f us / %.0f us / %.0f us / %.0f us\n",
                 mib, rate * mib, floor->calls_per_second * mib, rate / floor->calls_per_second,
                 raw->calls_per_second * mib, rate / raw->calls_per_second,
                 wide->calls_per_second * mib, rate / wide->calls_per_second, reads->p50,
                 floor->p50, raw->p50, wide->p50);
  }
  const auto* floor = reporter.Find("BM_PtraceBreakpointFloor/real_time");
  const auto* trip = reporter.Find("BM_BreakpointRoundTrip/real_time");
  if (floor != nullptr && trip != nullptr && trip->p50 > 0) {
    std::fprintf(reporter.out(),
                 "breakpoint round trip: p50 %.1f us, bare ptrace %.1f us, %.2fx the floor "
                 "(%.0f/s against %.0f/s)\n",
                 trip->p50, floor->p50, trip->p50 / floor->p50, trip->calls_per_second,
                 floor->calls_per_second);
  }
}

bool Prepare(const qv::bench::BenchServer& server, vekx::ComPtr<IVEKXAPI>& api,
             uintptr_t own_base) {
  if (!server.OpenRoot(api) ||
      api->AddTarget(vekx::Bstr::FromUtf8("localhost").Get(), g_target.Put()) != S_OK ||
      g_target->Connect() != S_OK ||
      g_target->AdviseDebugEvents(static_cast<IEventDebug*>(g_stops.Get())) != S_OK) {
    return false;
  }
  char self[4096] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return false;
  if (g_target->LoadProcess(DEVICE_HOST, vekx::Bstr::FromUtf8(self).Get(), 1, 0,
                            vekx::Bstr::FromUtf8("--debuggee").Get(), nullptr,
                            g_process.Put()) != S_OK) {
    return false;
  }
  ULONG pid = 0;
  g_process->get_Id(&pid);
  g_pid = static_cast<pid_t>(pid);
  g_seen = g_stops->WaitBeyond(0);  // the stop at the entry
  // The program's load base: the lowest segment of its main module.
  vekx::Variant modules;
  if (g_process->get_Modules(modules.Put()) != S_OK) return false;
  std::vector<vekx::Variant> list;
  if (vekx::ArrayElements(modules.Get(), list) != S_OK) return false;
  uint64_t base = 0;
  for (const vekx::Variant& element : list) {
    vekx::ComPtr<IModule> module;
    element.Get().pdispVal->QueryInterface(IID_IModule, reinterpret_cast<void**>(module.Put()));
    eModuleTypes type{};
    module->get_Type(&type);
    if (type != MODULE_TYPE_EXECUTABLE) continue;
    module->get_Id(&base);  // the base of its first segment
  }
  if (base == 0) return false;
  const uint64_t tick = base + (reinterpret_cast<uintptr_t>(&vekx_bench_tick) - own_base);
  g_buffer_address = base + (reinterpret_cast<uintptr_t>(g_buffer) - own_base);
  vekx::Variant original;
  ULONG id = 0;
  if (g_process->SetSoftwareBreakpoint(0, tick, SWBREAKPT_ATTR_MODE, 0, vekx::Variant().Get(),
                                       original.Put(), &id) != S_OK) {
    return false;
  }
  // The first hit comes after the buffer is filled.
  vekx::Variant failed;
  if (g_process->Resume(vekx::Variant().Get(), failed.Put()) != S_OK) return false;
  const long now = g_stops->WaitBeyond(g_seen);
  if (now == g_seen) return false;
  g_seen = now;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--debuggee") == 0) Debuggee();
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  const uintptr_t own_base = OwnLoadBase();
  // The floors' children are forked while this process still has one thread.
  if (!g_bulk_floors.Start({std::begin(kSizes), std::end(kSizes)}, kRequestBytes, kResponseHead,
                           qv::platform::Pipe::kSendBufferBytes)) {
    std::fprintf(stderr, "the bulk floor did not start\n");
    return 1;
  }
  if (!StartFloor(reinterpret_cast<uintptr_t>(&vekx_bench_tick))) {
    std::fprintf(stderr, "the ptrace floor did not start (is ptrace permitted here?)\n");
    return 1;
  }
  qv::bench::BenchServer server;
  bool ok = server.Prepare("bench-local") && server.StartOnScenario("local: true\n");
  vekx::ComPtr<IVEKXAPI> api;
  if (ok && !Prepare(server, api, own_base)) {
    std::fprintf(stderr, "cannot load and stop the program to measure\n");
    ok = false;
  }
  g_server_pid = server.Pid();
  if (ok) qv::bench::RunBenchmarks(format, PrintRatios);
  if (g_process) g_process->Kill();
  g_process.Reset();
  if (g_target) g_target->UnadviseDebugEvents(static_cast<IEventDebug*>(g_stops.Get()));
  g_target.Reset();
  if (api) api->Dispose();
  ok = server.Finish(ok);
  kill(g_floor_child, SIGKILL);
  waitpid(g_floor_child, nullptr, 0);
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
