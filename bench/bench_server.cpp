// The real vesta-kx, started by this process on a scenario of 1,000 virtual kits, against raw
// socket ping-pongs measured in the same run.
//
//   BM_RawPingPong/threads:N   the floor: N threads, each on its own socket pair to one child
//                              process that serves every pair with a thread, exchange messages
//                              the size of a POWER_STATUS request and response frame
//   BM_TargetList              GET_TARGET_LIST, answered with the 1,000 handles
//   BM_StatusOfEveryTarget     POWER_STATUS of each of the 1,000 targets in turn (an item is
//                              one request)
//   BM_SmallRequests/threads:N N clients, each with a connection of its own, calling
//                              POWER_STATUS in a loop
//
// Every benchmark reports requests/s as items_per_second and p50/p99 of one round trip in
// microseconds (over all threads together). The ratios against the floor are printed at the end
// (to stderr with --benchmark_format=json).
//
// The server runs in a runtime directory of its own under a user name of its own, so it meets no
// other server; its output goes to bench_server.out in that directory, which is removed at the end.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_floor.h"
#include "bench_server_process.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/frame.h"
#include "serverlink/server_link.h"
#include "serverlink/wire_fields.h"

namespace {

using qv::bench::Clock;
using qv::bench::Microseconds;

constexpr size_t kKits = 1000;
constexpr int kClients = 16;

qv::bench::PingPongFloor g_floor;
std::vector<std::unique_ptr<qv::ServerLink>> g_links;  // one per client thread
std::vector<uint32_t> g_handles;                       // the scenario's targets

// Kits alternately on and off, with addresses in 10.0.0.0/16.
std::string ThousandKits() {
  std::string text = "kits:\n";
  for (size_t i = 0; i < kKits; ++i) {
    text += "  - host: kit-" + std::to_string(i) + "\n    power: " + (i % 2 ? "off" : "on") +
            "\n    address: 10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) +
            "\n";
  }
  return text;
}

// One call; false (and the benchmark skipped) when it failed.
template <class Response, class Request>
bool Call(benchmark::State& state, qv::ServerLink& link, uint32_t target, const Request& request,
          Response& response) {
  uint32_t sequence = 0;
  if (link.SendAndWait(target, request, response, sequence) != qv::LinkStatus::kSuccess ||
      response.Result != 0) {
    state.SkipWithError("a request failed");
    return false;
  }
  return true;
}

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

void BM_TargetList(benchmark::State& state) {
  const qv::CGetTargetListRequest request;
  qv::CGetTargetListResponse response;
  auto samples = qv::bench::SampleStorage(state);
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!Call(state, *g_links[0], qv::kNoTarget, request, response)) break;
    samples.push_back(Microseconds(Clock::now() - start));
    if (response.Targets.size() != kKits) {
      state.SkipWithError("the target list is not the scenario's");
      break;
    }
  }
  qv::bench::ReportLatency(state, samples);
}

void BM_StatusOfEveryTarget(benchmark::State& state) {
  const qv::CPowerStatusRequest request;
  qv::CPowerStatusResponse response;
  std::vector<double> samples;
  for (auto _ : state) {
    for (uint32_t handle : g_handles) {
      const auto start = Clock::now();
      if (!Call(state, *g_links[0], handle, request, response)) return;
      samples.push_back(Microseconds(Clock::now() - start));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(g_handles.size()));
  state.counters["p50_us"] = qv::bench::Quantile(samples, 0.50);
  state.counters["p99_us"] = qv::bench::Quantile(samples, 0.99);
}

void BM_SmallRequests(benchmark::State& state) {
  static qv::bench::SharedLatency latency;
  const qv::CPowerStatusRequest request;
  qv::CPowerStatusResponse response;
  qv::ServerLink& link = *g_links[static_cast<size_t>(state.thread_index())];
  // Each client asks about targets of its own, spread over the list.
  const uint32_t handle = g_handles[static_cast<size_t>(state.thread_index()) * 61 % kKits];
  auto samples = qv::bench::SampleStorage(state);
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!Call(state, link, handle, request, response)) break;
    samples.push_back(Microseconds(Clock::now() - start));
  }
  latency.Finish(state, samples);
}

