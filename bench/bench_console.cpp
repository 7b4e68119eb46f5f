// Console output from kit scripts to a host's IEventConsoleOutput sink through the public objects,
// beside a raw socket stream of the same frames with the same window of unacknowledged pieces,
// measured in the same run.
//
//   BM_RawConsoleStream/writers:W/bytes:B   the floor: W writer threads share one socket pair and
//                                           the server's window of unacknowledged pieces; this
//                                           thread reads each CONSOLE_OUTPUT-sized frame and
//                                           answers with an ACK_CONSOLE_OUTPUT-sized one
//   BM_ConsoleOutput/targets:T/bytes:B      T kits, each with a script that writes pieces of B
//                                           characters in bursts (together 1024 pieces every
//                                           2 ms); one root object (as a host has) advises one
//                                           sink on all T target objects
//   BM_ConsoleLatency/targets:T             T kits, each writing a piece a millisecond that
//                                           carries the server's steady clock; p50/p99 of the
//                                           time until the sink has it
//
// Every run of a public benchmark starts vesta-kx afresh, since a kit's script runs once per
// server. Each kit first fills its console cache, before the client advises it, as in a server that
// has been running: a fresh cache's first pieces cost the server new heap pages, once per target,
// that a running server no longer pays. The bursts come faster than the pieces can be delivered:
// the server keeps what waits for the client up to its backlog and drops the rest for that client,
// telling it how many in a notice, so the client is always behind and the stream runs as fast as
// the acknowledgements let it. An iteration is one piece written; items_per_second counts the
// pieces the sink was handed (bytes_per_second their text) and `dropped` the share of pieces
// dropped. The ratios against the floor are printed at the end (to stderr with
// --benchmark_format=json).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench_floor.h"
#include "bench_server_process.h"
#include "server/kits/console_cache.h"
#include "server/targets/console_pacing.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/vekxapi.h"

namespace {

using qv::bench::Clock;

constexpr int kManyTargets = 16;
constexpr int kSmallPiece = 16;
constexpr int kLargePiece = 1024;
// The server lets this many pieces to one client go unacknowledged.
constexpr size_t kWindow = qv::server::kConsoleInFlight;
// Pieces that wait for one client beyond the window, at most; the rest are dropped for it.
constexpr uint64_t kBacklog = qv::server::kConsoleBacklog;
constexpr uint32_t kBurstEveryMs = 2;
// Pieces a kit writes at server start, before any client listens: its console cache full.
constexpr uint32_t kCacheFill = qv::server::ConsoleCache::kDefaultSize;
// The first piece of every script: the pieces measured come after it, once every target is
// advised.
constexpr std::u16string_view kReadyText = u"ready";
constexpr uint32_t kReadyAfterMs = 100;
constexpr std::u16string_view kDropNotice = u"[vesta-kx: ";
// A run that sees no piece for this long has lost its server.
constexpr auto kStall = std::chrono::seconds(10);

qv::bench::BenchServer g_server;
// A benchmark skipped with an error fails the program, so that a smoke run notices.
std::atomic<bool> g_failed{false};

void Skip(benchmark::State& state, const std::string& why) {
  g_failed = true;
  state.SkipWithError(why.c_str());
}

uint64_t SteadyNanoseconds() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
          .count());
}

// The host's sink: counts what it is handed and, when asked, how long each piece took since the
// server wrote the steady clock at its start.
class CountingSink final : public vekx::EventSink<IEventConsoleOutput> {
 public:
  explicit CountingSink(bool timed) : timed_(timed) {}

