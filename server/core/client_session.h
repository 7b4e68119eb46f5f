#pragma once
// One client of the server, from its connect request on the well-known pipe to the end of its
// private pipe.
//
//   session thread:  handshake on the well-known pipe -> private pipe listens -> answer
//                    -> the client opens the private pipe -> read, dispatch, send the answer
//                    -> (the reading gone to a worker) wait for the reading to end, clean up
//   worker threads:  read in turn; answer the request that may wait on the thread that read it
//   writer thread:   writes queued bodies (answers and notifications) in order, what has queued
//                    up together
//
// An answer with nothing queued or being written before it goes out on the thread that made it,
// which saves the writer thread's wake-up on the way of every plain call; that thread then waits
// for a client that does not read, as the writer thread would, and only that client's requests
// wait with it. Anything else is queued.
//
// When a request whose handler may wait (power and connection changes, debug calls) arrives, one
// of the session's worker threads takes over the reading and the thread that read it answers it,
// so that the client's other requests are answered meanwhile and the request itself does not wait
// for a thread to wake; the others are answered in the order they came. Answers and notifications
// reach the client in the order they were produced, and a client that does not read never blocks
// anybody else: when its queue grows past a limit, it is dropped. A frame that cannot be delimited
// (bad reserved word, body beyond the limit) ends the session; everything else gets an answer,
// except what the client sends without waiting for one (console acknowledgements) when it succeeds.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/pipe.h"
#include "server/core/frame_budget.h"
#include "server/core/request_dispatcher.h"
#include "server/core/worker_pool.h"
#include "server/targets/target_registry.h"
#include "serverlink/pipe_channel.h"

namespace qv::server {

// How long a client has from its connect request to opening its private pipe.
inline constexpr std::chrono::milliseconds kHandshakeTimeLimit{10000};
// The most bytes queued for one client, beside one answer of the largest frame size, before it
// counts as not reading.
inline constexpr size_t kMaxQueuedBytes = 64u << 20;
// The most frames and bytes the writer thread takes from the queue for one gathered write (a
// larger frame goes alone).
inline constexpr size_t kWriteBatchFrames = 64;
inline constexpr size_t kWriteBatchBytes = 256u << 10;

class ClientSession final : public ClientSink {
 public:
  ClientSession(uint64_t id, std::u16string private_pipe_name,
                std::unique_ptr<platform::Pipe> well_known, TargetRegistry& registry,
                const RequestDispatcher& dispatcher, FrameBudget& budget);
  ~ClientSession() override;
  ClientSession(const ClientSession&) = delete;
  ClientSession& operator=(const ClientSession&) = delete;

  // Starts the session thread; false when no thread can be had.
  bool Start();
  // Ends the session's waits; it then closes its pipes and ends. Any thread may call it.
  void Stop();
  // Joins the session's threads; the session is finished afterwards.
  void Join();
  bool Finished() const { return finished_.load(); }
  uint64_t Id() const { return id_; }
  // True while the handshake has taken longer than it may.
  bool HandshakeOverdue(std::chrono::steady_clock::time_point now) const;
  // True while a frame has been arriving for longer than `limit` since its header came: a client
  // that stalls mid-frame holds its reader and its share of the frame budget.
  bool FrameOverdue(std::chrono::steady_clock::time_point now,
                    std::chrono::steady_clock::duration limit) const;

  void Post(SharedBody body) override;

 private:
  void Run();
  bool Handshake();
  void Serve();
  void WriteLoop();
  // Reads and answers requests until the pipe ends, or until it hands the reading to a worker.
  void Read();
  // Tells the session thread that nobody reads any more.
  void EndReading();
  // Answers one request and queues the answer; false when the session must end.
  bool Answer(RequestDispatcher::Call& call);
  // Writes an answer at once when nothing is ahead of it, leaving `body` as it was; else queues
  // it as Post does, taking it.
  void Send(MessageBuffer& body);
  // The largest answer block a thread keeps for its next answer.
  static constexpr size_t kKeptAnswerBytes = 64 * 1024;

  const uint64_t id_;
  const std::u16string private_pipe_name_;
  TargetRegistry& registry_;
  const RequestDispatcher& dispatcher_;
  FrameBudget& budget_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  uint32_t process_id_ = 0;

  platform::StopSignal stop_;  // the private listener's accept
  PipeChannel well_known_;
  PipeChannel channel_;
  std::thread thread_;
  std::thread writer_;

  std::mutex queue_mutex_;
  std::condition_variable queue_cv_;
  std::deque<SharedBody> queue_;  // guarded by queue_mutex_
  size_t queued_bytes_ = 0;       // guarded by queue_mutex_
  bool closing_ = false;          // guarded by queue_mutex_
  bool writing_ = false;          // a frame is going out; guarded by queue_mutex_

  WorkerPool workers_;
  size_t admitted_ = 0;  // budget taken for the frame being read; only the reading thread's

  std::mutex reading_mutex_;
  std::condition_variable reading_cv_;
  bool reading_ended_ = false;  // guarded by reading_mutex_

  std::atomic<bool> connected_{false};
  std::atomic<bool> finished_{false};
};

}  // namespace qv::server
