// Encoding and decoding cost of the wire, against memcpy of the same bytes in the same run.
//
//   small request:  a GET_MEMORY request (three integers) into a reused buffer, and back
//   1 MiB array:    a GENERIC_PROTOCOL_WRITE request carrying 1 MiB of data, and back
//
// After the runs, the ratio of each benchmark to its memcpy floor is printed.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "requests/catalogue.h"

namespace {

constexpr size_t kLargeBytes = 1 << 20;

qv::CGetMemoryRequest SmallRequest() {
  qv::CGetMemoryRequest request;
  request.ProcessID = 42;
  request.BaseAddress = 0x7FFF00001000;
  request.Size = 4096;
  return request;
}

void BM_EncodeSmallRequest(benchmark::State& state) {
  const auto request = SmallRequest();
  qv::MessageBuffer buffer;
  for (auto _ : state) {
    buffer.Reset();
    benchmark::DoNotOptimize(request.Serialize(buffer));
    benchmark::ClobberMemory();
  }
}

// Puts the read position back to the start of the bytes already in `buffer`, as the read thread
// does when a frame body lands in its reused input buffer.
void Rewind(qv::MessageBuffer& buffer, size_t size) {
  buffer.Reset();
  buffer.Reserve(size);
}

void BM_DecodeSmallRequest(benchmark::State& state) {
  qv::MessageBuffer buffer;
  SmallRequest().Serialize(buffer);
  const size_t size = buffer.Size();
  for (auto _ : state) {
    Rewind(buffer, size);
    qv::CGetMemoryRequest request;
    benchmark::DoNotOptimize(request.Deserialize(buffer));
    benchmark::DoNotOptimize(request.Size);
  }
}

// The floor for the small request: copying its 16 encoded bytes.
void BM_MemcpySmall(benchmark::State& state) {
  unsigned char source[16] = {1}, dest[16];
  for (auto _ : state) {
    benchmark::DoNotOptimize(source);
    std::memcpy(dest, source, sizeof dest);
    benchmark::DoNotOptimize(dest);
    benchmark::ClobberMemory();
  }
}

void BM_EncodeLargeArray(benchmark::State& state) {
  qv::CGenericProtocolWriteRequest request;
  request.Protocol = 7;
  request.Data.assign(kLargeBytes, 0x5A);
  qv::MessageBuffer buffer;
  for (auto _ : state) {
    buffer.Reset();
    benchmark::DoNotOptimize(request.Serialize(buffer));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLargeBytes));
}

// Decoding from a buffer the caller already holds, which is what the read thread does: the
// frame body is read straight into the buffer, so the decode is the only copy.
void BM_DecodeLargeArray(benchmark::State& state) {
  qv::CGenericProtocolWriteRequest source;
  source.Data.assign(kLargeBytes, 0x5A);
  qv::MessageBuffer encoded;
  source.Serialize(encoded);
  const size_t size = encoded.Size();
  qv::CGenericProtocolWriteRequest request;
  for (auto _ : state) {
    Rewind(encoded, size);
    benchmark::DoNotOptimize(request.Deserialize(encoded));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLargeBytes));
}

void BM_MemcpyLarge(benchmark::State& state) {
  std::vector<unsigned char> source(kLargeBytes, 0x5A), dest(kLargeBytes);
  for (auto _ : state) {
    std::memcpy(dest.data(), source.data(), kLargeBytes);
    benchmark::DoNotOptimize(dest.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLargeBytes));
}

BENCHMARK(BM_MemcpySmall);
BENCHMARK(BM_EncodeSmallRequest);
BENCHMARK(BM_DecodeSmallRequest);
BENCHMARK(BM_MemcpyLarge);
BENCHMARK(BM_EncodeLargeArray);
BENCHMARK(BM_DecodeLargeArray);

// Collects each run's time per iteration so the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      times_[run.benchmark_name()] = run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    const std::pair<const char*, const char*> pairs[] = {
        {"BM_EncodeSmallRequest", "BM_MemcpySmall"},
        {"BM_DecodeSmallRequest", "BM_MemcpySmall"},
        {"BM_EncodeLargeArray", "BM_MemcpyLarge"},
        {"BM_DecodeLargeArray", "BM_MemcpyLarge"},
    };
    for (const auto& [measured, floor] : pairs) {
      const auto m = times_.find(measured);
      const auto f = times_.find(floor);
      if (m == times_.end() || f == times_.end() || f->second <= 0) continue;
      std::printf("ratio %-28s / %-16s = %.2f\n", measured, floor, m->second / f->second);
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
