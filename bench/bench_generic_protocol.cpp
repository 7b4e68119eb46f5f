// Generic protocol channels through the public objects: Write and Read of 64 KiB pieces to an
// echo and to a sink endpoint of the real vesta-kx, over one channel and over eight at once,
// beside a raw Unix-socket transfer of the same pieces measured in the same run.
//
//   BM_RawEcho        the floor for the echo: each piece to a forked child and back
//   BM_ChannelEcho    Write of a piece, then Reads until it is back
//   BM_RawSink        the floor for the sink: each piece to the child, a small answer back
//   BM_ChannelSink    Write of a piece
//
// With threads:8 each thread has a channel (and a socket pair) of its own. Every benchmark
// reports pieces/s as items_per_second, bytes/s, and p50/p99 of one piece in microseconds; the
// ratio of each channel's rate to its floor's is printed at the end.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench_floor.h"
#include "bench_server_process.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/variant.h"
#include "vekxapi/vekxapi.h"

namespace {

using qv::bench::Clock;
using qv::bench::Microseconds;

constexpr size_t kPiece = 64 * 1024;
constexpr size_t kChannels = 8;
// What a GENERIC_PROTOCOL_WRITE or _READ frame takes around its bytes, and a short answer.
constexpr size_t kFrameHead = 40;

// Echo endpoints 1 to 8, sinks 11 to 18.
std::string Scenario() {
  std::string text = "kits:\n  - host: bench-kit\n    power: on\n    protocols:\n";
  for (size_t i = 1; i <= kChannels; ++i) {
    text += "      - {number: " + std::to_string(i) + ", endpoint: echo}\n";
    text += "      - {number: " + std::to_string(10 + i) + ", endpoint: sink}\n";
  }
  return text;
}

class QuietSink : public vekx::EventSink<IEventGenericProtocol> {};

std::unique_ptr<qv::bench::PingPongFloor> g_echo_floor;
std::unique_ptr<qv::bench::PingPongFloor> g_sink_floor;
std::vector<vekx::ComPtr<IGenericProtocol>> g_echo;  // one per thread
std::vector<vekx::ComPtr<IGenericProtocol>> g_sink;
vekx::Variant g_piece;
vekx::ComPtr<ITarget8> g_target;

void Finish(benchmark::State& state, std::vector<double>& samples) {
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kPiece));
  qv::bench::ReportLatency(state, samples);
}

