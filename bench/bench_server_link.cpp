// Round trips through the server link, against a raw socket ping-pong between the same two
// processes in the same run.
//
//   BM_RawPingPong          the floor: one thread sends a message the size of a request frame
//                           over a plain Unix socket pair and reads one the size of the response
//                           frame back
//   BM_LinkRoundTrip        one thread: SendAndWait of GET_SERVER_VERSION
//   BM_LinkCalls/threads:N  N threads sharing one link, each calling SendAndWait in a loop
//
// The echo server is a child process forked before this process starts any thread. It serves
// the link through the platform layer (the handshake, then for every request a response of the
// request's class with its sequence number, all answers to the requests of one read written
// together) and the ping-pong on the socket pair. The single-thread benchmarks report p50 and p99
// of their round trips in microseconds; every benchmark reports calls/s as items_per_second.
// After the runs the ratios against the floor are printed: to stdout after the console table, to
// stderr when the output is JSON so that stdout stays one document. With --benchmark_repetitions
// the ratios are those of the medians.
//
// Pin it to one CPU (taskset -c 0) to see the cost of the code rather than of cross-CPU wake-ups;
// the child inherits the pinning.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench_floor.h"
#include "platform/pipe.h"
#include "platform/process_identity.h"
#include "platform/server_process.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "requests/notifications.h"
#include "serverlink/frame.h"
#include "serverlink/handshake.h"
#include "serverlink/server_link.h"
#include "serverlink/wire_fields.h"

