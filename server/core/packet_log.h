#pragma once
// The server's packet log: one line per request and per answer, written to a file a client
// names with START_PACKET_LOGGING until STOP_PACKET_LOGGING or the server ends. With
// START_MULTI_FILE_PACKET_LOGGING it alternates between two files of a bounded size, so that a
// log left running keeps the latest traffic without filling the disk.

#include <atomic>
#include <cstdint>
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
  // Writes `first` (emptied) until it holds `size` bytes, then `second` (emptied), then `first`
  // again, and so on; a line is never split between the two.
  Status StartAlternating(const std::u16string& first, const std::u16string& second, uint64_t size);
  Status Stop();
  // Writes the request's and the answer's lines when a log is open.
  void Record(const RequestContext& context, const CRequest* request, const CResponse& response);
  // Writes the line of a notification handed to the client `client_id` when a log is open.
  void RecordNotification(uint64_t client_id, const CNotification& notification);

 private:
  // Opens `path` for writing; `append` keeps what it holds. Called with mutex_ held.
  Status OpenLocked(const std::u16string& path, bool append);
  // Writes one line, turning to the other file first when it would pass the size bound.
  void WriteLocked(const std::string& line);

  // Whether a file is open, read without the lock: a server with no log open takes no lock per
  // request.
  std::atomic<bool> open_{false};
  std::mutex mutex_;
  std::ofstream file_;  // guarded by mutex_, as is what follows
  std::u16string paths_[2];
  int current_ = 0;
  uint64_t size_limit_ = 0;  // 0: one file, unbounded
  uint64_t written_ = 0;
};

}  // namespace qv::server
