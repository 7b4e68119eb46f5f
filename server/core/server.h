#pragma once
// The server process's life: the instance lock first, then the well-known pipe, then the
// readiness sign, so that "ready" always means "accepting". Run accepts clients until the stop
// signal is set, then ends every session and takes everything back in reverse order.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "platform/pipe.h"
#include "platform/server_process.h"
#include "server/core/client_session.h"
#include "server/core/frame_budget.h"
#include "server/core/packet_log.h"
#include "server/core/request_dispatcher.h"
#include "server/handlers/network_manager.h"
#include "server/handlers/root_handlers.h"
#include "server/kits/scenario.h"
#include "server/targets/target_registry.h"
#include "serverlink/frame.h"

namespace qv::server {

class Server {
 public:
  // Process exit codes.
  enum ExitCode : int { kExitOk = 0, kExitError = 1, kExitUsage = 2, kExitAlreadyRunning = 3 };

  // `frame_timeout`: how long a client's frame may take to arrive once its header has.
  explicit Server(const Scenario& scenario,
                  std::chrono::milliseconds frame_timeout = std::chrono::seconds(30));
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Takes the instance lock, listens and signals readiness, for `user` (empty: the account
  // this process runs as). On failure returns the exit code and puts the reason into `message`.
  int Start(const std::u16string& user, std::string& message);
  // Serves until `stop` is set; then stops every session and releases what Start took.
  void Run(const platform::StopSignal& stop);

 private:
  void Janitor();
  void StopAll();

  PacketLog packet_log_;  // before the registry, which records its notifications in it
  TargetRegistry registry_;
  ServerSwitches switches_;
  NetworkManager network_manager_;
  RequestDispatcher dispatcher_;
  const std::chrono::milliseconds frame_timeout_;
  // Large request bodies in at once, across clients: two of the largest frames.
  FrameBudget frame_budget_{2 * size_t{kMaxFrameBodyBytes}};
  std::u16string user_;
  std::string runtime_dir_;
  std::unique_ptr<platform::InstanceLock> instance_lock_;
  std::unique_ptr<platform::PipeListener> listener_;
  std::unique_ptr<platform::ReadinessMarker> readiness_;

  std::mutex sessions_mutex_;
  std::condition_variable janitor_cv_;
  bool stopping_ = false;                               // guarded by sessions_mutex_
  std::list<std::unique_ptr<ClientSession>> sessions_;  // guarded by sessions_mutex_
  uint64_t next_client_id_ = 1;
  std::mt19937_64 pipe_names_;
};

}  // namespace qv::server
