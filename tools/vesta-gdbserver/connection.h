#pragma once
// The byte stream to the debugger: standard input and output (gdb's "target remote | ..."), or
// one connection accepted on a loopback port.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vesta_gdb {

class Connection {
 public:
  // Takes ownership of the descriptors only when `owned`.
  Connection(int in_fd, int out_fd, bool owned) : in_(in_fd), out_(out_fd), owned_(owned) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int in_fd() const { return in_; }
  // Everything, or false once the peer has gone.
  bool Write(std::string_view bytes);
  // Some bytes; 0 when the peer has gone.
  size_t Read(char* buffer, size_t size);

 private:
  int in_;
  int out_;
  bool owned_;
};

// SIGTERM and SIGHUP (gdb ends a "target remote | ..." bridge with SIGTERM) interrupt the bridge's
// wait instead of ending the process, so that it can end or leave the debugged process first.
void CatchTermination();
bool TerminationRequested();

// "127.0.0.1:PORT" or "localhost:PORT" (never another address): listens there, says "Listening on
// port N" on standard error (port 0 picks a free one), and accepts one connection. nullopt with
// `error` set when it cannot.
std::optional<int> AcceptOnLoopback(const std::string& where, std::string& error);

}  // namespace vesta_gdb
