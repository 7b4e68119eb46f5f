#include "platform/stream_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace qv::platform {
namespace {

std::unique_ptr<StreamSocket> Connect(int family, const sockaddr* address, socklen_t length,
                                      std::string& error,
                                      std::unique_ptr<StreamSocket> (*make)(int)) {
  const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::strerror(errno);
    return nullptr;
  }
  if (::connect(fd, address, length) != 0) {
    error = std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  if (family == AF_INET) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return make(fd);
}

// Waits up to `wait_ms` for `events` on `fd`: false when they did not come.
bool Ready(int fd, short events, int wait_ms) {
  pollfd ready{fd, events, 0};
  int result = 0;
  do {
    result = ::poll(&ready, 1, wait_ms);
  } while (result < 0 && errno == EINTR);
  return result > 0;
}

}  // namespace

std::unique_ptr<StreamSocket> StreamSocket::ConnectLoopback(uint16_t port, std::string& error) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return Connect(AF_INET, reinterpret_cast<const sockaddr*>(&address), sizeof address, error,
                 [](int fd) { return std::unique_ptr<StreamSocket>(new StreamSocket(fd)); });
}

std::unique_ptr<StreamSocket> StreamSocket::ConnectUnix(const std::string& path,
                                                        std::string& error) {
  sockaddr_un address{};
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    error = "the path does not fit a socket address";
    return nullptr;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return Connect(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), length, error,
                 [](int fd) { return std::unique_ptr<StreamSocket>(new StreamSocket(fd)); });
}

StreamSocket::~StreamSocket() {
  ::close(fd_);
}

StreamSocket::Result StreamSocket::Send(const uint8_t* data, size_t size, int wait_ms,
                                        size_t& sent) noexcept {
  sent = 0;
  if (!open_) return Result::kClosed;
  if (size == 0 || !Ready(fd_, POLLOUT, wait_ms)) return Result::kOk;
  while (sent < size) {
    const ssize_t done = ::send(fd_, data + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (done > 0) {
      sent += static_cast<size_t>(done);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      break;  // full: the caller learns how far it got
    } else if (errno != EINTR) {
      open_ = false;
      return sent != 0 ? Result::kOk : Result::kClosed;
    }
  }
  return Result::kOk;
}

StreamSocket::Result StreamSocket::Receive(uint8_t* data, size_t size, int wait_ms,
                                           size_t& got) noexcept {
  got = 0;
  if (!open_) return Result::kClosed;
  if (size == 0 || !Ready(fd_, POLLIN, wait_ms)) return Result::kOk;
  ssize_t done = -1;
  do {
    done = ::recv(fd_, data, size, MSG_DONTWAIT);
  } while (done < 0 && errno == EINTR);
  if (done > 0) {
    got = static_cast<size_t>(done);
    return Result::kOk;
  }
  if (done < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Result::kOk;
  open_ = false;
  return Result::kClosed;
}

void StreamSocket::Shutdown() noexcept {
  open_ = false;
  ::shutdown(fd_, SHUT_RDWR);
}

}  // namespace qv::platform
