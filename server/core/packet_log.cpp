#include "server/core/packet_log.h"

#include <cstdio>
#include <exception>
#include <string>

#include "platform/wide_string.h"

namespace qv::server {

Status PacketLog::OpenLocked(const std::u16string& path, bool append) {
  if (file_.is_open()) file_.close();
  file_.clear();
  file_.open(platform::Utf16ToUtf8(path),
             std::ios::out | std::ios::binary | (append ? std::ios::app : std::ios::trunc));
  open_.store(file_.is_open(), std::memory_order_relaxed);
  if (!file_.is_open()) {
    return Status::Fail(KXAPI_SERVER_OPEN_FAILED, u"cannot open the packet log " + path);
  }
  written_ = 0;
  return Status::Ok();
}

Status PacketLog::Start(const std::u16string& path) {
  if (path.empty()) return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the log file name is empty");
  std::lock_guard lock(mutex_);
  size_limit_ = 0;
  return OpenLocked(path, /*append=*/true);
}

Status PacketLog::StartAlternating(const std::u16string& first, const std::u16string& second,
                                   uint64_t size) {
  if (first.empty() || second.empty()) {
    return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"a log file name is empty");
  }
  if (first == second) {
    return Status::Fail(KXAPI_SERVER_INVALID_ARG,
                        u"the two log files must differ, not both be " + first);
  }
  if (size == 0) {
    return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the size of each log file must be above 0");
  }
  std::lock_guard lock(mutex_);
  paths_[0] = first;
  paths_[1] = second;
  current_ = 0;
  Status status = OpenLocked(first, /*append=*/false);
  size_limit_ = status.ok() ? size : 0;
  return status;
}

Status PacketLog::Stop() {
  std::lock_guard lock(mutex_);
  if (file_.is_open()) file_.close();
  open_.store(false, std::memory_order_relaxed);
  size_limit_ = 0;
  return Status::Ok();
}

void PacketLog::WriteLocked(const std::string& line) {
  if (size_limit_ != 0 && written_ > 0 && written_ + line.size() > size_limit_) {
    current_ = 1 - current_;
    // A file that cannot be reopened ends the log rather than losing lines silently elsewhere.
    if (!OpenLocked(paths_[current_], /*append=*/false).ok()) return;
  }
  file_ << line;
  written_ += line.size();
}

void PacketLog::Record(const RequestContext& context, const CRequest* request,
                       const CResponse& response) {
  if (!open_.load(std::memory_order_relaxed)) return;
  std::lock_guard lock(mutex_);
  if (!file_.is_open()) return;
  try {
    const std::string name =
        platform::Utf16ToUtf8(request != nullptr ? request->GetName() : std::u16string_view());
    const std::string head = "client " + std::to_string(context.client_id) + " target " +
                             std::to_string(context.target) + " seq " +
                             std::to_string(context.sequence) + " ";
    const std::string shown = name.empty() ? "UNKNOWN" : name;
    WriteLocked(head + "REQUEST " + shown + ' ' +
                (request != nullptr ? request->ToString() : "{ }") + '\n');
    std::string answer = head + "RESPONSE " + shown + ' ';
    if (response.Result == 0) {
      answer += response.ToString() + '\n';
    } else {
      char result[16];
      std::snprintf(result, sizeof result, "0x%08X", static_cast<unsigned>(response.Result));
      answer += std::string("{ Result:") + result +
                " ResultText:" + platform::Utf16ToUtf8(response.ResultText) + " }\n";
    }
    WriteLocked(answer);
    file_.flush();
  } catch (const std::exception&) {
    // A log line that cannot be built is left out; the request itself is not affected.
  }
}

void PacketLog::RecordNotification(uint64_t client_id, const CNotification& notification) {
  if (!open_.load(std::memory_order_relaxed)) return;
  std::lock_guard lock(mutex_);
  if (!file_.is_open()) return;
  try {
    WriteLocked("client " + std::to_string(client_id) + " NOTIFICATION " +
                platform::Utf16ToUtf8(notification.GetName()) + ' ' + notification.ToString() +
                '\n');
    file_.flush();
  } catch (const std::exception&) {
    // As for requests: the line is left out, the notification still goes.
  }
}

}  // namespace qv::server
