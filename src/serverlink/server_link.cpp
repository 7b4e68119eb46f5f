#include "serverlink/server_link.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <new>
#include <optional>
#include <string>

#include "platform/pipe.h"
#include "platform/process_identity.h"
#include "platform/server_process.h"
#include "platform/thread_timing.h"
#include "platform/wide_string.h"
#include "serverlink/answer_limit.h"
#include "serverlink/log.h"

namespace qv {

namespace {

constexpr const char* kServerExecutableName =
#ifdef _WIN32
    "vesta-kx.exe";
#else
    "vesta-kx";
#endif

std::string ThreadTag() {
  return LogHex(std::hash<std::thread::id>{}(std::this_thread::get_id()));
}

// "0.25", "5": a limit as a person would write it.
std::string SecondsText(std::chrono::milliseconds limit) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", static_cast<double>(limit.count()) / 1000.0);
  return text;
}

}  // namespace

ServerLink::ServerLink(const MessageFactory<CResponse>& responses,
                       const MessageFactory<CNotification>& notifications, ServerNames names,
                       Hooks hooks)
    : names_(std::move(names)),
      hooks_(std::move(hooks)),
      dispatcher_(responses, notifications, store_,
                  [this](std::shared_ptr<CNotification> notification) {
                    if (hooks_.notification) hooks_.notification(std::move(notification));
                  }) {
  channel_.ReadLargeBodiesInPart();
}

ServerLink::~ServerLink() {
  std::lock_guard lock(connect_mutex_);
  DisconnectLocked();
}

void ServerLink::SetSequenceForTesting(uint32_t value) {
  sequence_.Restart(value);
}

bool ServerLink::IsConnected() const {
  return connected_.load(std::memory_order_acquire);
}

LinkStatus ServerLink::Connect() {
  bool connected_now = false;
  {
    std::lock_guard lock(connect_mutex_);
    const LinkStatus status = ConnectLocked(connected_now);
    if (status != LinkStatus::kSuccess) return status;
  }
  // Only for a connection this call made, and after the lock: the hook sends requests.
  if (connected_now && hooks_.connected) hooks_.connected();
  return LinkStatus::kSuccess;
}

LinkStatus ServerLink::StartFailed(LinkStatus status, std::string why) {
  LogApi(Log::kErrors, why);
  LogApi(Log::kErrors, "Failed to start server");
  try {
    start_failure_ = platform::Utf8ToUtf16(why);
  } catch (const std::bad_alloc&) {
    start_failure_.clear();
  }
  return status;
}

LinkStatus ServerLink::EnsureServerRunning() {
  start_failure_.clear();
  if (!names_.runtime_dir_problem.empty()) {
    return StartFailed(LinkStatus::kServerStartFailed, names_.runtime_dir_problem);
  }
  if (platform::ServerIsReady(names_.user, names_.runtime_dir, kServerReadyWaitMs)) {
    return LinkStatus::kSuccess;
  }
  LogApi(Log::kPackets, "Server not running");
  const auto executable = platform::FindServerExecutable();
  if (!executable) {
    return StartFailed(LinkStatus::kServerStartFailed,
                       std::string(kServerExecutableName) +
                           " was found neither beside the program nor along PATH.");
  }
  int error = 0;
  if (!platform::StartServerProcess(*executable, &error)) {
    return StartFailed(LinkStatus::kServerStartFailed,
                       "Could not start " + platform::Utf16ToUtf8(*executable) + ": " +
                           platform::StartErrorText(error) + ".");
  }
  // A first start under Wine or a sanitizer takes a while: keep asking until the deadline.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kServerReadyWaitMs);
  while (!platform::ServerIsReady(names_.user, names_.runtime_dir, 50)) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return StartFailed(LinkStatus::kServerNotReachable,
                         platform::Utf16ToUtf8(*executable) + " started but was not ready within " +
                             std::to_string(kServerReadyWaitMs / 1000) +
                             " s; its log says why (vesta-kx --log-level 2 in a terminal).");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return LinkStatus::kSuccess;
}

