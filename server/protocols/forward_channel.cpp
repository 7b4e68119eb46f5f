// A forwarded protocol: one stream connection per open, to a loopback TCP port or a Unix socket
// of this machine. The kernel's socket buffers are the channel's bounded buffer.

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/wide_string.h"
#include "server/protocols/protocol_channel.h"

namespace qv::server {
namespace {

std::u16string Describe(const ForwardAddress& address) {
  return platform::Utf8ToUtf16(address.kind == ForwardAddress::Kind::kTcp
                                   ? "tcp:127.0.0.1:" + std::to_string(address.port)
                                   : "unix:" + address.path);
}

class ForwardChannel final : public ProtocolChannel {
 public:
  ForwardChannel(uint32_t protocol, int fd) : protocol_(protocol), fd_(fd) {}
  ~ForwardChannel() override { ::close(fd_); }

  Status Write(const Bytes& data, uint32_t& written) override {
    written = 0;
    if (!open_) return ClosedByEndpoint(protocol_);
    if (data.empty()) return Status::Ok();
    pollfd ready{fd_, POLLOUT, 0};
    if (::poll(&ready, 1, static_cast<int>(kWriteWait.count())) <= 0) return Status::Ok();
    while (written < data.size()) {
      const ssize_t sent =
          ::send(fd_, data.data() + written, data.size() - written, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        written += static_cast<uint32_t>(sent);
      } else if (errno == EINTR) {
        continue;
      } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
        break;  // full: the caller learns how far it got
      } else {
        open_ = false;
        return written != 0 ? Status::Ok() : ClosedByEndpoint(protocol_);
      }
    }
    return Status::Ok();
  }

  Status Read(uint32_t size, Bytes& data) override {
    data.clear();
    if (!open_) return ClosedByEndpoint(protocol_);
    pollfd ready{fd_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(kReadWait.count())) <= 0) return Status::Ok();
    data.resize(std::min<size_t>(size, kChannelBuffer));
    ssize_t got = -1;
    do {
      got = ::recv(fd_, data.data(), data.size(), MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))) {
      data.resize(got > 0 ? static_cast<size_t>(got) : 0);
      return Status::Ok();
    }
    data.clear();
    open_ = false;
    return ClosedByEndpoint(protocol_);
  }

  bool IsOpen() const override { return open_; }
  // Wakes a read or write waiting in poll; the descriptor closes with the last user.
  void Close() override {
    open_ = false;
    ::shutdown(fd_, SHUT_RDWR);
  }

 private:
  const uint32_t protocol_;
  const int fd_;
  std::atomic<bool> open_{true};
};

}  // namespace

Status OpenForwardChannel(const ProtocolEndpoint& endpoint,
                          std::unique_ptr<ProtocolChannel>& channel) {
  const ForwardAddress& address = endpoint.forward;
  const bool tcp = address.kind == ForwardAddress::Kind::kTcp;
  sockaddr_storage storage{};
  socklen_t length = 0;
  if (tcp) {
    auto* in = reinterpret_cast<sockaddr_in*>(&storage);
    in->sin_family = AF_INET;
    in->sin_port = htons(address.port);
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof *in;
  } else {
    auto* un = reinterpret_cast<sockaddr_un*>(&storage);
    if (address.path.size() >= sizeof un->sun_path) {
      return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL,
                          u"the socket path " + Describe(address) + u" is too long");
    }
    un->sun_family = AF_UNIX;
    std::memcpy(un->sun_path, address.path.c_str(), address.path.size() + 1);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.path.size() + 1);
  }
  const int fd = ::socket(tcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL,
                        u"no socket for " + Describe(address) + u": " +
                            platform::Utf8ToUtf16(std::strerror(errno)));
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&storage), length) != 0) {
    const int error = errno;
    ::close(fd);
    return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL,
                        u"protocol " + platform::Utf8ToUtf16(std::to_string(endpoint.number)) +
                            u" forwards to " + Describe(address) + u", which refused: " +
                            platform::Utf8ToUtf16(std::strerror(error)));
  }
  if (tcp) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  channel = std::make_unique<ForwardChannel>(endpoint.number, fd);
  return Status::Ok();
}

}  // namespace qv::server
