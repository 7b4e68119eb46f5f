// A trivial public call, ITarget::PowerStatus, through the whole library against the real
// vesta-kx, beside a raw socket ping-pong of the same frame sizes measured in the same run.
//
//   BM_RawPingPong/threads:N   the floor: N threads, each on its own socket pair to one child
//                              process that serves every pair with a thread
//   BM_PowerStatus/threads:N   N threads sharing one root object (one private client, one pipe),
//                              each asking its own target object for the power status in a loop
//
// Every benchmark reports calls/s as items_per_second and p50/p99 of one call in microseconds
// (over all threads together). The ratios against the floor are printed at the end (to stderr
// with --benchmark_format=json). The server runs on the built-in scenario, in a runtime directory
// of its own under a user name of its own, and is stopped at the end.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench_floor.h"
#include "bench_server_process.h"
#include "requests/catalogue.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace {

using qv::bench::Clock;
using qv::bench::Microseconds;

constexpr int kMostThreads = 8;

qv::bench::PingPongFloor g_floor;
vekx::ComPtr<IVEKXAPI> g_api;
std::vector<vekx::ComPtr<ITarget>> g_targets;  // one object per thread, all for the same kit

void BM_RawPingPong(benchmark::State& state) {
  static qv::bench::SharedLatency latency;
  auto samples = qv::bench::SampleStorage(state);
  const auto pair = static_cast<size_t>(state.thread_index());
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!g_floor.RoundTrip(pair)) {
      state.SkipWithError("the ping-pong socket failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  latency.Finish(state, samples);
}

void BM_PowerStatus(benchmark::State& state) {
  static qv::bench::SharedLatency latency;
  auto samples = qv::bench::SampleStorage(state);
  ITarget* target = g_targets[static_cast<size_t>(state.thread_index())].Get();
  ePowerStatus status = POWER_STATUS_UNKNOWN;
  for (auto _ : state) {
    const auto start = Clock::now();
    if (target->get_PowerStatus(&status) != S_OK) {
      state.SkipWithError("PowerStatus failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  latency.Finish(state, samples);
}

BENCHMARK(BM_RawPingPong)
    ->Threads(1)
    ->Threads(2)
    ->Threads(kMostThreads)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PowerStatus)
    ->Threads(1)
    ->Threads(2)
    ->Threads(kMostThreads)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void PrintRatios(const qv::bench::FigureReporter& reporter) {
  std::FILE* out = reporter.out();
  const auto* floor = reporter.Find("BM_RawPingPong/real_time/threads:1");
  const auto* one = reporter.Find("BM_PowerStatus/real_time/threads:1");
  if (floor == nullptr || one == nullptr || floor->p50 <= 0 || one->calls_per_second <= 0) return;
  std::fprintf(out, "floor: raw ping-pong p50 %.2f us, p99 %.2f us, %.0f calls/s\n", floor->p50,
               floor->p99, floor->calls_per_second);
  std::fprintf(out, "ratio PowerStatus p50 / raw p50 = %.2f, p99 / raw p99 = %.2f\n",
               one->p50 / floor->p50, one->p99 / floor->p99);
  for (int threads : {2, kMostThreads}) {
    const std::string suffix = "/real_time/threads:" + std::to_string(threads);
    const auto* calls = reporter.Find("BM_PowerStatus" + suffix);
    const auto* raw = reporter.Find("BM_RawPingPong" + suffix);
    if (calls == nullptr || raw == nullptr || raw->calls_per_second <= 0) continue;
    std::fprintf(out,
                 "ratio %d threads: calls/s / one thread's = %.2f, calls/s / raw calls/s with as "
                 "many threads = %.2f (%.0f calls/s)\n",
                 threads, calls->calls_per_second / one->calls_per_second,
                 calls->calls_per_second / raw->calls_per_second, calls->calls_per_second);
  }
}

// Makes the root object and one target object per thread for the server of `user`, runs the
// benchmarks and lets the objects go; false when the server cannot be used.
bool RunAgainstServer(const qv::bench::BenchServer& server, std::string_view format) {
  if (!server.OpenRoot(g_api)) {
    std::fprintf(stderr, "cannot make a root object\n");
    return false;
  }
  vekx::ComPtr<ITarget> first;
  if (g_api->get_DefaultTarget(first.Put()) != S_OK) {
    std::fprintf(stderr, "the built-in scenario has no default target\n");
    return false;
  }
  vekx::Bstr host;
  if (first->get_HostName(host.Put()) != S_OK) return false;
  for (int i = 0; i < kMostThreads; ++i) {
    vekx::ComPtr<ITarget> target;
    if (g_api->AddTarget(host.Get(), target.Put()) != S_OK) return false;
    g_targets.push_back(std::move(target));
  }
  qv::bench::RunBenchmarks(format, PrintRatios);
  g_targets.clear();
  g_api->Dispose();
  g_api.Reset();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  // The floor's child is forked while this process still has one thread.
  const auto [request_bytes, response_bytes] = qv::bench::PowerStatusFrameSizes();
  if (!g_floor.Start(kMostThreads, request_bytes, response_bytes)) {
    std::fprintf(stderr, "the ping-pong floor did not start\n");
    return 1;
  }

  qv::bench::BenchServer server;
  bool ok =
      server.Prepare("bench-api") && server.StartOnScenario({}) && RunAgainstServer(server, format);
  ok = server.Finish(ok);
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