LinkStatus ServerLink::Handshake(ConnectResponse& answer) {
  PipeChannel well_known;
  if (!well_known.Open(std::u16string(kWellKnownPipeNamePrefix) + names_.user, kPipeWaitMs)) {
    LogApi(Log::kErrors, "Failed to open comms ");
    return LinkStatus::kConnectFailed;
  }
  LinkStatus status = LinkStatus::kConnectFailed;
  if (well_known.BeginWrite()) {
    ConnectRequest request;
    request.process_id = platform::CurrentProcessId();
    request.client_number = client_number_range_(client_numbers_);
    const bool built = request.Encode(well_known.Output());
    if (built && well_known.EndWrite() == PipeChannel::WriteStatus::kWritten &&
        well_known.ReadFrame() == PipeChannel::ReadStatus::kFrame) {
      const bool decoded = answer.Decode(well_known.Input());
      well_known.ReleaseRead();
      status = decoded ? LinkStatus::kSuccess : LinkStatus::kVersionMismatch;
    } else if (!built) {
      well_known.CancelWrite();
    }
  }
  if (status != LinkStatus::kSuccess) LogApi(Log::kErrors, "Failed sending connect request");
  well_known.Close();
  return status;
}

LinkStatus ServerLink::ConnectLocked(bool& connected_now) {
  connected_now = false;
  if (IsConnected()) return LinkStatus::kSuccess;
  if (shutting_down_) return LinkStatus::kShuttingDown;
  // A reader that ended (the server went away) is joined and its pipe closed before a new one.
  DisconnectLocked();

  if (const LinkStatus status = EnsureServerRunning(); status != LinkStatus::kSuccess) {
    return status;
  }
  ConnectResponse answer;
  if (const LinkStatus status = Handshake(answer); status != LinkStatus::kSuccess) {
    return status;
  }
  const std::u16string& private_pipe = answer.private_pipe;
  private_pipe_ = private_pipe;
  if (private_pipe.empty() || !channel_.Open(private_pipe, kPipeWaitMs)) {
    LogApi(Log::kErrors, "Failed to open communication path");
    return LinkStatus::kConnectFailed;
  }
  store_.Reset();
  connected_.store(true, std::memory_order_release);
  try {
    reader_ = std::thread(&ServerLink::ReadLoop, this);
  } catch (const std::exception&) {
    DisconnectLocked();
    return LinkStatus::kConnectFailed;
  }
  if (answer.version != kProtocolVersionWords) {
    DisconnectLocked();
    return LinkStatus::kVersionMismatch;
  }
  connected_now = true;
  return LinkStatus::kSuccess;
}

bool ServerLink::ReadOneFrame(IncomingDispatcher::Outcome& outcome,
                              IncomingDispatcher::OwnAnswer* own) {
  if (channel_.ReadFrame() != PipeChannel::ReadStatus::kFrame) return false;
  outcome = dispatcher_.Dispatch(channel_.Input(), own);
  channel_.ReleaseRead();
  return outcome != IncomingDispatcher::Outcome::kNoKind;
}

void ServerLink::ReadLoop() {
  LogApi(Log::kPackets, "Started read thread 0x" + ThreadTag());
  // Its stand-aside after a caller's read is a few tens of microseconds.
  platform::UsePreciseTimedWaits();
  IncomingDispatcher::Outcome outcome{};
  bool watched = false;  // this turn follows a wake-up of the pipe's
  while (store_.AwaitReadThreadsTurn()) {
    // Where the pipe can be watched without reading it, this thread holds it only while a frame
    // is there: a caller that comes meanwhile reads its own answer rather than wait for this
    // thread to hand it over, and a notification is read as soon as it comes.
    if (platform::Pipe::kWaitsWithoutReading && !channel_.HasInput()) {
      store_.EndReadThreadsTurn(watched ? PendingResponseStore::Found::kNothing
                                        : PendingResponseStore::Found::kFrame);
      if (!channel_.AwaitInput()) break;
      watched = true;
      continue;
    }
    watched = false;
    bool notified = false;
    bool read = true;
    do {
      read = ReadOneFrame(outcome);
      notified = notified || outcome == IncomingDispatcher::Outcome::kNotificationQueued;
    } while (read && channel_.HasReadAhead());
    store_.EndReadThreadsTurn(notified ? PendingResponseStore::Found::kNotification
                                       : PendingResponseStore::Found::kFrame);
    if (!read) break;
  }
  LogApi(Log::kPackets, "Exited read thread 0x" + ThreadTag() +
                            " LastError: " + std::to_string(channel_.LastSystemError()));
  connected_.store(false, std::memory_order_release);
  store_.Abort();
}