  HRESULT STDMETHODCALLTYPE OnConsoleOutput(IConsoleOutputEvent* event) override {
    vekx::Bstr text;
    if (event->get_Text(text.Put()) != S_OK || text.Get() == nullptr) return S_OK;
    const std::u16string_view view(text.Get(), SysStringLen(text.Get()));
    double latency_us = -1;
    if (timed_ && !view.empty() && view[0] >= u'0' && view[0] <= u'9') {
      uint64_t written_ns = 0;
      for (size_t i = 0; i < view.size() && view[i] >= u'0' && view[i] <= u'9'; ++i)
        written_ns = written_ns * 10 + (view[i] - u'0');
      latency_us = static_cast<double>(SteadyNanoseconds() - written_ns) / 1000.0;
    }
    bool wake = false;
    {
      std::lock_guard lock(mutex_);
      if (view == kReadyText) {
        ++ready_;
        wake = true;
      } else if (view.starts_with(kDropNotice)) {
        // "[vesta-kx: N pieces of console output were not sent ..."
        uint64_t count = 0;
        for (size_t i = kDropNotice.size(); i < view.size() && view[i] >= u'0' && view[i] <= u'9';
             ++i)
          count = count * 10 + (view[i] - u'0');
        dropped_ += count;
      } else {
        ++delivered_;
        bytes_ += view.size();
        if (latency_us >= 0) latencies_us_.push_back(latency_us);
      }
      wake = wake || delivered_ + dropped_ >= wanted_;
    }
    // The measuring thread is woken only once what it waits for is there, not for every piece:
    // its wake-ups would otherwise take the CPU the delivery needs.
    if (wake) changed_.notify_all();
    return S_OK;
  }

  // Waits until the first script has begun; false after a stall.
  bool WaitReady() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kStall, [this] { return ready_ > 0; });
  }
  // Waits until `then` (at least `pieces`) written pieces have been handed over or reported
  // dropped and sets `accounted` to how many are; false after a stall.
  bool WaitAccounted(uint64_t pieces, uint64_t then, uint64_t& accounted) {
    std::unique_lock lock(mutex_);
    wanted_ = std::max(pieces, then);
    const bool came =
        changed_.wait_for(lock, kStall, [&] { return delivered_ + dropped_ >= wanted_; });
    accounted = delivered_ + dropped_;
    return came || accounted >= pieces;
  }

  struct Totals {
    uint64_t delivered = 0;
    uint64_t bytes = 0;
    uint64_t dropped = 0;
    std::vector<double> latencies_us;
  };
  Totals Take() {
    std::lock_guard lock(mutex_);
    return {delivered_, bytes_, dropped_, latencies_us_};
  }

 private:
  const bool timed_;
  std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t ready_ = 0;                // guarded by mutex_
  uint64_t wanted_ = 0;               // what the measuring thread waits for; guarded by mutex_
  uint64_t delivered_ = 0;            // guarded by mutex_
  uint64_t bytes_ = 0;                // guarded by mutex_
  uint64_t dropped_ = 0;              // guarded by mutex_
  std::vector<double> latencies_us_;  // guarded by mutex_
};

// `targets` kits; each fills its console cache at server start, and once advised writes "ready"
// after kReadyAfterMs, then at least `pieces` pieces of `text` in bursts of `burst`, one burst
// every `every_ms` (a script of its own, one round per burst, so that a long run's scenario stays
// small).
std::string ConsoleScenario(int targets, uint64_t pieces, const std::string& text, uint64_t burst,
                            uint32_t every_ms) {
  const auto step = [&text](uint32_t after_ms, uint64_t repeat) {
    return "          - notification: CONSOLE_OUTPUT\n            after_ms: " +
           std::to_string(after_ms) + "\n            repeat: " + std::to_string(repeat) +
           "\n            fields: {Port: 0, Category: 1, Text: \"" + text + "\"}\n";
  };
  const uint64_t bursts = (pieces + burst - 1) / burst;
  std::string scripts =
      "      - after_ms: " + std::to_string(kReadyAfterMs) +
      "\n        steps:\n          - notification: CONSOLE_OUTPUT\n" +
      "            fields: {Text: ready}\n" + "      - after_ms: " + std::to_string(kReadyAfterMs) +
      "\n        repeat: " + std::to_string(bursts) + "\n        steps:\n" + step(every_ms, 1);
  if (burst > 1) scripts += step(0, burst - 1);
  std::string yaml = "kits:\n";
  for (int i = 0; i < targets; ++i) {
    yaml += "  - host: kit-" + std::to_string(i) + "\n    power: on\n    scripts:\n" +
            "      - trigger: server_start\n        steps:\n" + step(0, kCacheFill) + scripts;
  }
  return yaml;
}