BENCHMARK(BM_RawPingPong)
    ->Threads(1)
    ->Threads(kClients)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TargetList)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StatusOfEveryTarget)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmallRequests)
    ->Threads(1)
    ->Threads(kClients)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void PrintRatios(const qv::bench::FigureReporter& reporter) {
  std::FILE* out = reporter.out();
  const std::string one = "/real_time/threads:1";
  const std::string many = "/real_time/threads:" + std::to_string(kClients);
  const auto* floor = reporter.Find("BM_RawPingPong" + one);
  const auto* floor_many = reporter.Find("BM_RawPingPong" + many);
  if (floor == nullptr || floor->p50 <= 0 || floor->calls_per_second <= 0) return;
  std::fprintf(out, "floor: raw ping-pong p50 %.2f us, p99 %.2f us, %.0f calls/s\n", floor->p50,
               floor->p99, floor->calls_per_second);
  if (const auto* list = reporter.Find("BM_TargetList/real_time"); list != nullptr) {
    std::fprintf(out, "ratio GET_TARGET_LIST of %zu targets p50 / raw p50 = %.2f\n", kKits,
                 list->p50 / floor->p50);
  }
  if (const auto* every = reporter.Find("BM_StatusOfEveryTarget/real_time"); every != nullptr) {
    std::fprintf(
        out, "ratio POWER_STATUS of every target, p50 / raw p50 = %.2f (%.2f ms for all %zu)\n",
        every->p50 / floor->p50,
        every->calls_per_second > 0 ? 1000.0 * kKits / every->calls_per_second : 0.0, kKits);
  }
  const auto* single = reporter.Find("BM_SmallRequests" + one);
  const auto* clients = reporter.Find("BM_SmallRequests" + many);
  if (single != nullptr && single->p50 > 0) {
    std::fprintf(out, "ratio 1 client p50 / raw p50 = %.2f, requests/s / raw calls/s = %.2f\n",
                 single->p50 / floor->p50, single->calls_per_second / floor->calls_per_second);
  }
  if (clients != nullptr && floor_many != nullptr && floor_many->p50 > 0 &&
      floor_many->calls_per_second > 0) {
    std::fprintf(out, "floor: %d raw ping-pongs p50 %.2f us, p99 %.2f us, %.0f calls/s\n", kClients,
                 floor_many->p50, floor_many->p99, floor_many->calls_per_second);
    std::fprintf(out,
                 "ratio %d clients: requests/s / raw calls/s = %.2f, p50 / raw p50 = %.2f, "
                 "p99 / raw p99 = %.2f (%.0f requests/s)\n",
                 kClients, clients->calls_per_second / floor_many->calls_per_second,
                 clients->p50 / floor_many->p50, clients->p99 / floor_many->p99,
                 clients->calls_per_second);
  }
}

// Runs the benchmarks against the server of `user`; false when it cannot be reached.
bool RunAgainstServer(const std::u16string& user, const std::string& run_dir,
                      std::string_view format) {
  for (int i = 0; i < kClients; ++i) {
    auto link = std::make_unique<qv::ServerLink>(qv::ResponseFactory(), qv::NotificationFactory(),
                                                 qv::ServerLink::ServerNames{user, run_dir},
                                                 qv::ServerLink::Hooks{});
    if (link->Connect() != qv::LinkStatus::kSuccess) {
      std::fprintf(stderr, "cannot connect to vesta-kx\n");
      return false;
    }
    g_links.push_back(std::move(link));
  }
  qv::CGetTargetListResponse list;
  uint32_t sequence = 0;
  if (g_links[0]->SendAndWait(qv::kNoTarget, qv::CGetTargetListRequest{}, list, sequence) !=
          qv::LinkStatus::kSuccess ||
      list.Targets.size() != kKits) {
    std::fprintf(stderr, "vesta-kx does not serve the scenario's %zu targets\n", kKits);
    return false;
  }
  g_handles = list.Targets;
  qv::bench::RunBenchmarks(format, PrintRatios);
  for (auto& link : g_links)
    link->Shutdown();
  g_links.clear();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  // The floor's child is forked while this process still has one thread.
  const auto [request_bytes, response_bytes] = qv::bench::PowerStatusFrameSizes();
  if (!g_floor.Start(kClients, request_bytes, response_bytes)) {
    std::fprintf(stderr, "the ping-pong floor did not start\n");
    return 1;
  }

  qv::bench::BenchServer server;
  bool ok = server.Prepare("bench") && server.StartOnScenario(ThousandKits()) &&
            RunAgainstServer(server.user(), server.run_dir(), format);
  ok = server.Finish(ok);
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