bool ServerLink::ReadForOwnAnswer(uint32_t sequence, CResponse& response) {
  IncomingDispatcher::Outcome outcome{};
  bool read = true;
  IncomingDispatcher::OwnAnswer own{sequence, &response};
  while ((read = ReadOneFrame(outcome, &own))) {
    if (own.taken || own.filed) break;
  }
  // Frames read ahead go to their owners before the pipe is let go: the read thread watches the
  // pipe, and would not see them.
  while (read && channel_.HasReadAhead())
    read = ReadOneFrame(outcome);
  if (!read) {
    // The connection is over: nobody reads it again, and every waiter hears so, as when the
    // read thread finds it over.
    channel_.Stop();
    connected_.store(false, std::memory_order_release);
    store_.Abort();
  }
  return own.taken;
}

void ServerLink::Disconnect() {
  std::lock_guard lock(connect_mutex_);
  DisconnectLocked();
}

void ServerLink::DisconnectLocked() {
  connected_.store(false, std::memory_order_release);
  if (reader_.joinable()) {
    channel_.Stop();
    store_.Abort();  // the read thread may be standing aside for callers
    reader_.join();
  }
  // A caller reading for its own answer finds the pipe stopped and lets go of it.
  store_.AwaitNoCallerReading();
  if (channel_.IsOpen()) {
    LogApi(Log::kPackets, "Close pipe, Handle " + platform::Utf16ToUtf8(private_pipe_));
    channel_.Close();
  }
  store_.Abort();
}

void ServerLink::Shutdown() {
  std::lock_guard lock(connect_mutex_);
  shutting_down_ = true;
  DisconnectLocked();
}

LinkStatus ServerLink::SendRequest(uint32_t target_handle, const CRequest& request,
                                   uint32_t& sequence, bool expect_response, uint64_t& epoch,
                                   std::shared_ptr<BulkLanding> landing) {
  if (!IsConnected()) {
    if (!expect_response) return LinkStatus::kNotConnected;
    if (const LinkStatus status = Connect(); status != LinkStatus::kSuccess) return status;
    if (!IsConnected()) return LinkStatus::kNotConnected;
  }
  return Write(target_handle, request, sequence, expect_response, epoch, std::move(landing));
}

LinkStatus ServerLink::Write(uint32_t target_handle, const CRequest& request, uint32_t& sequence,
                             bool expect_response, uint64_t& epoch,
                             std::shared_ptr<BulkLanding> landing) {
  // The lock is refused only while the connection is being torn down.
  if (!channel_.BeginWrite()) return LinkStatus::kWaitFailed;
  sequence = sequence_.Next();
  if (expect_response && !store_.Await(sequence, std::move(landing), &epoch)) {
    channel_.CancelWrite();
    return LinkStatus::kWaitFailed;
  }
  if (!AppendRequest(target_handle, request, sequence)) {
    // Nothing half-built goes out: the frame is dropped with its body.
    channel_.CancelWrite();
    store_.Forget(sequence);
    return LinkStatus::kWriteFailed;
  }
  const PipeChannel::WriteStatus status = channel_.EndWrite();
  if (status == PipeChannel::WriteStatus::kTooLarge) store_.Forget(sequence);
  return Written(status);
}

LinkStatus ServerLink::PostEach(std::span<const uint32_t> target_handles, const CRequest& request) {
  if (target_handles.empty()) return LinkStatus::kSuccess;
  if (target_handles.size() > kPostEachMax) return LinkStatus::kWriteFailed;
  if (!IsConnected()) return LinkStatus::kNotConnected;
  if (!channel_.BeginWrite()) return LinkStatus::kWaitFailed;
  std::array<size_t, kPostEachMax> ends;
  for (size_t i = 0; i < target_handles.size(); ++i) {
    if (!AppendRequest(target_handles[i], request, sequence_.Next())) {
      channel_.CancelWrite();
      return LinkStatus::kWriteFailed;
    }
    ends[i] = channel_.Output().Size();
  }
  return Written(channel_.EndWriteFrames(std::span(ends.data(), target_handles.size())));
}

