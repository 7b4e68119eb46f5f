// The channels of the simulated endpoints: echo, source, sink and script.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "platform/wide_string.h"
#include "server/protocols/byte_queue.h"
#include "server/protocols/protocol_channel.h"

namespace qv::server {
namespace {

// The most one read hands back, whatever it asked for: what one channel may hold.
size_t ReadLimit(uint32_t size) {
  return std::min<size_t>(size, kChannelBuffer);
}

class EchoChannel final : public ProtocolChannel {
 public:
  explicit EchoChannel(uint32_t protocol) : protocol_(protocol) {}
  Status Write(const Bytes& data, uint32_t& written) override {
    if (queue_.IsClosed()) return ClosedByEndpoint(protocol_);
    written = static_cast<uint32_t>(queue_.Push(data.data(), data.size(), kWriteWait));
    return Status::Ok();
  }
  Status Read(uint32_t size, Bytes& data) override {
    if (queue_.IsDrained()) return ClosedByEndpoint(protocol_);
    queue_.Pop(ReadLimit(size), kReadWait, data);
    return Status::Ok();
  }
  bool IsOpen() const override { return !queue_.IsClosed(); }
  void Close() override { queue_.Close(); }

 private:
  const uint32_t protocol_;
  ByteQueue queue_{kChannelBuffer};
};

// Counts and discards; a read finds nothing after its wait.
class SinkChannel final : public ProtocolChannel {
 public:
  Status Write(const Bytes& data, uint32_t& written) override {
    written = static_cast<uint32_t>(data.size());
    received_ += data.size();
    return Status::Ok();
  }
  Status Read(uint32_t, Bytes& data) override {
    quiet_.Pop(0, kReadWait, data);
    return Status::Ok();
  }
  bool IsOpen() const override { return true; }
  void Close() override { quiet_.Close(); }

 private:
  std::atomic<uint64_t> received_{0};
  ByteQueue quiet_{1};  // never written: a read's wait that Close can end
};

// `length` bytes of `pattern` repeated, as fast as they are read; then the endpoint closes.
// What is written to it is discarded.
class SourceChannel final : public ProtocolChannel {
 public:
  SourceChannel(uint32_t protocol, uint64_t length, std::vector<uint8_t> pattern)
      : protocol_(protocol), length_(length), pattern_(std::move(pattern)) {}
  Status Write(const Bytes& data, uint32_t& written) override {
    if (!IsOpen()) return ClosedByEndpoint(protocol_);
    written = static_cast<uint32_t>(data.size());
    return Status::Ok();
  }
  Status Read(uint32_t size, Bytes& data) override {
    std::lock_guard lock(mutex_);
    if (sent_ == length_) return ClosedByEndpoint(protocol_);
    data.resize(static_cast<size_t>(std::min<uint64_t>(ReadLimit(size), length_ - sent_)));
    for (uint8_t& byte : data)
      byte = pattern_[sent_++ % pattern_.size()];
    return Status::Ok();
  }
  bool IsOpen() const override {
    std::lock_guard lock(mutex_);
    return sent_ < length_;
  }
  void Close() override {}

 private:
  const uint32_t protocol_;
  const uint64_t length_;
  const std::vector<uint8_t> pattern_;
  mutable std::mutex mutex_;
  uint64_t sent_ = 0;  // guarded by mutex_
};

// Runs the endpoint's steps on a thread of its own from the open on: lines out into the queue
// the client reads, lines in from what it writes, the endpoint down and up. A line that differs
// from the one expected closes the channel, as a real program would hang up on a peer it does not
// understand; after the last step what is written is discarded.
class ScriptChannel final : public ProtocolChannel {
 public:
  ScriptChannel(const ProtocolEndpoint& endpoint, AvailabilityChange availability)
      : protocol_(endpoint.number),
        steps_(endpoint.script),
        availability_(std::move(availability)),
        thread_([this] { Run(); }) {}
  ~ScriptChannel() override {
    Close();
    thread_.join();
  }

  Status Write(const Bytes& data, uint32_t& written) override {
    if (out_.IsClosed()) return ClosedByEndpoint(protocol_);
    written = finished_ ? static_cast<uint32_t>(data.size())
                        : static_cast<uint32_t>(in_.Push(data.data(), data.size(), kWriteWait));
    return Status::Ok();
  }
  Status Read(uint32_t size, Bytes& data) override {
    if (out_.IsDrained()) return ClosedByEndpoint(protocol_);
    out_.Pop(ReadLimit(size), kReadWait, data);
    return Status::Ok();
  }
  bool IsOpen() const override { return !out_.IsClosed(); }
  void Close() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    stop_.notify_all();
    in_.Close();
    out_.Close();
  }

 private:
  void Run() {
    for (const ScriptAction& step : steps_) {
      {
        std::unique_lock lock(mutex_);
        if (stop_.wait_for(lock, std::chrono::milliseconds(step.after_ms),
                           [&] { return stopping_; })) {
          return;
        }
      }
      switch (step.kind) {
        case ScriptAction::Kind::kSend: {
          // A line longer than the queue goes out as the reader makes room.
          const auto* bytes = reinterpret_cast<const uint8_t*>(step.text.data());
          for (size_t done = 0; done < step.text.size() && !out_.IsClosed();) {
            done += out_.Push(bytes + done, step.text.size() - done, kWriteWait);
          }
          break;
        }
        case ScriptAction::Kind::kExpect:
          if (in_.PopLine() != step.text) {
            out_.Close();
            return;
          }
          break;
        case ScriptAction::Kind::kDown:
        case ScriptAction::Kind::kUp:
          if (availability_) availability_(step.kind == ScriptAction::Kind::kUp);
          break;
        case ScriptAction::Kind::kClose:
          out_.Close();
          return;
      }
    }
    finished_ = true;
  }

  const uint32_t protocol_;
  const std::vector<ScriptAction> steps_;
  const AvailabilityChange availability_;
  ByteQueue out_{kChannelBuffer};
  ByteQueue in_{kChannelBuffer};
  std::atomic<bool> finished_{false};
  std::mutex mutex_;
  std::condition_variable stop_;
  bool stopping_ = false;  // guarded by mutex_
  std::thread thread_;     // last: it uses everything above
};

}  // namespace

Status ClosedByEndpoint(uint32_t protocol) {
  return Status::Fail(KXAPI_COMMS_ERR_ULP_DISCONNECT,
                      u"protocol " + platform::Utf8ToUtf16(std::to_string(protocol)) +
                          u" was closed by its endpoint");
}

Status OpenChannel(const ProtocolEndpoint& endpoint, const AvailabilityChange& availability,
                   std::unique_ptr<ProtocolChannel>& channel) {
  switch (endpoint.kind) {
    case EndpointKind::kEcho:
      channel = std::make_unique<EchoChannel>(endpoint.number);
      return Status::Ok();
    case EndpointKind::kSink:
      channel = std::make_unique<SinkChannel>();
      return Status::Ok();
    case EndpointKind::kSource:
      channel = std::make_unique<SourceChannel>(endpoint.number, endpoint.length, endpoint.pattern);
      return Status::Ok();
    case EndpointKind::kScript:
      channel = std::make_unique<ScriptChannel>(endpoint, availability);
      return Status::Ok();
    case EndpointKind::kForward:
#ifndef _WIN32
      return OpenForwardChannel(endpoint, channel);
#else
      break;
#endif
  }
  return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL, u"this server cannot forward protocols");
}

}  // namespace qv::server