void RawFloor(benchmark::State& state, qv::bench::PingPongFloor& floor) {
  auto samples = qv::bench::SampleStorage(state);
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!floor.RoundTrip(static_cast<size_t>(state.thread_index()))) {
      state.SkipWithError("the raw socket failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  Finish(state, samples);
}

void BM_RawEcho(benchmark::State& state) {
  RawFloor(state, *g_echo_floor);
}

void BM_RawSink(benchmark::State& state) {
  RawFloor(state, *g_sink_floor);
}

// Writes the whole piece: a short write (flow control) is followed by the rest.
bool WritePiece(IGenericProtocol& channel) {
  for (LONG offset = 0; offset < static_cast<LONG>(kPiece);) {
    ULONG written = 0;
    if (channel.Write(g_piece.Get(), offset, &written) != S_OK) return false;
    offset += static_cast<LONG>(written);
  }
  return true;
}

void BM_ChannelEcho(benchmark::State& state) {
  auto samples = qv::bench::SampleStorage(state);
  IGenericProtocol& channel = *g_echo[static_cast<size_t>(state.thread_index())].Get();
  for (auto _ : state) {
    const auto start = Clock::now();
    bool ok = WritePiece(channel);
    for (size_t back = 0; ok && back < kPiece;) {
      vekx::Variant data;
      ok = channel.Read(static_cast<ULONG>(kPiece - back), data.Put()) == S_OK &&
           data.Get().parray != nullptr;
      if (ok) back += data.Get().parray->rgsabound[0].cElements;
    }
    if (!ok) {
      state.SkipWithError("the echo channel failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  Finish(state, samples);
}

void BM_ChannelSink(benchmark::State& state) {
  auto samples = qv::bench::SampleStorage(state);
  IGenericProtocol& channel = *g_sink[static_cast<size_t>(state.thread_index())].Get();
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!WritePiece(channel)) {
      state.SkipWithError("the sink channel failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  Finish(state, samples);
}

BENCHMARK(BM_RawEcho)->UseRealTime()->Threads(1)->Threads(kChannels);
BENCHMARK(BM_ChannelEcho)->UseRealTime()->Threads(1)->Threads(kChannels);
BENCHMARK(BM_RawSink)->UseRealTime()->Threads(1)->Threads(kChannels);
BENCHMARK(BM_ChannelSink)->UseRealTime()->Threads(1)->Threads(kChannels);

void PrintRatios(const qv::bench::FigureReporter& reporter) {
  for (const char* kind : {"Echo", "Sink"}) {
    for (size_t threads : {size_t{1}, kChannels}) {
      const std::string suffix =
          std::string(kind) + "/real_time/threads:" + std::to_string(threads);
      const auto* raw = reporter.Find("BM_Raw" + suffix);
      const auto* channel = reporter.Find("BM_Channel" + suffix);
      if (raw == nullptr || channel == nullptr || raw->calls_per_second <= 0) continue;
      const double mib = static_cast<double>(kPiece) / (1 << 20);
      std::fprintf(reporter.out(),
                   "%s, %zu channel(s): %.0f MiB/s, raw %.0f MiB/s, ratio %.2f; p50 %.0f us / "
                   "raw %.0f us\n",
                   kind, threads, channel->calls_per_second * mib, raw->calls_per_second * mib,
                   channel->calls_per_second / raw->calls_per_second, channel->p50, raw->p50);
    }
  }
}

// A sink may be advised once per target: each channel opens with one of its own.
std::vector<vekx::ComPtr<QuietSink>> g_sinks;

bool OpenChannels(const qv::bench::BenchServer& server, vekx::ComPtr<IVEKXAPI>& api) {
  if (!server.OpenRoot(api)) return false;
  vekx::ComPtr<ITarget> target;
  if (api->AddTarget(vekx::Bstr::FromUtf8("bench-kit").Get(), target.Put()) != S_OK ||
      target.QueryInto(IID_ITarget8, g_target) != S_OK) {
    return false;
  }
  for (uint32_t i = 1; i <= kChannels; ++i) {
    g_echo.emplace_back();
    g_sink.emplace_back();
    g_sinks.push_back(vekx::MakeSink<QuietSink>());
    g_sinks.push_back(vekx::MakeSink<QuietSink>());
    if (g_target->OpenGenericProtocol(i, g_sinks[g_sinks.size() - 2].Get(), g_echo.back().Put()) !=
            S_OK ||
        g_target->OpenGenericProtocol(10 + i, g_sinks.back().Get(), g_sink.back().Put()) != S_OK) {
      return false;
    }
  }
  SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(kPiece));
  void* data = nullptr;
  if (array == nullptr || SafeArrayAccessData(array, &data) != S_OK) return false;
  std::memset(data, 0xa5, kPiece);
  SafeArrayUnaccessData(array);
  VARIANT* slot = g_piece.Put();
  slot->vt = VT_ARRAY | VT_UI1;
  slot->parray = array;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  // The floors' children are forked while this process still has one thread.
  g_echo_floor = std::make_unique<qv::bench::PingPongFloor>();
  g_sink_floor = std::make_unique<qv::bench::PingPongFloor>();
  if (!g_echo_floor->Start(kChannels, kPiece + kFrameHead, kPiece + kFrameHead) ||
      !g_sink_floor->Start(kChannels, kPiece + kFrameHead, kFrameHead)) {
    std::fprintf(stderr, "the raw floor did not start\n");
    return 1;
  }

  qv::bench::BenchServer server;
  bool ok = server.Prepare("bench-protocol") && server.StartOnScenario(Scenario());
  vekx::ComPtr<IVEKXAPI> api;
  if (ok && !OpenChannels(server, api)) {
    std::fprintf(stderr, "cannot open the channels\n");
    ok = false;
  }
  if (ok) qv::bench::RunBenchmarks(format, PrintRatios);
  g_echo.clear();
  g_sink.clear();
  // An advised sink holds the private client: unadvised before the root goes.
  for (const auto& sink : g_sinks) {
    if (g_target) g_target->UnadviseGenericProtocolEvents(sink.Get());
  }
  g_sinks.clear();
  g_target.Reset();
  if (api) api->Dispose();
  ok = server.Finish(ok);
  // The sink floor's child holds the echo floor's sockets: it goes first.
  g_sink_floor.reset();
  g_echo_floor.reset();
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