bool ServerLink::AppendRequest(uint32_t target_handle, const CRequest& request, uint32_t sequence) {
  MessageBuffer& body = channel_.Output();
  if (!WriteRequestHeader(body, request.GetTypeNumber(), target_handle, sequence) ||
      !request.Serialize(body)) {
    return false;
  }
  if (LibraryLog().Enabled(Log::kPackets)) {
    LogApi(Log::kPackets, "SENT: " + platform::Utf16ToUtf8(request.GetName()) + " " +
                              LogHex(request.GetTypeNumber()) + " " + LogHex(target_handle) + " " +
                              LogHex(sequence) + " " + request.ToString());
  }
  return true;
}

LinkStatus ServerLink::Written(PipeChannel::WriteStatus status) {
  switch (status) {
    case PipeChannel::WriteStatus::kWritten:
      return LinkStatus::kSuccess;
    case PipeChannel::WriteStatus::kTooLarge:
      return LinkStatus::kWriteFailed;
    case PipeChannel::WriteStatus::kStopped:
    case PipeChannel::WriteStatus::kFailed:
      // The connection is broken: ending it wakes the waiter with the wait error rather than
      // leaving it waiting for an answer to a request that never left.
      channel_.Stop();
      return LinkStatus::kSuccess;
  }
  return LinkStatus::kSuccess;
}

LinkStatus ServerLink::WaitResponse(CResponse& response, uint32_t sequence, uint64_t epoch) {
  std::shared_ptr<CResponse> arrived;
  const std::chrono::milliseconds limit = ThisThreadsAnswerLimit();
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (limit.count() > 0) deadline = std::chrono::steady_clock::now() + limit;
  std::error_code waited = store_.Wait(sequence, epoch, arrived, deadline, /*may_read=*/true);
  while (waited == WaitError::kWaitReadYourself) {
    if (ReadForOwnAnswer(sequence, response)) {
      store_.EndCallerRead(sequence);
      return LinkStatus::kSuccess;
    }
    waited = store_.EndCallerReadAndWait(sequence, epoch, arrived);
  }
  if (waited == WaitError::kWaitTimedOut) {
    LogApi(Log::kPackets, "No answer to " + LogHex(sequence) + " within " +
                              std::to_string(limit.count()) + " ms; giving up");
    try {
      response.ResultText =
          u"The server did not answer within " + platform::Utf8ToUtf16(SecondsText(limit)) + u" s.";
    } catch (const std::bad_alloc&) {
    }
    return LinkStatus::kTimedOut;
  }
  if (waited != WaitError::kWaitSuccess || arrived == nullptr) return LinkStatus::kWaitFailed;
  if (arrived->Result != 0) {
    response.Result = arrived->Result;
    response.ResultText = std::move(arrived->ResultText);
    response.Sequence = arrived->Sequence;
    return LinkStatus::kSuccess;
  }
  return response.Assign(arrived) ? LinkStatus::kSuccess : LinkStatus::kWrongResponseType;
}

LinkStatus ServerLink::SendAndWait(uint32_t target_handle, const CRequest& request,
                                   CResponse& response, uint32_t& sequence,
                                   std::shared_ptr<BulkLanding> landing) {
  uint64_t epoch = 0;
  if (const LinkStatus status =
          SendRequest(target_handle, request, sequence, true, epoch, std::move(landing));
      status != LinkStatus::kSuccess) {
    if (status == LinkStatus::kServerStartFailed || status == LinkStatus::kServerNotReachable) {
      std::lock_guard lock(connect_mutex_);
      try {
        response.ResultText = start_failure_;
      } catch (const std::bad_alloc&) {
      }
    }
    return status;
  }
  return WaitResponse(response, sequence, epoch);
}

LinkStatus ServerLink::SendAndWaitIfConnected(uint32_t target_handle, const CRequest& request,
                                              CResponse& response, uint32_t& sequence) {
  if (!IsConnected()) return LinkStatus::kNotConnected;
  uint64_t epoch = 0;
  if (const LinkStatus status = Write(target_handle, request, sequence, true, epoch, nullptr);
      status != LinkStatus::kSuccess) {
    return status;
  }
  return WaitResponse(response, sequence, epoch);
}

}  // namespace qv
