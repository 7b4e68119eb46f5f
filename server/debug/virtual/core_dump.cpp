#include "server/debug/virtual/core_dump.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

#include "platform/wide_string.h"
#include "serverlink/message_buffer.h"
#include "serverlink/wire_fields.h"

namespace qv::server {
namespace {

// Region contents go out in pieces of this size, so that a cancel is seen soon.
constexpr size_t kDumpPiece = 1 << 20;

std::u16string Reason() {
  return platform::Utf8ToUtf16(std::generic_category().message(errno));
}

}  // namespace

bool IsAbsoluteHostPath(const std::string& path) {
  if (!path.empty() && path[0] == '/') return true;
#ifdef _WIN32
  const bool drive = path.size() >= 3 && std::isalpha(static_cast<unsigned char>(path[0])) &&
                     path[1] == ':' && (path[2] == '\\' || path[2] == '/');
  return drive || path.rfind("\\\\", 0) == 0;
#else
  return false;
#endif
}

Status WriteCoreDump(const std::string& path, const CoreDump& dump, const std::atomic<bool>& cancel,
                     const std::function<void(uint32_t percent)>& progress) {
  const std::u16string name = platform::Utf8ToUtf16(path);
  MessageBuffer header;
  if (!WriteField(header, dump.header)) {
    return Status::Fail(KXAPI_COMMS_ERR_COREDUMP_CREATE,
                        u"the dump for " + name + u" is too large");
  }
  // Never over a file that is there: the path comes from the wire.
  if (std::ifstream(path, std::ios::binary).is_open()) {
    return Status::Fail(KXAPI_COMMS_ERR_COREDUMP_CREATE,
                        name + u" already exists; a core dump never replaces a file");
  }
  errno = 0;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file.is_open()) {
    return Status::Fail(KXAPI_COMMS_ERR_COREDUMP_CREATE, name + u" cannot be created: " + Reason());
  }
  const auto length = static_cast<uint32_t>(header.Size());
  MessageBuffer head;
  WriteField(head, length);
  file.write(kCoreDumpMagic, sizeof kCoreDumpMagic);
  file.write(reinterpret_cast<const char*>(head.Data()), static_cast<std::streamsize>(head.Size()));
  file.write(reinterpret_cast<const char*>(header.Data()), static_cast<std::streamsize>(length));
  progress(0);

  uint64_t total = 0;
  for (const Bytes& contents : dump.contents)
    total += contents.size();
  uint64_t written = 0;
  for (const Bytes& contents : dump.contents) {
    for (size_t at = 0; file && at < contents.size() && !cancel; at += kDumpPiece) {
      const size_t size = std::min(kDumpPiece, contents.size() - at);
      file.write(reinterpret_cast<const char*>(contents.data() + at),
                 static_cast<std::streamsize>(size));
      written += size;
    }
    if (!file || cancel) break;
    progress(static_cast<uint32_t>(total == 0 ? 100 : written * 100 / total));
  }
  const bool cancelled = cancel;
  Status status = Status::Ok();
  file.close();  // fails, like the writes, when the data cannot reach the disk
  if (cancelled) {
    status = Status::Fail(KXAPI_COMMS_ERR_OPERATION_CANCELLED,
                          u"the core dump to " + name + u" was cancelled");
  } else if (file.fail()) {
    status = Status::Fail(KXAPI_COMMS_ERR_WRITING_FILE,
                          u"writing the core dump to " + name + u" failed: " + Reason());
  }
  if (!status.ok()) std::remove(path.c_str());
  return status;
}

}  // namespace qv::server
