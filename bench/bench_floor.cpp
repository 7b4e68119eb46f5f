#include "bench_floor.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

namespace qv::bench {
namespace raw {

bool SocketPair(int (&fds)[2]) {
  return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0;
}

bool SendAll(int fd, const uint8_t* data, size_t size) {
  while (size != 0) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool RecvAll(int fd, uint8_t* data, size_t size) {
  while (size != 0) {
    const ssize_t n = recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void Close(int fd) {
  close(fd);
}

pid_t Fork() {
  return fork();
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Echo(int fd, size_t request_bytes, size_t response_bytes) {
  std::vector<uint8_t> request(request_bytes), response(response_bytes, 0x5A);
  while (RecvAll(fd, request.data(), request.size()) &&
         SendAll(fd, response.data(), response.size())) {
  }
}

}  // namespace raw

PingPongFloor::~PingPongFloor() {
  // Closing our ends ends the child's threads, and so the child.
  for (int fd : fds_)
    raw::Close(fd);
  if (child_ > 0) raw::Wait(child_);
}

bool PingPongFloor::Start(size_t pairs, size_t request_bytes, size_t response_bytes,
                          int send_buffer) {
  std::vector<int> theirs;
  for (size_t i = 0; i < pairs; ++i) {
    int fds[2];
    if (!raw::SocketPair(fds)) break;
    for (int fd : fds)
      if (send_buffer != 0) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    fds_.push_back(fds[0]);
    theirs.push_back(fds[1]);
  }
  if (theirs.size() == pairs) {
    child_ = raw::Spawn([&] {
      for (int fd : fds_)
        raw::Close(fd);
      std::vector<std::thread> threads;
      for (int fd : theirs)
        threads.emplace_back(raw::Echo, fd, request_bytes, response_bytes);
      for (std::thread& thread : threads)
        thread.join();
      return 0;
    });
  }
  for (int fd : theirs)
    raw::Close(fd);
  request_.assign(request_bytes, 0xA5);
  responses_.assign(pairs, std::vector<uint8_t>(response_bytes));
  return child_ > 0;
}

bool PingPongFloor::RoundTrip(size_t pair) {
  return raw::SendAll(fds_[pair], request_.data(), request_.size()) &&
         raw::RecvAll(fds_[pair], responses_[pair].data(), responses_[pair].size());
}

const uint8_t* StagedReader::Take(size_t size) {
  if (size > staging_.size()) return nullptr;
  if (end_ - begin_ < size) {
    // Move what is left to the front, then read until the message is whole.
    std::copy(staging_.begin() + static_cast<ptrdiff_t>(begin_),
              staging_.begin() + static_cast<ptrdiff_t>(end_), staging_.begin());
    end_ -= begin_;
    begin_ = 0;
    while (end_ < size) {
      const ssize_t n = recv(fd_, staging_.data() + end_, staging_.size() - end_, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return nullptr;
      end_ += static_cast<size_t>(n);
    }
  }
  const uint8_t* message = staging_.data() + begin_;
  begin_ += size;
  return message;
}

WindowedStreamFloor::~WindowedStreamFloor() {
  Finish();
}

BulkFloors::~BulkFloors() {
  // Each floor's child holds the sockets of the floors forked before it: the last goes first.
  while (!floors_.empty())
    floors_.pop_back();
}

bool BulkFloors::Start(const std::vector<int64_t>& sizes, size_t request_bytes,
                       size_t response_head, int send_buffer) {
  sizes_ = sizes;
  for (int64_t size : sizes) {
    for (int buffer : {0, send_buffer}) {
      floors_.push_back(std::make_unique<PingPongFloor>());
      if (!floors_.back()->Start(1, request_bytes, static_cast<size_t>(size) + response_head,
                                 buffer)) {
        return false;
      }
    }
  }
  return true;
}

void BulkFloors::Measure(benchmark::State& state, bool wide) {
  const auto size = std::find(sizes_.begin(), sizes_.end(), state.range(0));
  if (size == sizes_.end()) {
    state.SkipWithError("no floor of that size");
    return;
  }
  PingPongFloor& floor = *floors_[2 * static_cast<size_t>(size - sizes_.begin()) + (wide ? 1 : 0)];
  auto samples = SampleStorage(state);
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!floor.RoundTrip(0)) {
      state.SkipWithError("the bulk socket failed");
      break;
    }
    samples.push_back(Microseconds(Clock::now() - start));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
  ReportLatency(state, samples);
}

bool WindowedStreamFloor::Start(size_t writers, size_t frames, size_t window, size_t frame_bytes,
                                size_t ack_bytes) {
  int fds[2];
  if (!raw::SocketPair(fds)) return false;
  writer_fd_ = fds[0];
  reader_fd_ = fds[1];
  window_ = window;
  in_flight_ = 0;
  broken_ = false;
  frame_.assign(frame_bytes, 0xA5);
  ack_.assign(ack_bytes, 0x5A);
  frames_in_ = std::make_unique<StagedReader>(reader_fd_);
  threads_.emplace_back(&WindowedStreamFloor::TakeAcknowledgements, this, frames);
  for (size_t i = 0; i < writers; ++i) {
    // The first writers take the remainder.
    threads_.emplace_back(&WindowedStreamFloor::Write, this,
                          frames / writers + (i < frames % writers ? 1 : 0));
  }
  return true;
}

bool WindowedStreamFloor::ReceiveOne() {
  return frames_in_->Take(frame_.size()) != nullptr &&
         raw::SendAll(reader_fd_, ack_.data(), ack_.size());
}

void WindowedStreamFloor::Finish() {
  // Shutting the socket down wakes every thread still blocked on it; the descriptors are closed
  // only once nobody uses them.
  if (writer_fd_ >= 0) shutdown(writer_fd_, SHUT_RDWR);
  if (reader_fd_ >= 0) shutdown(reader_fd_, SHUT_RDWR);
  {
    std::lock_guard lock(window_mutex_);
    broken_ = true;
  }
  window_open_.notify_all();
  for (std::thread& thread : threads_)
    thread.join();
  threads_.clear();
  for (int* fd : {&writer_fd_, &reader_fd_}) {
    if (*fd >= 0) raw::Close(*fd);
    *fd = -1;
  }
}

void WindowedStreamFloor::Write(size_t frames) {
  for (size_t i = 0; i < frames; ++i) {
    {
      std::unique_lock lock(window_mutex_);
      window_open_.wait(lock, [this] { return broken_ || in_flight_ < window_; });
      if (broken_) return;
      ++in_flight_;
    }
    std::lock_guard lock(send_mutex_);
    if (!raw::SendAll(writer_fd_, frame_.data(), frame_.size())) return;
  }
}

void WindowedStreamFloor::TakeAcknowledgements(size_t frames) {
  StagedReader acks(writer_fd_);
  for (size_t i = 0; i < frames; ++i) {
    const bool ok = acks.Take(ack_.size()) != nullptr;
    {
      std::lock_guard lock(window_mutex_);
      if (ok) {
        --in_flight_;
      } else {
        broken_ = true;
      }
    }
    // One frame's room for one writer; a broken socket ends them all.
    if (ok) {
      window_open_.notify_one();
    } else {
      window_open_.notify_all();
      return;
    }
  }
}

double Microseconds(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

double Quantile(std::vector<double>& samples, double q) {
  const size_t i = std::min(samples.size() - 1, static_cast<size_t>(q * samples.size()));
  std::nth_element(samples.begin(), samples.begin() + static_cast<ptrdiff_t>(i), samples.end());
  return samples[i];
}

std::vector<double> SampleStorage(const benchmark::State& state) {
  std::vector<double> samples;
  samples.reserve(
      static_cast<size_t>(std::min<benchmark::IterationCount>(state.max_iterations, 10'000'000)));
  return samples;
}

void ReportLatency(benchmark::State& state, std::vector<double>& samples) {
  state.SetItemsProcessed(state.iterations());
  if (samples.empty()) return;
  // Each thread reports its own quantiles; the figure is their mean, not their sum.
  state.counters["p50_us"] =
      benchmark::Counter(Quantile(samples, 0.50), benchmark::Counter::kAvgThreads);
  state.counters["p99_us"] =
      benchmark::Counter(Quantile(samples, 0.99), benchmark::Counter::kAvgThreads);
}

void SharedLatency::Finish(benchmark::State& state, std::vector<double>& samples) {
  state.SetItemsProcessed(state.iterations());
  std::lock_guard lock(mutex_);
  all_.insert(all_.end(), samples.begin(), samples.end());
  if (++finished_ < state.threads()) return;
  if (!all_.empty()) {
    state.counters["p50_us"] = Quantile(all_, 0.50);
    state.counters["p99_us"] = Quantile(all_, 0.99);
  }
  // Ready for the next run of the benchmark, which starts once all these threads are done.
  all_.clear();
  finished_ = 0;
}

FigureReporter::FigureReporter(std::string_view format) {
  if (format == "json") {
    inner_ = std::make_unique<benchmark::JSONReporter>();
  } else {
    // No colour codes: the table is meant to be copied.
    inner_ = std::make_unique<benchmark::ConsoleReporter>(benchmark::ConsoleReporter::OO_Tabular);
    out_ = stdout;
  }
}

bool FigureReporter::ReportContext(const Context& context) {
  return inner_->ReportContext(context);
}

void FigureReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
    Figures& figures = figures_[run.run_name.str()];
    auto counter = [&run](const char* name) {
      const auto it = run.counters.find(name);
      return it != run.counters.end() ? it->second.value : 0.0;
    };
    figures.calls_per_second = counter("items_per_second");
    figures.p50 = counter("p50_us");
    figures.p99 = counter("p99_us");
  }
  inner_->ReportRuns(runs);
}

void FigureReporter::Finalize() {
  inner_->Finalize();
}

const FigureReporter::Figures* FigureReporter::Find(const std::string& name) const {
  const auto it = figures_.find(name);
  return it != figures_.end() ? &it->second : nullptr;
}

std::string_view OutputFormat(int argc, char** argv) {
  constexpr std::string_view flag = "--benchmark_format=";
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.starts_with(flag)) return arg.substr(flag.size());
  }
  return "console";
}

void RunBenchmarks(std::string_view format,
                   const std::function<void(const FigureReporter&)>& ratios) {
  FigureReporter reporter(format);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  ratios(reporter);
}

}  // namespace qv::bench
