#include "server/core/client_session.h"

#include <exception>
#include <utility>

#include "platform/wide_string.h"
#include "server/core/server_log.h"
#include "serverlink/frame.h"
#include "serverlink/handshake.h"

namespace qv::server {
namespace {

std::string ClientTag(uint64_t id) {
  return "client " + std::to_string(id);
}

}  // namespace

ClientSession::ClientSession(uint64_t id, std::u16string private_pipe_name,
                             std::unique_ptr<platform::Pipe> well_known, TargetRegistry& registry,
                             const RequestDispatcher& dispatcher, FrameBudget& budget)
    : id_(id),
      private_pipe_name_(std::move(private_pipe_name)),
      registry_(registry),
      dispatcher_(dispatcher),
      budget_(budget) {
  well_known_.Adopt(std::move(well_known));
}

ClientSession::~ClientSession() {
  Stop();
  Join();
}

bool ClientSession::Start() {
  try {
    thread_ = std::thread(&ClientSession::Run, this);
    return true;
  } catch (const std::exception&) {
    finished_ = true;
    return false;
  }
}

void ClientSession::Stop() {
  stop_.Set();
  well_known_.Stop();
  channel_.Stop();
  std::lock_guard lock(queue_mutex_);
  closing_ = true;
  queue_cv_.notify_all();
}

void ClientSession::Join() {
  if (thread_.joinable()) thread_.join();
}

bool ClientSession::HandshakeOverdue(std::chrono::steady_clock::time_point now) const {
  return !connected_.load() && !finished_.load() && now - started_ > kHandshakeTimeLimit;
}

void ClientSession::Post(SharedBody body) {
  bool wake_writer = false;
  {
    std::lock_guard lock(queue_mutex_);
    if (closing_) return;
    // Beside its other traffic, a client's queue holds one answer of the largest size a frame may
    // have (a large memory read).
    if (queued_bytes_ + body->BodySize() <= kMaxQueuedBytes + kMaxFrameBodyBytes) {
      queued_bytes_ += body->BodySize();
      queue_.push_back(std::move(body));
      wake_writer = !writing_;
    }
  }
  if (body != nullptr) {  // not queued
    ServerLog(kLogRefusals, ClientTag(id_) + " does not read what is sent to it; dropping it");
    Stop();
    return;
  }
  // Woken after the lock is released, the writer does not wake only to wait for it (on one CPU
  // that is two more context switches per notification).
  if (wake_writer) queue_cv_.notify_one();
}

void ClientSession::Send(MessageBuffer& body) {
  bool write_now = false;
  {
    std::lock_guard lock(queue_mutex_);
    write_now = !closing_ && !writing_ && queue_.empty();
    if (write_now) writing_ = true;
  }
  // Anything ahead of the answer goes first, so that answers and notifications keep their order;
  // only a queued answer is moved to the heap.
  if (!write_now) return Post(std::make_shared<const MessageBuffer>(std::move(body)));
  const PipeChannel::WriteStatus written = channel_.WriteFrame(body);
  bool wake_writer = false;
  {
    std::lock_guard lock(queue_mutex_);
    writing_ = false;
    wake_writer = !queue_.empty();
  }
  if (wake_writer) queue_cv_.notify_one();
  if (written != PipeChannel::WriteStatus::kWritten) Stop();
}

void ClientSession::Run() {
  if (Handshake()) Serve();
  well_known_.Close();
  finished_ = true;
}

bool ClientSession::Handshake() {
  if (well_known_.ReadFrame() != PipeChannel::ReadStatus::kFrame) return false;
  ConnectRequest request;
  const bool valid = request.Decode(well_known_.Input());
  well_known_.ReleaseRead();
  if (!valid) {
    ServerLog(kLogRefusals, ClientTag(id_) + ": not a connect request; closing");
    return false;
  }
  process_id_ = request.process_id;

  std::unique_ptr<platform::PipeListener> listener;
  uint32_t error = 0;
  if (platform::PipeListener::Create(private_pipe_name_, listener, error) !=
      platform::IoResult::kOk) {
    ServerLog(kLogErrors, ClientTag(id_) + ": cannot create its private pipe (system error " +
                              std::to_string(error) + ")");
    return false;
  }
  ConnectResponse response;
  response.private_pipe = private_pipe_name_;
  if (!well_known_.BeginWrite()) return false;
  if (!response.Encode(well_known_.Output())) {
    well_known_.EndWrite();
    return false;
  }
  if (well_known_.EndWrite() != PipeChannel::WriteStatus::kWritten) return false;

  std::unique_ptr<platform::Pipe> pipe;
  if (listener->Accept(pipe, stop_) != platform::IoResult::kOk) {
    ServerLog(kLogRefusals, ClientTag(id_) + " never opened its private pipe");
    return false;
  }
  // The socket file goes as soon as its one client is in.
  listener.reset();
  channel_.Adopt(std::move(pipe));
  // A Stop that came before Adopt reset the channel's signal; honour it now.
  if (stop_.IsSet()) return false;
  connected_ = true;
  return true;
}

void ClientSession::Serve() {
  registry_.AddClient({id_, process_id_}, this);
  ServerLog(kLogClients, ClientTag(id_) + " connected (process " + std::to_string(process_id_) +
                             ", pipe " + platform::Utf16ToUtf8(private_pipe_name_) + ")");
  bool writer_started = true;
  try {
    writer_ = std::thread(&ClientSession::WriteLoop, this);
  } catch (const std::exception&) {
    writer_started = false;
  }
  // A large body is taken apart as it arrives, its large byte field going from the pipe straight
  // into the request; the budget bounds how many such bodies all clients have in at once.
  channel_.ReadLargeBodiesInPart();
  channel_.AdmitLargeBodiesThrough([this](size_t bytes) {
    if (!budget_.Acquire(bytes, [this] { return channel_.Stopped(); })) return false;
    admitted_ = bytes;
    return true;
  });
  if (writer_started)
    Read();
  else
    EndReading();
  // The reading may have moved to a worker thread; the session ends when it ends there.
  {
    std::unique_lock lock(reading_mutex_);
    reading_cv_.wait(lock, [this] { return reading_ended_; });
  }
  // Nothing is posted to this session once the registry has let it go; the changes this client
  // started end with it, so its workers finish promptly.
  registry_.RemoveClient(id_);
  Stop();
  workers_.Stop();
  if (writer_.joinable()) writer_.join();
  channel_.Close();
  ServerLog(kLogClients, ClientTag(id_) + " disconnected");
}

void ClientSession::Read() {
  for (;;) {
    const PipeChannel::ReadStatus status = channel_.ReadFrame();
    std::shared_ptr<void> held = budget_.HoldUntilDropped(std::exchange(admitted_, 0));
    if (status == PipeChannel::ReadStatus::kBadFrame) {
      ServerLog(kLogRefusals, ClientTag(id_) + " sent a frame that cannot be delimited; closing");
      break;
    }
    if (status != PipeChannel::ReadStatus::kFrame) break;
    std::optional<RequestDispatcher::Call> call =
        dispatcher_.Decode(id_, process_id_, channel_.Input());
    channel_.ReleaseRead();
    if (!call.has_value()) {
      ServerLog(kLogRefusals, ClientTag(id_) + " sent a request without a header; closing");
      break;
    }
    call->held = std::move(held);
    // A worker takes over the reading and this thread answers the request that may wait: the
    // request then pays the worker's wake-up beside its handling rather than ahead of it.
    if (call->may_wait && workers_.Run([this] { Read(); })) {
      if (!Answer(*call)) Stop();
      return;
    }
    // Without a thread the request is still answered, only in line.
    if (!Answer(*call)) break;
  }
  EndReading();
}

void ClientSession::EndReading() {
  std::lock_guard lock(reading_mutex_);
  reading_ended_ = true;
  reading_cv_.notify_all();
}

bool ClientSession::Answer(RequestDispatcher::Call& call) {
  // The block of an answer written at once serves the next answer this thread writes (the
  // reading may move between threads, each with its own).
  thread_local MessageBuffer spare;
  auto answer = dispatcher_.Run(call, /*gather=*/true, std::move(spare));
  call = {};  // the request's bytes and its budget go before the answer waits in the queue
  if (!answer.has_value()) {
    ServerLog(kLogErrors, ClientTag(id_) + ": no memory to answer with; closing");
    return false;
  }
  if (answer->Size() == 0) return true;  // a call that goes unanswered when it succeeds
  try {
    Send(*answer);
  } catch (const std::exception&) {
    return false;
  }
  // What it referred to (a large read's pages) is let go now, not at the next answer.
  answer->Reset();
  if (answer->Capacity() <= kKeptAnswerBytes) spare = std::move(*answer);
  return true;
}

bool ClientSession::FrameOverdue(std::chrono::steady_clock::time_point now,
                                 std::chrono::steady_clock::duration limit) const {
  return channel_.FrameArrivingFor(now) > limit;
}

void ClientSession::WriteLoop() {
  // What has queued up while a frame went out leaves together, in one gathered write; a client
  // that reads slowly then costs one system call per batch rather than one per frame.
  std::vector<SharedBody> batch;
  std::vector<const MessageBuffer*> bodies;
  try {
    batch.reserve(kWriteBatchFrames);
    bodies.reserve(kWriteBatchFrames);
  } catch (const std::exception&) {
    Stop();
    return;
  }
  for (;;) {
    batch.clear();
    bodies.clear();
    {
      std::unique_lock lock(queue_mutex_);
      queue_cv_.wait(lock, [this] { return closing_ || (!queue_.empty() && !writing_); });
      if (closing_) return;
      size_t bytes = 0;
      while (!queue_.empty() && batch.size() < kWriteBatchFrames &&
             (batch.empty() || bytes + queue_.front()->BodySize() <= kWriteBatchBytes)) {
        bytes += queue_.front()->BodySize();
        queued_bytes_ -= queue_.front()->BodySize();
        batch.push_back(std::move(queue_.front()));
        queue_.pop_front();
      }
      writing_ = true;
    }
    for (const SharedBody& body : batch)
      bodies.push_back(body.get());
    const PipeChannel::WriteStatus written = channel_.WriteFrames(bodies);
    {
      std::lock_guard lock(queue_mutex_);
      writing_ = false;
    }
    if (written != PipeChannel::WriteStatus::kWritten) {
      Stop();
      return;
    }
  }
}

}  // namespace qv::server
