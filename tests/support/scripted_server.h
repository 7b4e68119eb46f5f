#pragma once
// A stand-in server for the link's tests: it performs the handshake with a chosen version and
// private pipe name, then answers each request as a script says. It is test support, not the
// product server.

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/pipe.h"
#include "platform/server_process.h"
#include "serverlink/messages.h"

namespace qv::testing {

// One frame's body read from `pipe`; false when the pipe ends, `stop` is set or the frame is bad.
bool ReadFrame(platform::Pipe& pipe, const platform::StopSignal& stop, std::vector<uint8_t>& body);
// `body` with its frame header, in one write.
bool WriteFrame(platform::Pipe& pipe, const platform::StopSignal& stop, const void* body,
                size_t size);

struct ReceivedRequest {
  uint32_t type_number = 0;
  uint32_t target_handle = 0;
  uint32_t sequence = 0;
  std::shared_ptr<CRequest> request;  // null when the type number is unknown
};

struct Reply {
  enum class Kind {
    kAnswer,      // a response of the request's class, Result as below
    kWrongClass,  // a response of another class with the request's sequence number
    kUnawaited,   // a response of the right class with another sequence number
    kSilent,      // no answer at all
    kBadFrame,    // a frame whose first header word is 1
    kClose,       // close this client's pipe
  };
  Kind kind = Kind::kAnswer;
  uint32_t result = 0;
  std::u16string text;
  // Fills the response's own fields (kAnswer with result 0).
  std::function<void(CResponse&)> fill;
};

using Script = std::function<Reply(const ReceivedRequest&)>;

class ScriptedServer {
 public:
  struct Options {
    std::u16string user;  // the user part of the pipe and readiness names
    std::array<uint32_t, 4> version{5, 0, 10, 0};
    bool empty_pipe_name = false;  // answer the handshake with an empty private pipe name
    bool cut_handshake = false;    // close the well-known pipe instead of answering
    bool mark_ready = true;        // signal readiness once listening
  };

  ScriptedServer(Options options, Script script);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // Listens on the well-known pipe and starts serving. False when the name cannot be served.
  bool Start();
  // Stops serving and closes every pipe.
  void Stop();

  // Sends a notification to the client being served; false when none is connected.
  bool Notify(const CNotification& notification);

  // How many clients completed the handshake, and how many requests arrived.
  int Connections() const { return connections_.load(); }
  int Requests() const { return requests_.load(); }

 private:
  void AcceptLoop();
  bool Handshake(platform::Pipe& pipe, const std::u16string& private_name);
  void Serve(platform::Pipe& pipe);

  Options options_;
  Script script_;
  platform::StopSignal stop_;
  std::unique_ptr<platform::PipeListener> well_known_;
  std::unique_ptr<platform::ReadinessMarker> readiness_;
  std::thread acceptor_;
  std::mutex write_mutex_;            // one frame at a time on the client's pipe
  platform::Pipe* client_ = nullptr;  // guarded by write_mutex_
  std::atomic<int> connections_{0};
  std::atomic<int> requests_{0};
  int private_names_ = 0;
};

}  // namespace qv::testing
