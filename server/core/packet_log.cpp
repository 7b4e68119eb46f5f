#include "server/core/packet_log.h"

#include <cstdio>
#include <exception>

#include "platform/wide_string.h"

namespace qv::server {

Status PacketLog::Start(const std::u16string& path) {
  if (path.empty()) return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the log file name is empty");
  std::lock_guard lock(mutex_);
  if (file_.is_open()) file_.close();
  file_.clear();
  file_.open(platform::Utf16ToUtf8(path), std::ios::out | std::ios::app | std::ios::binary);
  if (!file_.is_open()) {
    return Status::Fail(KXAPI_SERVER_OPEN_FAILED, u"cannot open the packet log " + path);
  }
  return Status::Ok();
}

Status PacketLog::Stop() {
  std::lock_guard lock(mutex_);
  if (file_.is_open()) file_.close();
  return Status::Ok();
}

void PacketLog::Record(const RequestContext& context, const CRequest* request,
                       const CResponse& response) {
  std::lock_guard lock(mutex_);
  if (!file_.is_open()) return;
  try {
    const std::string name =
        platform::Utf16ToUtf8(request != nullptr ? request->GetName() : std::u16string_view());
    const std::string head = "client " + std::to_string(context.client_id) + " target " +
                             std::to_string(context.target) + " seq " +
                             std::to_string(context.sequence) + " ";
    file_ << head << "REQUEST " << (name.empty() ? "UNKNOWN" : name) << ' '
          << (request != nullptr ? request->ToString() : "{ }") << '\n';
    file_ << head << "RESPONSE " << (name.empty() ? "UNKNOWN" : name) << ' ';
    if (response.Result == 0) {
      file_ << response.ToString() << '\n';
    } else {
      char result[16];
      std::snprintf(result, sizeof result, "0x%08X", static_cast<unsigned>(response.Result));
      file_ << "{ Result:" << result << " ResultText:" << platform::Utf16ToUtf8(response.ResultText)
            << " }\n";
    }
    file_.flush();
  } catch (const std::exception&) {
    // A log line that cannot be built is left out; the request itself is not affected.
  }
}

void PacketLog::RecordNotification(uint64_t client_id, const CNotification& notification) {
  std::lock_guard lock(mutex_);
  if (!file_.is_open()) return;
  try {
    file_ << "client " << client_id << " NOTIFICATION "
          << platform::Utf16ToUtf8(notification.GetName()) << ' ' << notification.ToString()
          << '\n';
    file_.flush();
  } catch (const std::exception&) {
    // As for requests: the line is left out, the notification still goes.
  }
}

}  // namespace qv::server