// One run of a public benchmark: vesta-kx on the scenario, one root object, a target object per
// kit, the sink advised on each. Stops the server at the end.
class ConsoleRun {
 public:
  ConsoleRun(benchmark::State& state, int targets, const std::string& scenario, CountingSink& sink)
      : state_(state) {
    if (!g_server.StartOnScenario(scenario)) {
      Fail("vesta-kx did not start");
      return;
    }
    if (!g_server.OpenRoot(api_)) {
      Fail("cannot make a root object");
      return;
    }
    for (int i = 0; i < targets; ++i) {
      const auto name = vekx::Bstr::FromUtf8("kit-" + std::to_string(i));
      vekx::ComPtr<ITarget> target;
      if (api_->AddTarget(name.Get(), target.Put()) != S_OK) {
        Fail("cannot add kit-" + std::to_string(i));
        return;
      }
      targets_.push_back(std::move(target));
    }
    for (const auto& target : targets_) {
      if (!CacheFilled(*target.Get()) || target->AdviseConsoleOutputEvents(&sink) != S_OK) {
        Fail("cannot advise the console output of a kit");
        return;
      }
    }
    if (!sink.WaitReady()) Fail("no console output came");
  }
  ~ConsoleRun() {
    targets_.clear();
    if (api_.Get() != nullptr) api_->Dispose();
    api_.Reset();
    if (!g_server.Finish(true)) g_failed = true;
  }
  bool ok() const { return ok_; }

 private:
  // Waits until the kit's start-up pieces are all in its console cache.
  static bool CacheFilled(ITarget& target) {
    const auto until = Clock::now() + kStall;
    ULONG index = 0;
    while (target.get_ConsoleCacheIndex(&index) == S_OK && index < kCacheFill) {
      if (Clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return index >= kCacheFill;
  }

  void Fail(const std::string& what) {
    ok_ = false;
    Skip(state_, what);
  }

  benchmark::State& state_;
  bool ok_ = true;
  vekx::ComPtr<IVEKXAPI> api_;
  std::vector<vekx::ComPtr<ITarget>> targets_;
};

uint64_t PiecesPerTarget(const benchmark::State& state, int targets) {
  const auto total = static_cast<uint64_t>(state.max_iterations);
  return (total + static_cast<uint64_t>(targets) - 1) / static_cast<uint64_t>(targets);
}

// The share of the pieces written that the server dropped for the client.
void ReportDropped(benchmark::State& state, const CountingSink::Totals& totals) {
  const uint64_t accounted = totals.delivered + totals.dropped;
  state.counters["dropped"] =
      accounted != 0 ? static_cast<double>(totals.dropped) / static_cast<double>(accounted) : 0.0;
}

void BM_RawConsoleStream(benchmark::State& state) {
  const auto writers = static_cast<size_t>(state.range(0));
  const auto text_length = static_cast<size_t>(state.range(1));
  const auto [frame_bytes, ack_bytes] = qv::bench::ConsoleOutputFrameSizes(text_length);
  qv::bench::WindowedStreamFloor floor;
  if (!floor.Start(writers, static_cast<size_t>(state.max_iterations), kWindow, frame_bytes,
                   ack_bytes)) {
    Skip(state, "no socket pair");
    return;
  }
  for (auto _ : state) {
    if (!floor.ReceiveOne()) {
      Skip(state, "the stream's socket failed");
      break;
    }
  }
  floor.Finish();
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text_length));
}

// Pieces the measuring thread lets arrive before it looks again.
constexpr uint64_t kPiecesPerWake = 64;

// One iteration per piece the server writes: waits until the sink has it (or its drop notice),
// looking once per kPiecesPerWake pieces.
void CountEachPiece(benchmark::State& state, CountingSink& sink) {
  const auto total = static_cast<uint64_t>(state.max_iterations);
  uint64_t written = 0;
  uint64_t accounted = 0;
  for (auto _ : state) {
    if (++written <= accounted) continue;
    if (!sink.WaitAccounted(written, std::min(total, written + kPiecesPerWake - 1), accounted)) {
      Skip(state, "console output stalled");
      break;
    }
  }
}

