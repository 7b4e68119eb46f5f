// A forwarded protocol: one stream connection per open, to a loopback TCP port or a Unix socket
// of this machine. The kernel's socket buffers are the channel's bounded buffer.

#include <algorithm>
#include <string>

#include "platform/stream_socket.h"
#include "platform/wide_string.h"
#include "server/protocols/protocol_channel.h"

namespace qv::server {
namespace {

using platform::StreamSocket;

std::u16string ForwardText(const ForwardAddress& address) {
  return platform::Utf8ToUtf16(address.kind == ForwardAddress::Kind::kTcp
                                   ? "tcp:127.0.0.1:" + std::to_string(address.port)
                                   : "unix:" + address.path);
}

class ForwardChannel final : public ProtocolChannel {
 public:
  ForwardChannel(uint32_t protocol, std::unique_ptr<StreamSocket> socket)
      : protocol_(protocol), socket_(std::move(socket)) {}

  Status Write(const Bytes& data, uint32_t& written) override {
    size_t sent = 0;
    const auto result =
        socket_->Send(data.data(), data.size(), static_cast<int>(kWriteWait.count()), sent);
    written = static_cast<uint32_t>(sent);
    return result == StreamSocket::Result::kOk ? Status::Ok() : ClosedByEndpoint(protocol_);
  }
  Status Read(uint32_t size, Bytes& data) override {
    data.resize(std::min<size_t>(size, kChannelBuffer));
    size_t got = 0;
    const auto result =
        socket_->Receive(data.data(), data.size(), static_cast<int>(kReadWait.count()), got);
    data.resize(got);
    return result == StreamSocket::Result::kOk ? Status::Ok() : ClosedByEndpoint(protocol_);
  }
  bool IsOpen() const override { return socket_->IsOpen(); }
  void Close() override { socket_->Shutdown(); }

 private:
  const uint32_t protocol_;
  const std::unique_ptr<StreamSocket> socket_;
};

}  // namespace

Status OpenForwardChannel(const ProtocolEndpoint& endpoint,
                          std::unique_ptr<ProtocolChannel>& channel) {
  const ForwardAddress& address = endpoint.forward;
  std::string error;
  auto socket = address.kind == ForwardAddress::Kind::kTcp
                    ? StreamSocket::ConnectLoopback(address.port, error)
                    : StreamSocket::ConnectUnix(address.path, error);
  if (socket == nullptr) {
    return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL,
                        u"protocol " + platform::Utf8ToUtf16(std::to_string(endpoint.number)) +
                            u" forwards to " + ForwardText(address) +
                            u", which cannot be reached: " + platform::Utf8ToUtf16(error));
  }
  channel = std::make_unique<ForwardChannel>(endpoint.number, std::move(socket));
  return Status::Ok();
}

}  // namespace qv::server
