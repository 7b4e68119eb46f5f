#pragma once
// A stream connection to a socket of this machine, a loopback TCP port or a Unix socket path: what
// the local target's forwarded protocols connect to (POSIX only; Windows has no local target).
// Every wait is bounded and ends early once Shutdown has been called, from any thread.

#ifndef _WIN32

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qv::platform {

class StreamSocket {
 public:
  enum class Result {
    kOk,
    kClosed,  // the peer closed its side (or Shutdown was called), and nothing is left to read
  };

  // Connects to 127.0.0.1:`port`; null with `error` set (the system's reason) when it cannot.
  static std::unique_ptr<StreamSocket> ConnectLoopback(uint16_t port, std::string& error);
  // Connects to the Unix socket at `path`; null with `error` set when it cannot.
  static std::unique_ptr<StreamSocket> ConnectUnix(const std::string& path, std::string& error);

  ~StreamSocket();
  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;

  // Sends what the socket takes, waiting up to `wait_ms` while it takes nothing; `sent` may be
  // short, even 0. Never raises SIGPIPE.
  Result Send(const uint8_t* data, size_t size, int wait_ms, size_t& sent) noexcept;
  // Receives up to `size` bytes, waiting up to `wait_ms` for the first; `got` 0 means none came.
  Result Receive(uint8_t* data, size_t size, int wait_ms, size_t& got) noexcept;
  bool IsOpen() const noexcept { return open_; }
  // Ends the connection's waits and the connection; the descriptor closes with the object.
  void Shutdown() noexcept;

 private:
  explicit StreamSocket(int fd) noexcept : fd_(fd) {}

  const int fd_;
  std::atomic<bool> open_{true};
};

}  // namespace qv::platform

#endif  // _WIN32
