// What legal large request frames cost the server in memory: clients, each on a connection of
// its own, send SET_MEMORY requests of FRAME MiB at the same time (to a kit without the process,
// so the server takes each apart and refuses it). Reported: the growth of vesta-kx's peak resident
// memory over its size before the run, against the floor of one copy of each frame the server
// lets in at once (two of the largest frames' worth; fewer when fewer are sent).
//
//   BM_LargeFrames/clients:C/frame_mib:F   an item is one frame
//
// The ratio is printed at the end: about 1 means a frame costs one copy of itself. Linux only
// (the peak is /proc/PID/status's VmHWM).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_floor.h"
#include "bench_server_process.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/frame.h"
#include "serverlink/server_link.h"

namespace {

// The frames the server takes in at once: its budget over the largest frame size.
constexpr size_t kFramesLetIn = 2;

qv::bench::BenchServer* g_server = nullptr;
std::vector<std::unique_ptr<qv::ServerLink>> g_links;
size_t g_rss_before = 0;
double g_ratio = 0;

// A field of /proc/PID/status in bytes ("VmRSS", "VmHWM"), or 0.
size_t StatusBytes(int pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::stoull(line.substr(field.size() + 1)) * 1024;
  }
  return 0;
}

void BM_LargeFrames(benchmark::State& state) {
  const auto clients = static_cast<size_t>(state.range(0));
  const size_t frame = static_cast<size_t>(state.range(1)) << 20;
  qv::CSetMemoryRequest request;
  request.ProcessID = 0xFFFFFF;
  // The request's own fields and header take 28 bytes of the frame.
  request.WriteData.assign(frame - 64, 0x5a);
  for (auto _ : state) {
    std::vector<std::thread> senders;
    bool refused = true;
    std::vector<char> answered(clients, 0);
    for (size_t i = 0; i < clients; ++i) {
      senders.emplace_back([&, i] {
        qv::CSetMemoryResponse response;
        uint32_t sequence = 0;
        answered[i] =
            g_links[i]->SendAndWait(1, request, response, sequence) == qv::LinkStatus::kSuccess &&
            response.Result != 0;
      });
    }
    for (std::thread& sender : senders)
      sender.join();
    for (char each : answered)
      refused = refused && each != 0;
    if (!refused) {
      state.SkipWithError("a frame was not answered with a refusal");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(clients));
  const size_t peak = StatusBytes(g_server->Pid(), "VmHWM");
  const double floor = static_cast<double>(frame * std::min(clients, kFramesLetIn));
  g_ratio = static_cast<double>(peak - std::min(peak, g_rss_before)) / floor;
  state.counters["peak_growth_mib"] =
      static_cast<double>(peak - std::min(peak, g_rss_before)) / (1 << 20);
  state.counters["growth_per_frame_let_in"] = g_ratio;
}
BENCHMARK(BM_LargeFrames)
    ->ArgNames({"clients", "frame_mib"})
    ->Args({4, 256})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  qv::bench::BenchServer server;
  g_server = &server;
  bool ok = server.Prepare("frames") && server.StartOnScenario({});
  for (int i = 0; ok && i < 4; ++i) {
    auto link = std::make_unique<qv::ServerLink>(
        qv::ResponseFactory(), qv::NotificationFactory(),
        qv::ServerLink::ServerNames{server.user(), server.run_dir()}, qv::ServerLink::Hooks{});
    ok = link->Connect() == qv::LinkStatus::kSuccess;
    g_links.push_back(std::move(link));
  }
  if (ok) {
    g_rss_before = StatusBytes(server.Pid(), "VmRSS");
    qv::bench::RunBenchmarks(format, [](const qv::bench::FigureReporter& reporter) {
      std::fprintf(reporter.out(), "ratio: peak growth / one copy of each frame let in = %.2f\n",
                   g_ratio);
    });
  }
  for (auto& link : g_links)
    link->Shutdown();
  g_links.clear();
  ok = server.Finish(ok);
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