namespace {

namespace raw = qv::bench::raw;
using qv::bench::Clock;

// --- The child: an echo server for the link and the other end of the ping-pong ------------------

constexpr size_t kReadBytes = 64 * 1024;

using qv::platform::IoResult;

// Reads one whole frame's body (for the handshake, which is one frame each way).
bool ReadOneFrame(qv::platform::Pipe& pipe, const qv::platform::StopSignal& stop,
                  std::vector<uint8_t>& body) {
  uint8_t header[qv::kFrameHeaderBytes];
  uint32_t length = 0;
  if (pipe.ReadExact(header, sizeof header, stop) != IoResult::kOk ||
      qv::ParseFrameHeader(header, length) != qv::FrameHeaderCheck::kOk) {
    return false;
  }
  body.resize(length);
  return length == 0 || pipe.ReadExact(body.data(), length, stop) == IoResult::kOk;
}

bool WriteOneFrame(qv::platform::Pipe& pipe, const qv::platform::StopSignal& stop,
                   const qv::MessageBuffer& body) {
  const auto header = qv::EncodeFrameHeader(static_cast<uint32_t>(body.Size()));
  const std::span<const uint8_t> parts[] = {header, {body.Data(), body.Size()}};
  return pipe.Write(parts, stop) == IoResult::kOk;
}

// Appends to `out` the frame answering the request in `request` (its body); false when the
// request header cannot be read. An unknown type number goes unanswered.
bool Answer(qv::MessageBuffer& request, qv::MessageBuffer& body, qv::MessageBuffer& out) {
  uint32_t type_number = 0, target = 0, sequence = 0;
  if (!qv::ReadField(request, type_number) || !qv::ReadField(request, target) ||
      !qv::ReadField(request, sequence)) {
    return false;
  }
  if (auto decoded = qv::RequestFactory().Create(type_number)) decoded->Deserialize(request);
  const auto response = qv::ResponseFactory().Create(type_number);
  if (response == nullptr) return true;
  response->Sequence = sequence;
  body.Reset();
  if (!qv::WriteField(body, static_cast<uint32_t>(qv::IncomingKind::kResponse)) ||
      !qv::WriteField(body, type_number) || !response->Serialize(body)) {
    return false;
  }
  const auto header = qv::EncodeFrameHeader(static_cast<uint32_t>(body.Size()));
  return out.Write(header.data(), header.size()) && out.Write(body.Data(), body.Size());
}

// Serves one client on its private pipe until it leaves: reads whatever has arrived, answers
// every whole request in it, and writes the answers with one write.
void ServeRequests(qv::platform::Pipe& pipe, const qv::platform::StopSignal& stop) {
  std::vector<uint8_t> in(kReadBytes);
  size_t begin = 0, end = 0;
  qv::MessageBuffer request, body, out;
  for (;;) {
    if (begin != 0) {
      std::memmove(in.data(), in.data() + begin, end - begin);
      end -= begin;
      begin = 0;
    }
    size_t got = 0;
    if (pipe.ReadSome(in.data() + end, in.size() - end, got, stop) != IoResult::kOk) return;
    end += got;
    out.Reset();
    while (end - begin >= qv::kFrameHeaderBytes) {
      uint8_t header[qv::kFrameHeaderBytes];
      std::memcpy(header, in.data() + begin, sizeof header);
      uint32_t length = 0;
      if (qv::ParseFrameHeader(header, length) != qv::FrameHeaderCheck::kOk) return;
      const size_t frame = qv::kFrameHeaderBytes + length;
      if (frame > in.size()) in.resize(frame);
      if (end - begin < frame) break;
      request.Reset();
      if (!request.Write(in.data() + begin + qv::kFrameHeaderBytes, length) ||
          !Answer(request, body, out)) {
        return;
      }
      begin += frame;
    }
    const std::span<const uint8_t> answers[] = {{out.Data(), out.Size()}};
    if (out.Size() != 0 && pipe.Write(answers, stop) != IoResult::kOk) return;
  }
}

// The handshake on the well-known pipe: names `private_name` and the link's own version.
bool Handshake(qv::platform::Pipe& pipe, const qv::platform::StopSignal& stop,
               const std::u16string& private_name) {
  std::vector<uint8_t> body;
  if (!ReadOneFrame(pipe, stop, body)) return false;
  qv::MessageBuffer in(body.data(), body.size());
  qv::ConnectRequest request;
  if (!request.Decode(in)) return false;
  qv::ConnectResponse response;
  response.private_pipe = private_name;
  qv::MessageBuffer answer;
  return response.Encode(answer) && WriteOneFrame(pipe, stop, answer);
}

// Serves the ping-pong on `fd` until the parent closes it, then stops the link's server.
void PingPong(int fd, size_t request_bytes, size_t response_bytes, qv::platform::StopSignal& stop) {
  raw::Echo(fd, request_bytes, response_bytes);
  stop.Set();
}

// The child's whole life: listen, say so on `fd`, serve one link client and the ping-pong.
int RunEchoServer(const std::u16string& user, const std::string& run_dir, int fd,
                  size_t request_bytes, size_t response_bytes) {
  qv::platform::StopSignal stop;
  std::unique_ptr<qv::platform::PipeListener> well_known, private_listener;
  uint32_t error = 0;
  const std::u16string private_name = u"vkxbench_" + user;
  if (!stop.IsValid() ||
      qv::platform::PipeListener::Create(std::u16string(qv::kWellKnownPipeNamePrefix) + user,
                                         well_known, error) != IoResult::kOk ||
      qv::platform::PipeListener::Create(private_name, private_listener, error) != IoResult::kOk) {
    std::fprintf(stderr, "echo server: cannot listen (error %u)\n", error);
    return 1;
  }
  const auto readiness = qv::platform::ReadinessMarker::Create(user, run_dir);
  const uint8_t ready = 1;
  if (readiness == nullptr || !raw::SendAll(fd, &ready, 1)) return 1;
  std::thread ping_pong(PingPong, fd, request_bytes, response_bytes, std::ref(stop));

  std::unique_ptr<qv::platform::Pipe> greeting, client;
  if (well_known->Accept(greeting, stop) == IoResult::kOk &&
      Handshake(*greeting, stop, private_name) &&
      private_listener->Accept(client, stop) == IoResult::kOk) {
    greeting.reset();
    ServeRequests(*client, stop);
  }
  client.reset();
  ping_pong.join();
  return 0;
}

// --- The parent: the benchmarks ------------------------------------------------------------------

qv::ServerLink* g_link = nullptr;
int g_raw_fd = -1;
std::vector<uint8_t> g_raw_request, g_raw_response;

using qv::bench::Microseconds;
using qv::bench::ReportLatency;
using qv::bench::SampleStorage;

void BM_RawPingPong(benchmark::State& state) {
  auto samples = SampleStorage(state);
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!raw::SendAll(g_raw_fd, g_raw_request.data(), g_raw_request.size()) ||
        !raw::RecvAll(g_raw_fd, g_raw_response.data(), g_raw_response.size())) {
      state.SkipWithError("the ping-pong socket failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  ReportLatency(state, samples);
}

// One call; false (and the benchmark skipped) when it failed or the answer was not its own.
bool Call(benchmark::State& state, const qv::CGetServerVersionRequest& request,
          qv::CGetServerVersionResponse& response) {
  uint32_t sequence = 0;
  response.Sequence = ~0u;
  if (g_link->SendAndWait(qv::kNoTarget, request, response, sequence) != qv::LinkStatus::kSuccess ||
      response.Sequence != sequence) {
    state.SkipWithError("SendAndWait failed or returned another call's answer");
    return false;
  }
  return true;
}

void BM_LinkRoundTrip(benchmark::State& state) {
  const qv::CGetServerVersionRequest request;
  qv::CGetServerVersionResponse response;
  auto samples = SampleStorage(state);
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!Call(state, request, response)) break;
    samples.push_back(Microseconds(Clock::now() - start));
  }
  ReportLatency(state, samples);
}

