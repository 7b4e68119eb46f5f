// Bulk reads through the public objects: IProcess::GetMemory of 64 KiB, 1 MiB and 16 MiB from a
// virtual process of the real vesta-kx, beside a raw Unix-socket transfer of the same sizes (a
// small request, then the bytes back) measured in the same run.
//
//   BM_RawBulk/SIZE      the floor: a forked child answers each small request with SIZE bytes
//   BM_RawBulkWide/SIZE  the same over sockets with the send buffer the pipes ask for
//   BM_GetMemory/SIZE    GetMemory(base, SIZE) of a stopped process, the bytes in a safe array
//
// Every benchmark reports reads/s as items_per_second, bytes/s, and p50/p99 of one read in
// microseconds; the ratio of GetMemory's rate to the floor's is printed at the end for each size.
// Run it pinned to one core (taskset -c 0) and unpinned: the README keeps both.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench_floor.h"
#include "bench_server_process.h"
#include "platform/pipe.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/variant.h"
#include "vekxapi/vekxapi.h"

namespace {

using qv::bench::Clock;
using qv::bench::Microseconds;

constexpr int64_t kSizes[] = {64 << 10, 1 << 20, 16 << 20};
constexpr uint64_t kBase = 0x10000000;
// What a GET_MEMORY request frame and the head of its response take around the bytes.
constexpr size_t kRequestBytes = 40;
constexpr size_t kResponseHead = 40;

constexpr char kScenario[] = R"(kits:
  - host: bench-kit
    power: on
    timings: {connect_ms: 1}
    images:
      - path: /app/bench.elf
        entry: 0x10000000
        regions:
          - {base: 0x10000000, fill: "a5 5a", size: 16777216}
)";

qv::bench::BulkFloors g_floors;
vekx::ComPtr<IProcess> g_process;

void BM_RawBulk(benchmark::State& state) {
  g_floors.Measure(state, false);
}

void BM_RawBulkWide(benchmark::State& state) {
  g_floors.Measure(state, true);
}

void BM_GetMemory(benchmark::State& state) {
  auto samples = qv::bench::SampleStorage(state);
  const auto size = static_cast<ULONG>(state.range(0));
  for (auto _ : state) {
    const auto start = Clock::now();
    vekx::Variant bytes;
    ULONG bad = 0;
    if (g_process->GetMemory(kBase, size, &bad, bytes.Put()) != S_OK || bad != 0) {
      state.SkipWithError("GetMemory failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
  qv::bench::ReportLatency(state, samples);
}

BENCHMARK(BM_RawBulk)->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2])->UseRealTime();
BENCHMARK(BM_RawBulkWide)->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2])->UseRealTime();
BENCHMARK(BM_GetMemory)->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2])->UseRealTime();

void PrintRatios(const qv::bench::FigureReporter& reporter) {
  for (int64_t size : kSizes) {
    const std::string suffix = "/" + std::to_string(size) + "/real_time";
    const auto* raw = reporter.Find("BM_RawBulk" + suffix);
    const auto* wide = reporter.Find("BM_RawBulkWide" + suffix);
    const auto* reads = reporter.Find("BM_GetMemory" + suffix);
    if (raw == nullptr || wide == nullptr || reads == nullptr || raw->calls_per_second <= 0 ||
        wide->calls_per_second <= 0) {
      continue;
    }
    const double mib = static_cast<double>(size) / (1 << 20);
    std::fprintf(reporter.out(),
                 "%8.3f MiB: GetMemory %.0f MiB/s, raw %.0f MiB/s (ratio %.2f), raw with the "
                 "pipes' send buffer %.0f MiB/s (ratio %.2f); p50 %.0f us / %.0f us / %.0f us\n",
                 mib, reads->calls_per_second * mib, raw->calls_per_second * mib,
                 reads->calls_per_second / raw->calls_per_second, wide->calls_per_second * mib,
                 reads->calls_per_second / wide->calls_per_second, reads->p50, raw->p50, wide->p50);
  }
}

bool LoadProcess(const qv::bench::BenchServer& server, vekx::ComPtr<IVEKXAPI>& api) {
  if (!server.OpenRoot(api)) return false;
  vekx::ComPtr<ITarget> target;
  return api->AddTarget(vekx::Bstr::FromUtf8("bench-kit").Get(), target.Put()) == S_OK &&
         target->Connect() == S_OK &&
         target->LoadProcess(DEVICE_APP, vekx::Bstr::FromUtf8("/app/bench.elf").Get(), 1, 0,
                             nullptr, nullptr, g_process.Put()) == S_OK;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  // The floors' children are forked while this process still has one thread.
  if (!g_floors.Start({std::begin(kSizes), std::end(kSizes)}, kRequestBytes, kResponseHead,
                      qv::platform::Pipe::kSendBufferBytes)) {
    std::fprintf(stderr, "the bulk floor did not start\n");
    return 1;
  }

  qv::bench::BenchServer server;
  bool ok = server.Prepare("bench-memory") && server.StartOnScenario(kScenario);
  vekx::ComPtr<IVEKXAPI> api;
  if (ok && !LoadProcess(server, api)) {
    std::fprintf(stderr, "cannot load the process to read\n");
    ok = false;
  }
  if (ok) qv::bench::RunBenchmarks(format, PrintRatios);
  g_process.Reset();
  if (api) api->Dispose();
  ok = server.Finish(ok);
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
