#pragma once
// The server's packet log: one line per request and per answer, written to a file a client
// names with START_PACKET_LOGGING until STOP_PACKET_LOGGING or the server ends.

#include <fstream>
#include <mutex>
#include <string>

#include "server/core/request_dispatcher.h"
#include "server/core/status.h"
#include "serverlink/messages.h"

namespace qv::server {

class PacketLog {
 public:
  // Opens (appends to) `path`; a log already open is closed first.
  Status Start(const std::u16string& path);
  Status Stop();
  // Writes the request's and the answer's lines when a log is open.
  void Record(const RequestContext& context, const CRequest* request, const CResponse& response);
  // Writes the line of a notification handed to the client `client_id` when a log is open.
  void RecordNotification(uint64_t client_id, const CNotification& notification);

 private:
  std::mutex mutex_;
  std::ofstream file_;  // guarded by mutex_
};

}  // namespace qv::server
