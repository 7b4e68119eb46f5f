#pragma once
// What the benchmarks share: the raw socket ping-pong they measure themselves against, latency
// samples and their quantiles, and a reporter that keeps each run's figures for the ratios
// printed at the end.

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qv::bench {

using Clock = std::chrono::steady_clock;

// --- Raw Unix sockets: the floor, and forked children --------------------------------------------
// The only direct socket code of the benchmarks. Both ends block.
namespace raw {

bool SocketPair(int (&fds)[2]);
bool SendAll(int fd, const uint8_t* data, size_t size);
bool RecvAll(int fd, uint8_t* data, size_t size);
void Close(int fd);

// Runs `child` in a forked process that exits with its result; returns the child's id, or -1.
// Fork only while this process has one thread.
pid_t Fork();
template <class Child>
pid_t Spawn(Child child) {
  const pid_t pid = Fork();
  if (pid == 0) std::_Exit(child());
  return pid;
}

// The child's exit code, or -1 when it did not exit normally.
int Wait(pid_t pid);

// Answers every `request_bytes` read from `fd` with `response_bytes`, until the other end closes.
void Echo(int fd, size_t request_bytes, size_t response_bytes);

}  // namespace raw

// Ping-pong over `pairs` socket pairs, each served by a thread of one forked child: the floor
// for as many clients of a server process.
class PingPongFloor {
 public:
  PingPongFloor() = default;
  ~PingPongFloor();
  PingPongFloor(const PingPongFloor&) = delete;
  PingPongFloor& operator=(const PingPongFloor&) = delete;

  // Forks the child (while this process has one thread). `send_buffer`, when not 0, is the
  // SO_SNDBUF both ends of every pair ask for. False when it cannot.
  bool Start(size_t pairs, size_t request_bytes, size_t response_bytes, int send_buffer = 0);
  // One message of the request's size to the child on `pair` and one of the response's back.
  bool RoundTrip(size_t pair);
  size_t pairs() const { return fds_.size(); }

 private:
  std::vector<int> fds_;
  pid_t child_ = -1;
  std::vector<uint8_t> request_;
  std::vector<std::vector<uint8_t>> responses_;  // one per pair: threads read at once
};

// Reads a stream of fixed-size messages through a buffer, taking in whatever has arrived with
// each read (up to 64 KiB), as the link's reads do.
class StagedReader {
 public:
  explicit StagedReader(int fd) : fd_(fd), staging_(64 * 1024) {}
  // The next `size` bytes (at most the buffer's size), or nullptr when the socket failed.
  const uint8_t* Take(size_t size);

 private:
  int fd_;
  std::vector<uint8_t> staging_;
  size_t begin_ = 0;
  size_t end_ = 0;
};

// Bulk answers: a small request answered with each of several sizes (and a response head) over
// a socket pair, twice: with the system's default buffers, and with the send buffer our pipes ask
// for, so that a ratio shows what the transport's setting gives apart from what the stack adds.
class BulkFloors {
 public:
  BulkFloors() = default;
  ~BulkFloors();
  BulkFloors(const BulkFloors&) = delete;
  BulkFloors& operator=(const BulkFloors&) = delete;

  // Forks the children (while this process has one thread). False when one does not start.
  bool Start(const std::vector<int64_t>& sizes, size_t request_bytes, size_t response_head,
             int send_buffer);
  // The benchmark loop over the floor of state.range(0) bytes.
  void Measure(benchmark::State& state, bool wide);

 private:
  std::vector<int64_t> sizes_;
  // For each size, the plain floor then the wide one, in the order they were forked.
  std::vector<std::unique_ptr<PingPongFloor>> floors_;
};

// One-way frames over one socket pair, each acknowledged by the reader, with at most `window`
// frames unacknowledged: the floor for a stream the server paces on acknowledgements. Writer
// threads share the socket and the window (a frame is written whole, under a lock) and a thread
// of their own takes in the acknowledgements; the caller reads and acknowledges. Both readers
// read ahead through a StagedReader, so a read may take in several frames.
class WindowedStreamFloor {
 public:
  WindowedStreamFloor() = default;
  ~WindowedStreamFloor();
  WindowedStreamFloor(const WindowedStreamFloor&) = delete;
  WindowedStreamFloor& operator=(const WindowedStreamFloor&) = delete;

  // Starts `writers` threads that write `frames` frames of `frame_bytes` among them. False when
  // the socket pair cannot be made.
  bool Start(size_t writers, size_t frames, size_t window, size_t frame_bytes, size_t ack_bytes);
  // Reads one frame and acknowledges it; false when the socket failed.
  bool ReceiveOne();
  // Closes the socket and joins the threads.
  void Finish();

 private:
  void Write(size_t frames);
  void TakeAcknowledgements(size_t frames);

  int writer_fd_ = -1;
  int reader_fd_ = -1;
  size_t window_ = 0;
  std::vector<uint8_t> frame_, ack_;
  std::unique_ptr<StagedReader> frames_in_;
  std::mutex send_mutex_;  // a frame at a time on writer_fd_
  std::mutex window_mutex_;
  std::condition_variable window_open_;
  size_t in_flight_ = 0;  // guarded by window_mutex_
  bool broken_ = false;   // guarded by window_mutex_
  std::vector<std::thread> threads_;
};

// --- Latency
// ---------------------------------------------------------------------------------------

double Microseconds(Clock::duration d);
// The `q` quantile of `samples` (reordered).
double Quantile(std::vector<double>& samples, double q);
// Room for the samples of one run, so that storing them does not allocate while measuring.
std::vector<double> SampleStorage(const benchmark::State& state);
// Calls/s as items_per_second, and p50_us and p99_us of `samples`.
void ReportLatency(benchmark::State& state, std::vector<double>& samples);

// The samples of every thread of a multi-threaded benchmark: each thread hands its own in after
// its loop, and the last one reports p50_us and p99_us of them all (the counters of the threads
// are added up, and only that thread sets them). Every thread reports its calls.
class SharedLatency {
 public:
  void Finish(benchmark::State& state, std::vector<double>& samples);

 private:
  std::mutex mutex_;
  std::vector<double> all_;  // guarded by mutex_
  int finished_ = 0;         // guarded by mutex_
};

// --- Reporting
// -------------------------------------------------------------------------------------

// Passes every run to the reporter the command line asked for (console or JSON) and keeps the
// figures of each for the ratios. With repetitions, the median of each figure stands for the run.
class FigureReporter : public benchmark::BenchmarkReporter {
 public:
  struct Figures {
    double calls_per_second = 0;
    double p50 = 0;
    double p99 = 0;
  };

  explicit FigureReporter(std::string_view format);
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

  // The figures of the run named `name` ("BM_X/real_time/threads:2"), or nullptr.
  const Figures* Find(const std::string& name) const;
  // Where the ratios go: stdout after the console table, stderr when stdout is one JSON document.
  std::FILE* out() const { return out_; }

 private:
  std::unique_ptr<benchmark::BenchmarkReporter> inner_;
  std::FILE* out_ = stderr;
  std::map<std::string, Figures> figures_;
};

// The output format the command line asks for; benchmark::Initialize removes the flag, so call
// this first.
std::string_view OutputFormat(int argc, char** argv);

// Runs the benchmarks the command line chose, reported in `format` by a FigureReporter whose
// figures then go to `ratios`.
void RunBenchmarks(std::string_view format,
                   const std::function<void(const FigureReporter&)>& ratios);

}  // namespace qv::bench
