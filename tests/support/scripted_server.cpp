#include "support/scripted_server.h"

#include <string>
#include <vector>

#include "platform/process_identity.h"
#include "requests/catalogue.h"
#include "serverlink/frame.h"
#include "serverlink/handshake.h"

namespace qv::testing {

namespace {

constexpr uint32_t kResponseKind = 0;
constexpr uint32_t kNotificationKind = 1;

}  // namespace

bool ReadFrame(platform::Pipe& pipe, const platform::StopSignal& stop, std::vector<uint8_t>& body) {
  uint8_t header[kFrameHeaderBytes];
  uint32_t length = 0;
  if (pipe.ReadExact(header, sizeof header, stop) != platform::IoResult::kOk) return false;
  if (ParseFrameHeader(header, length) != FrameHeaderCheck::kOk) return false;
  body.resize(length);
  return length == 0 || pipe.ReadExact(body.data(), length, stop) == platform::IoResult::kOk;
}

bool WriteFrame(platform::Pipe& pipe, const platform::StopSignal& stop, const void* body,
                size_t size) {
  const auto header = EncodeFrameHeader(static_cast<uint32_t>(size));
  const std::span<const uint8_t> parts[] = {header, {static_cast<const uint8_t*>(body), size}};
  return pipe.Write(parts, stop) == platform::IoResult::kOk;
}

ScriptedServer::ScriptedServer(Options options, Script script)
    : options_(std::move(options)), script_(std::move(script)) {}

ScriptedServer::~ScriptedServer() {
  Stop();
}

bool ScriptedServer::Start() {
  uint32_t error = 0;
  if (platform::PipeListener::Create(std::u16string(kWellKnownPipeNamePrefix) + options_.user,
                                     well_known_, error) != platform::IoResult::kOk) {
    return false;
  }
  if (options_.mark_ready) {
    readiness_ = platform::ReadinessMarker::Create(options_.user,
                                                   platform::ServerRuntimeDirectory().value_or(""));
    if (readiness_ == nullptr) return false;
  }
  acceptor_ = std::thread(&ScriptedServer::AcceptLoop, this);
  return true;
}

void ScriptedServer::Stop() {
  stop_.Set();
  if (acceptor_.joinable()) acceptor_.join();
  readiness_.reset();
  well_known_.reset();
}

bool ScriptedServer::Handshake(platform::Pipe& pipe, const std::u16string& private_name) {
  std::vector<uint8_t> body;
  if (!ReadFrame(pipe, stop_, body)) return false;
  MessageBuffer in(body.data(), body.size());
  ConnectRequest request;
  if (!request.Decode(in) || options_.cut_handshake) return false;

  ConnectResponse response;
  response.private_pipe = private_name;
  response.version = options_.version;
  MessageBuffer answer;
  return response.Encode(answer) && WriteFrame(pipe, stop_, answer.Data(), answer.Size());
}

void ScriptedServer::AcceptLoop() {
  while (!stop_.IsSet()) {
    std::unique_ptr<platform::Pipe> well_known_client;
    if (well_known_->Accept(well_known_client, stop_) != platform::IoResult::kOk) return;
    // The private pipe listens before the handshake answer names it; each connection gets a
    // name of its own.
    std::u16string private_name;
    std::unique_ptr<platform::PipeListener> private_listener;
    if (!options_.empty_pipe_name) {
      private_name = u"vkxtest_" + options_.user + u"_" +
                     std::u16string(1, static_cast<char16_t>(u'a' + private_names_++ % 26));
      uint32_t error = 0;
      if (platform::PipeListener::Create(private_name, private_listener, error) !=
          platform::IoResult::kOk) {
        continue;
      }
    }
    const bool answered = Handshake(*well_known_client, private_name);
    well_known_client.reset();
    if (!answered || private_listener == nullptr) continue;

    std::unique_ptr<platform::Pipe> client;
    if (private_listener->Accept(client, stop_) != platform::IoResult::kOk) continue;
    private_listener.reset();
    ++connections_;
    const auto serving = [this](platform::Pipe* pipe) {
      std::lock_guard lock(write_mutex_);
      client_ = pipe;
    };
    serving(client.get());
    Serve(*client);
    serving(nullptr);
  }
}

void ScriptedServer::Serve(platform::Pipe& pipe) {
  std::vector<uint8_t> body;
  while (ReadFrame(pipe, stop_, body)) {
    ++requests_;
    ReceivedRequest received;
    MessageBuffer in(body.data(), body.size());
    if (!ReadField(in, received.type_number) || !ReadField(in, received.target_handle) ||
        !ReadField(in, received.sequence)) {
      return;
    }
    received.request = RequestFactory().Create(received.type_number);
    if (received.request != nullptr) received.request->Deserialize(in);
    const Reply reply = script_(received);

    uint32_t type_number = received.type_number;
    uint32_t sequence = received.sequence;
    switch (reply.kind) {
      case Reply::Kind::kSilent:
        continue;
      case Reply::Kind::kClose:
        return;
      case Reply::Kind::kBadFrame: {
        const uint8_t bad[kFrameHeaderBytes] = {1};
        const std::span<const uint8_t> parts[] = {bad};
        std::lock_guard lock(write_mutex_);
        pipe.Write(parts, stop_);
        continue;
      }
      case Reply::Kind::kWrongClass:
        type_number = type_number == CGetTargetListResponse::kTypeNumber
                          ? CGetDefaultTargetResponse::kTypeNumber
                          : CGetTargetListResponse::kTypeNumber;
        break;
      case Reply::Kind::kUnawaited:
        sequence ^= 0x40000000;
        break;
      case Reply::Kind::kAnswer:
        break;
    }
    auto response = ResponseFactory().Create(type_number);
    if (response == nullptr) continue;
    response->Result = reply.result;
    response->ResultText = reply.text;
    response->Sequence = sequence;
    if (reply.fill && reply.result == 0) reply.fill(*response);
    MessageBuffer out;
    WriteField(out, kResponseKind);
    WriteField(out, type_number);
    response->Serialize(out);
    std::lock_guard lock(write_mutex_);
    if (!WriteFrame(pipe, stop_, out.Data(), out.Size())) return;
  }
}

bool ScriptedServer::Notify(const CNotification& notification) {
  MessageBuffer out;
  WriteField(out, kNotificationKind);
  WriteField(out, notification.GetTypeNumber());
  notification.Serialize(out);
  std::lock_guard lock(write_mutex_);
  return client_ != nullptr && WriteFrame(*client_, stop_, out.Data(), out.Size());
}

}  // namespace qv::testing
