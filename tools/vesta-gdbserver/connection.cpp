#include "connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace vesta_gdb {
namespace {

// Written by the signal handler only: the one state a handler may touch.
volatile sig_atomic_t g_terminate = 0;

void OnTerminate(int) {
  g_terminate = 1;
}

}  // namespace

void CatchTermination() {
  struct sigaction action {};
  action.sa_handler = OnTerminate;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: poll() returns EINTR
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);
}

bool TerminationRequested() {
  return g_terminate != 0;
}

Connection::~Connection() {
  if (!owned_) return;
  close(in_);
  if (out_ != in_) close(out_);
}

bool Connection::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = write(out_, bytes.data(), bytes.size());
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

size_t Connection::Read(char* buffer, size_t size) {
  for (;;) {
    const ssize_t got = read(in_, buffer, size);
    if (got < 0 && errno == EINTR) continue;
    return got > 0 ? static_cast<size_t>(got) : 0;
  }
}

std::optional<int> AcceptOnLoopback(const std::string& where, std::string& error) {
  const size_t colon = where.rfind(':');
  const std::string host = colon == std::string::npos ? "" : where.substr(0, colon);
  if (host != "127.0.0.1" && host != "localhost") {
    error = "--listen takes 127.0.0.1:PORT or localhost:PORT: the bridge listens on loopback only";
    return std::nullopt;
  }
  const std::string port_text = where.substr(colon + 1);
  unsigned port = 0;
  const char* end = port_text.data() + port_text.size();
  if (const auto [stop, failure] = std::from_chars(port_text.data(), end, port);
      port_text.empty() || failure != std::errc() || stop != end || port > 65535) {
    error = "--listen: '" + port_text + "' is not a port number";
    return std::nullopt;
  }
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    error = std::string("cannot make a socket: ") + std::strerror(errno);
    return std::nullopt;
  }
  const int yes = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 1) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    error = "cannot listen on " + where + ": " + std::strerror(errno);
    close(listener);
    return std::nullopt;
  }
  std::fprintf(stderr, "Listening on port %u\n", ntohs(address.sin_port));
  std::fflush(stderr);
  int peer = -1;
  do {
    peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  } while (peer < 0 && errno == EINTR);
  close(listener);
  if (peer < 0) {
    error = std::string("accept failed: ") + std::strerror(errno);
    return std::nullopt;
  }
  // Packets are small and answered one by one: no waiting to fill a segment.
  setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  return peer;
}

}  // namespace vesta_gdb
