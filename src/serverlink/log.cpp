#include "serverlink/log.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace qv {

Log::~Log() {
  if (file_ != nullptr) std::fclose(file_);
}

void Log::SetLevel(int level) {
  level_.store(std::clamp(level, kSilent, kPackets), std::memory_order_relaxed);
}

bool Log::SetFile(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "ab");  // binary: the same bytes on every platform
  if (file == nullptr) return false;
  std::lock_guard lock(sink_mutex_);
  if (file_ != nullptr) std::fclose(file_);
  file_ = file;
  return true;
}

void Log::SetStandardError() {
  std::lock_guard lock(sink_mutex_);
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
}

void Log::ConfigureFromEnvironment() {
  if (const char* level = std::getenv("VEKX_LOG_LEVEL"); level != nullptr && *level != '\0') {
    SetLevel(std::atoi(level));
  }
  if (const char* path = std::getenv("VEKX_LOG_FILE"); path != nullptr && *path != '\0') {
    SetFile(path);
  }
}

void Log::Write(int level, std::string_view category, std::string_view text) noexcept {
  if (!Enabled(level)) return;
  try {
    std::string line;
    line.reserve(6 + category.size() + text.size());
    line += "MSG\t";
    line += category;
    line += ' ';
    line += text;
    line += '\n';
    std::lock_guard lock(sink_mutex_);
    std::FILE* sink = file_ != nullptr ? file_ : stderr;
    std::fwrite(line.data(), 1, line.size(), sink);
    std::fflush(sink);
  } catch (const std::exception&) {
    // A line that cannot be built is lost; logging never fails the operation it describes.
  }
}

Log& LibraryLog() {
  static Log* const log = [] {
    auto* created = new Log();  // never destroyed: threads may log during static destruction
    created->ConfigureFromEnvironment();
    return created;
  }();
  return *log;
}

std::string LogHex(uint64_t value) {
  char digits[20];
  std::snprintf(digits, sizeof digits, "%llX", static_cast<unsigned long long>(value));
  return digits;
}

}  // namespace qv