void BM_ConsoleOutput(benchmark::State& state) {
  const auto targets = static_cast<int>(state.range(0));
  const std::string text(static_cast<size_t>(state.range(1)), 'x');
  const auto sink_object = vekx::MakeSink<CountingSink>(false);
  CountingSink& sink = *sink_object.Get();
  // Together the kits fill the client's backlog every kBurstEveryMs: more than it can take, so
  // the server always has pieces waiting, without the scripts' thread taking a whole CPU.
  const uint64_t burst = kBacklog / static_cast<uint64_t>(targets);
  ConsoleRun run(
      state, targets,
      ConsoleScenario(targets, PiecesPerTarget(state, targets), text, burst, kBurstEveryMs), sink);
  if (!run.ok()) return;
  CountEachPiece(state, sink);
  const CountingSink::Totals totals = sink.Take();
  state.SetItemsProcessed(static_cast<int64_t>(totals.delivered));
  state.SetBytesProcessed(static_cast<int64_t>(totals.bytes));
  ReportDropped(state, totals);
}

void BM_ConsoleLatency(benchmark::State& state) {
  const auto targets = static_cast<int>(state.range(0));
  const auto sink_object = vekx::MakeSink<CountingSink>(true);
  CountingSink& sink = *sink_object.Get();
  ConsoleRun run(state, targets,
                 ConsoleScenario(targets, PiecesPerTarget(state, targets), "{time_ns}", 1, 1),
                 sink);
  if (!run.ok()) return;
  CountEachPiece(state, sink);
  CountingSink::Totals totals = sink.Take();
  qv::bench::ReportLatency(state, totals.latencies_us);
  state.SetItemsProcessed(static_cast<int64_t>(totals.delivered));
  ReportDropped(state, totals);
}

BENCHMARK(BM_RawConsoleStream)
    ->ArgNames({"writers", "bytes"})
    ->ArgsProduct({{1, kManyTargets}, {kSmallPiece, kLargePiece}})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConsoleOutput)
    ->ArgNames({"targets", "bytes"})
    ->ArgsProduct({{1, kManyTargets}, {kSmallPiece, kLargePiece}})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConsoleLatency)
    ->ArgNames({"targets"})
    ->Arg(1)
    ->Arg(kManyTargets)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void PrintRatios(const qv::bench::FigureReporter& reporter) {
  std::FILE* out = reporter.out();
  for (int bytes : {kSmallPiece, kLargePiece}) {
    const std::string size = "/bytes:" + std::to_string(bytes) + "/real_time";
    const auto* one_writer = reporter.Find("BM_RawConsoleStream/writers:1" + size);
    for (int count : {1, kManyTargets}) {
      const auto* raw =
          reporter.Find("BM_RawConsoleStream/writers:" + std::to_string(count) + size);
      const auto* api = reporter.Find("BM_ConsoleOutput/targets:" + std::to_string(count) + size);
      if (raw == nullptr || api == nullptr || raw->calls_per_second <= 0) continue;
      std::fprintf(out,
                   "ratio %d target(s), %d-byte pieces: pieces/s at the sink / raw stream's with "
                   "%d writer(s) = %.2f (%.0f against %.0f pieces/s; %.1f against %.1f MB/s of "
                   "text)\n",
                   count, bytes, count, api->calls_per_second / raw->calls_per_second,
                   api->calls_per_second, raw->calls_per_second,
                   api->calls_per_second * bytes / 1e6, raw->calls_per_second * bytes / 1e6);
      // The server writes to a client with one thread however many kits write: one writer is
      // the other floor for many targets.
      if (count != 1 && one_writer != nullptr && one_writer->calls_per_second > 0) {
        std::fprintf(out,
                     "ratio %d targets, %d-byte pieces: pieces/s at the sink / raw stream's with 1 "
                     "writer = %.2f\n",
                     count, bytes, api->calls_per_second / one_writer->calls_per_second);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (!g_server.Prepare("bench-console")) return 1;
  qv::bench::RunBenchmarks(format, PrintRatios);
  benchmark::Shutdown();
  return g_failed ? 1 : 0;
}