void BM_LinkCalls(benchmark::State& state) {
  const qv::CGetServerVersionRequest request;
  qv::CGetServerVersionResponse response;
  for (auto _ : state) {
    if (!Call(state, request, response)) break;
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_RawPingPong)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LinkRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LinkCalls)
    ->Threads(1)
    ->Threads(2)
    ->Threads(8)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// The ratios against the floor, after the runs.
void PrintRatios(const qv::bench::FigureReporter& reporter) {
  std::FILE* out = reporter.out();
  const auto* floor = reporter.Find("BM_RawPingPong/real_time");
  const auto* single = reporter.Find("BM_LinkRoundTrip/real_time");
  if (floor == nullptr || floor->p50 <= 0 || floor->calls_per_second <= 0) return;
  std::fprintf(out, "floor: raw ping-pong p50 %.2f us, p99 %.2f us, %.0f calls/s\n", floor->p50,
               floor->p99, floor->calls_per_second);
  if (single != nullptr) {
    std::fprintf(out, "ratio link round trip p50 / raw p50 = %.2f\n", single->p50 / floor->p50);
    std::fprintf(out, "ratio link round trip p99 / raw p99 = %.2f\n", single->p99 / floor->p99);
  }
  const auto* one = reporter.Find("BM_LinkCalls/real_time/threads:1");
  for (int threads : {1, 2, 8}) {
    const auto* calls = reporter.Find("BM_LinkCalls/real_time/threads:" + std::to_string(threads));
    if (calls == nullptr || calls->calls_per_second <= 0) continue;
    std::fprintf(out, "ratio link calls/s, %d thread(s) / raw calls/s = %.2f", threads,
                 calls->calls_per_second / floor->calls_per_second);
    if (one != nullptr && one->calls_per_second > 0) {
      std::fprintf(out, "  (%.2fx one thread)", calls->calls_per_second / one->calls_per_second);
    }
    std::fprintf(out, "\n");
  }
}

// The request and response frames the link exchanges, so that the floor moves as many bytes.
void SizeFloorMessages() {
  qv::MessageBuffer request, response;
  qv::WriteRequestHeader(request, qv::CGetServerVersionRequest::kTypeNumber, qv::kNoTarget, 1);
  qv::CGetServerVersionRequest().Serialize(request);
  qv::WriteField(response, static_cast<uint32_t>(qv::IncomingKind::kResponse));
  qv::WriteField(response, qv::CGetServerVersionResponse::kTypeNumber);
  qv::CGetServerVersionResponse().Serialize(response);
  g_raw_request.assign(qv::kFrameHeaderBytes + request.Size(), 0xA5);
  g_raw_response.resize(qv::kFrameHeaderBytes + response.Size());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view format = qv::bench::OutputFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  const auto run_dir = qv::platform::ServerRuntimeDirectory();
  if (!run_dir) {
    std::fprintf(stderr, "no usable runtime directory\n");
    return 1;
  }
  // A user part of its own, so that no real server and no other run shares the names.
  const std::u16string user =
      u"vkxbench" + qv::platform::Utf8ToUtf16(std::to_string(qv::platform::CurrentProcessId()));
  SizeFloorMessages();

  // The child is forked while this process still has one thread.
  int fds[2];
  if (!raw::SocketPair(fds)) {
    std::fprintf(stderr, "socketpair failed\n");
    return 1;
  }
  const pid_t child = raw::Spawn([&] {
    raw::Close(fds[0]);
    return RunEchoServer(user, *run_dir, fds[1], g_raw_request.size(), g_raw_response.size());
  });
  raw::Close(fds[1]);
  g_raw_fd = fds[0];
  uint8_t ready = 0;
  if (child < 0 || !raw::RecvAll(g_raw_fd, &ready, 1)) {
    std::fprintf(stderr, "the echo server did not start\n");
    return 1;
  }

  int result = 0;
  {
    qv::ServerLink link(qv::ResponseFactory(), qv::NotificationFactory(),
                        qv::ServerLink::ServerNames{user, *run_dir}, {});
    g_link = &link;
    if (const qv::LinkStatus status = link.Connect(); status != qv::LinkStatus::kSuccess) {
      std::fprintf(stderr, "cannot connect to the echo server: status %d\n",
                   static_cast<int>(status));
      result = 1;
    } else {
      qv::bench::RunBenchmarks(format, PrintRatios);
    }
    g_link = nullptr;
  }
  // Closing the socket pair ends the child. Its readiness file outlives it: remove it.
  raw::Close(g_raw_fd);
  if (raw::Wait(child) != 0) result = 1;
  std::error_code ignored;
  std::filesystem::remove(*run_dir + "/qv_ve_run_svr" + qv::platform::Utf16ToUtf8(user), ignored);
  benchmark::Shutdown();
  return result;
}
