#include "console_stream.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "errors.h"
#include "values.h"
#include "vekxapi/event_sink.h"

namespace vekx_python {

namespace py = pybind11;

namespace {

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The cache from `start` (or its oldest piece, if that one has gone) to its end. Returns the
// index the next piece will get.
std::uint32_t ReadCache(ITarget& target, std::uint32_t start, std::vector<ConsolePiece>& pieces) {
  ULONG next = start;
  for (;;) {
    vekx::Variant records;
    Unlocked([&] { return target.CachedConsoleOutput(&next, records.Put()); });
    const auto objects = Library::Objects<IConsoleOutput>(records.Get(), IID_IConsoleOutput);
    if (objects.empty()) return next;
    // The pieces of one fetch are consecutive and end just before `next`.
    std::uint32_t index = next - static_cast<std::uint32_t>(objects.size());
    for (const auto& record : objects) {
      ConsolePiece piece;
      Check(vekx::ReadConsolePiece(*record.Get(), piece));
      piece.index = index++;
      pieces.push_back(std::move(piece));
    }
  }
}

}  // namespace

// The live pieces, numbered once the cache has been read. Called on the library's thread; never
// touches Python.
class LiveConsole : public vekx::EventSink<IEventConsoleOutput> {
 public:
  HRESULT STDMETHODCALLTYPE OnConsoleOutput(IConsoleOutputEvent* event) override {
    if (event == nullptr) return E_POINTER;
    try {
      ConsolePiece piece;
      if (HRESULT hr = vekx::ReadConsolePiece(*event, piece); FAILED(hr)) return hr;
      std::lock_guard lock(mutex_);
      if (numbered_) {
        Number(std::move(piece));
      } else {
        held_.push_back(std::move(piece));
      }
      arrived_.notify_all();
      return S_OK;
    } catch (...) {
      return E_FAIL;
    }
  }

  // The cache has been read up to `next`; S is from `earliest` to `latest`; `recent` are the
  // cached pieces from index `earliest` on.
  void CacheRead(std::uint32_t next, std::uint32_t earliest, std::uint32_t latest,
                 std::vector<ConsolePiece> recent) {
    std::lock_guard lock(mutex_);
    next_ = next;
    earliest_ = earliest;
    latest_ = latest;
    recent_ = std::move(recent);
    numbered_ = true;
    std::vector<ConsolePiece> held;
    held.swap(held_);
    for (ConsolePiece& piece : held)
      Number(std::move(piece));
    arrived_.notify_all();
  }

  // The next new piece, waiting until `deadline` or Stop.
  std::optional<ConsolePiece> Take(double deadline) {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (!ready_.empty()) {
        ConsolePiece piece = std::move(ready_.front());
        ready_.pop_front();
        return piece;
      }
      if (stopped_) return std::nullopt;
      const double left = deadline - Now();
      if (left <= 0) return std::nullopt;
      arrived_.wait_for(lock, std::chrono::duration<double>(left));
    }
  }

  bool Stopped() {
    std::lock_guard lock(mutex_);
    return stopped_;
  }
  void Stop() {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    arrived_.notify_all();
  }

 private:
  void Number(ConsolePiece piece) {
    if (!first_index_) first_index_ = FirstIndex(piece);
    piece.index = *first_index_ + received_++;
    if (piece.index >= next_) ready_.push_back(std::move(piece));
  }
  std::uint32_t FirstIndex(const ConsolePiece& first) const {
    for (const ConsolePiece& cached : recent_) {
      if (cached.index >= earliest_ && cached.index <= latest_ &&
          static_cast<const vekx::ConsolePiece&>(cached) == first)
        return cached.index;
    }
    // Not among the cached pieces: it came after them.
    return next_;
  }

  std::mutex mutex_;  // guards everything below: the library's thread against Python's
  std::condition_variable arrived_;
  bool numbered_ = false;
  bool stopped_ = false;
  std::vector<ConsolePiece> held_;  // arrived while the cache was being read
  std::deque<ConsolePiece> ready_;  // numbered, not yet taken
  std::uint32_t next_ = 0;
  std::uint32_t earliest_ = 0;
  std::uint32_t latest_ = 0;
  std::vector<ConsolePiece> recent_;
  std::optional<std::uint32_t> first_index_;
  std::uint32_t received_ = 0;
};

ConsoleStream::ConsoleStream(vekx::ComPtr<ITarget> target, std::uint32_t since, bool follow,
                             std::optional<double> timeout)
    : target_(std::move(target)) {
  if (timeout) deadline_ = Now() + *timeout;
  std::vector<ConsolePiece> pieces;
  if (!follow) {
    ReadCache(*target_.Get(), since, pieces);
    cached_.assign(pieces.begin(), pieces.end());
    return;
  }
  // Subscribed first, so that nothing falls between the cache and the live output.
  const ULONG before = Get(*target_.Get(), &ITarget::get_ConsoleCacheIndex);
  auto live = vekx::MakeSink<LiveConsole>();
  Unlocked([&] { return target_->AdviseConsoleOutputEvents(live.Get()); });
  live_ = live;
  const ULONG after = Get(*target_.Get(), &ITarget::get_ConsoleCacheIndex);
  const std::uint32_t next =
      ReadCache(*target_.Get(), std::min<std::uint32_t>(since, before), pieces);
  std::vector<ConsolePiece> recent;
  for (const ConsolePiece& piece : pieces) {
    if (piece.index >= before) recent.push_back(piece);
    if (piece.index >= since) cached_.push_back(piece);
  }
  live_->CacheRead(next, before, after, std::move(recent));
}

ConsoleStream::~ConsoleStream() {
  Close();
}

ConsolePiece ConsoleStream::Next() {
  if (!cached_.empty()) {
    ConsolePiece piece = std::move(cached_.front());
    cached_.pop_front();
    return piece;
  }
  if (!live_ || closed_) throw py::stop_iteration();
  // Waits in slices, so that Ctrl+C (KeyboardInterrupt) ends a wait that has no time-out.
  for (;;) {
    const double slice = Now() + 0.2;
    const bool last = deadline_ && *deadline_ <= slice;
    std::optional<ConsolePiece> piece =
        WithoutGil([&] { return live_->Take(last ? *deadline_ : slice); });
    if (piece) return std::move(*piece);
    if (last || live_->Stopped()) throw py::stop_iteration();
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
}

void ConsoleStream::Close() {
  if (closed_) return;
  closed_ = true;
  cached_.clear();
  if (!live_) return;
  live_->Stop();
  // A failure no longer matters: the stream has ended.
  WithoutGil([this] { return target_->UnadviseConsoleOutputEvents(live_.Get()); });
}

}  // namespace vekx_python
