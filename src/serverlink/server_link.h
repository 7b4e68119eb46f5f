#pragma once
// The connection to the per-user server: found or started on demand, a handshake on the server's
// well-known pipe, then a private pipe for this client with a read thread on it.
//
//   Connect:  ready? -> (start the server, wait for it) -> well-known pipe -> handshake
//             -> private pipe -> reset the pending store -> read thread -> version check
//             -> connected hook
//
// Connect runs lazily before a request whenever the private pipe is not up, so the link comes
// back by itself after the server went away. Shutdown is final: Connect then answers kShuttingDown.
//
// Reading: the read thread reads notifications and answers, except while callers read the pipe
// for their own answers (the pending store decides who reads), which saves a wake-up per call.
//
// Locks: connect_mutex_ serialises Connect, Disconnect and Shutdown; the channel's own locks
// order writers and the reader; the pending store has its own. The connected hook runs after
// connect_mutex_ is released, so it may send requests.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <span>
#include <string>
#include <thread>

#include "serverlink/frame.h"
#include "serverlink/handshake.h"
#include "serverlink/incoming_dispatcher.h"
#include "serverlink/link_status.h"
#include "serverlink/message_factory.h"
#include "serverlink/messages.h"
#include "serverlink/pending_responses.h"
#include "serverlink/pipe_channel.h"

namespace qv {

// How long the link waits for a pipe to accept, and for a started server to become ready.
inline constexpr uint32_t kPipeWaitMs = 10000;
inline constexpr uint32_t kServerReadyWaitMs = 10000;

class ServerLink {
 public:
  struct Hooks {
    // Called on the read thread with every decoded notification (the caller queues it).
    std::function<void(std::shared_ptr<CNotification>)> notification;
    // Called after every connection whose version check passed, on the connecting thread.
    std::function<void()> connected;
  };

  // The server's name as the link finds it: the user part of its pipe and event names, and, on
  // POSIX, the runtime directory its sockets live in.
  struct ServerNames {
    std::u16string user;
    std::string runtime_dir;
    // Why the POSIX runtime directory cannot be used, when it cannot: no server can be started
    // there, and the user is told this instead of "not found".
    std::string runtime_dir_problem;
  };

  ServerLink(const MessageFactory<CResponse>& responses,
             const MessageFactory<CNotification>& notifications, ServerNames names, Hooks hooks);
  ServerLink(const ServerLink&) = delete;
  ServerLink& operator=(const ServerLink&) = delete;
  ~ServerLink();

  LinkStatus Connect();
  void Disconnect();
  // Whether the private pipe is open and its reader still reads.
  bool IsConnected() const;
  // Ends the link for good: every wait gives up and Connect answers kShuttingDown.
  void Shutdown();

  // Writes one request. With `expect_response`, registers the sequence number first and reports
  // the connection epoch that WaitResponse needs. A request that expects no answer is skipped
  // (kNotConnected) rather than connecting.
  // `landing`, when not null, is where the response's large byte field should go (BulkBytes).
  LinkStatus SendRequest(uint32_t target_handle, const CRequest& request, uint32_t& sequence,
                         bool expect_response, uint64_t& epoch,
                         std::shared_ptr<BulkLanding> landing = nullptr);
  // Writes `request` once for each of `target_handles` (at most kPostEachMax), expecting no
  // answers, in one write: for a notification thread that acknowledges several pieces at once.
  // Skipped (kNotConnected) while the connection is down, like any request that expects no answer.
  static constexpr size_t kPostEachMax = 64;
  LinkStatus PostEach(std::span<const uint32_t> target_handles, const CRequest& request);
  // Blocks until the response for `sequence` arrives or its connection ends, then fills
  // `response`: the head alone when the server failed the request, else the whole message.
  LinkStatus WaitResponse(CResponse& response, uint32_t sequence, uint64_t epoch);
  // A failure to start the server leaves why in the response's ResultText.
  LinkStatus SendAndWait(uint32_t target_handle, const CRequest& request, CResponse& response,
                         uint32_t& sequence, std::shared_ptr<BulkLanding> landing = nullptr);
  // SendAndWait on the connection that is up, without connecting: kNotConnected when down.
  LinkStatus SendAndWaitIfConnected(uint32_t target_handle, const CRequest& request,
                                    CResponse& response, uint32_t& sequence);

  // For tests: the sequence counter starts after `value`.
  void SetSequenceForTesting(uint32_t value);

 private:
  // `connected_now` tells whether this call made the connection (rather than finding it up).
  LinkStatus ConnectLocked(bool& connected_now);
  LinkStatus EnsureServerRunning();
  LinkStatus StartFailed(LinkStatus status, std::string why);
  LinkStatus Handshake(ConnectResponse& answer);
  void DisconnectLocked();
  void ReadLoop();
  // Reads one frame and hands it on; false when the connection is over. `own`: as for
  // IncomingDispatcher::Dispatch.
  bool ReadOneFrame(IncomingDispatcher::Outcome& outcome,
                    IncomingDispatcher::OwnAnswer* own = nullptr);
  // A waiting caller reads the pipe itself until its answer has come (see PendingResponseStore);
  // true when the answer was decoded straight into `response`. The caller then lets go of the
  // pipe.
  bool ReadForOwnAnswer(uint32_t sequence, CResponse& response);
  // Writes one request on the open connection.
  LinkStatus Write(uint32_t target_handle, const CRequest& request, uint32_t& sequence,
                   bool expect_response, uint64_t& epoch, std::shared_ptr<BulkLanding> landing);
  // Appends one request frame's body to the output buffer and logs it; false when it cannot be
  // built. The caller holds the write lock.
  bool AppendRequest(uint32_t target_handle, const CRequest& request, uint32_t sequence);
  // What a write's outcome means for the link.
  LinkStatus Written(PipeChannel::WriteStatus status);

  ServerNames names_;
  Hooks hooks_;
  PendingResponseStore store_;
  IncomingDispatcher dispatcher_;
  SequenceCounter sequence_;

  std::mutex connect_mutex_;
  std::mt19937 client_numbers_{5489};  // guarded by connect_mutex_
  std::uniform_int_distribution<uint32_t> client_number_range_{1, 2147483647};
  bool shutting_down_ = false;  // guarded by connect_mutex_
  PipeChannel channel_;
  std::u16string private_pipe_;         // guarded by connect_mutex_; for log lines
  std::u16string start_failure_;        // guarded by connect_mutex_; why the last start failed
  std::thread reader_;                  // guarded by connect_mutex_
  std::atomic<bool> connected_{false};  // pipe open and the reader reading
};

}  // namespace qv
