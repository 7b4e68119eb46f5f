#pragma once
// The library's log: one line per message, "MSG\t" + category + " " + text, written when the
// message's level is at or below the configured level. Levels: 0 silent (the default), 1 errors,
// 2 failures of single operations, 3 more detail, 4 every packet and notification.
//
// The host tool chooses the level and the sink through the API; for diagnosis the environment can
// set them before the first message: VEKX_LOG_LEVEL=0..4 and VEKX_LOG_FILE=path (stderr when
// unset or when the file cannot be opened).

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace qv {

class Log {
 public:
  static constexpr int kSilent = 0;
  static constexpr int kErrors = 1;
  static constexpr int kFailures = 2;
  static constexpr int kDetail = 3;
  static constexpr int kPackets = 4;

  Log() = default;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log();

  // Levels outside 0..4 are clamped.
  void SetLevel(int level);
  int Level() const { return level_.load(std::memory_order_relaxed); }
  // Cheap check before building a message.
  bool Enabled(int level) const { return level > kSilent && level <= Level(); }

  // Appends to `path` from now on; false (and the sink unchanged) when it cannot be opened.
  bool SetFile(const std::string& path);
  void SetStandardError();

  // Reads VEKX_LOG_LEVEL and VEKX_LOG_FILE.
  void ConfigureFromEnvironment();

  // Writes one line when `level` is enabled. Never throws.
  void Write(int level, std::string_view category, std::string_view text) noexcept;

 private:
  std::atomic<int> level_{kSilent};
  std::mutex sink_mutex_;
  std::FILE* file_ = nullptr;  // guarded by sink_mutex_; null means stderr
};

// The library's one log, configured from the environment on first use.
Log& LibraryLog();

// `value` in upper-case hexadecimal digits without a prefix, as the log lines print numbers.
std::string LogHex(uint64_t value);

// Writes a line of category "API" to the library's log.
inline void LogApi(int level, std::string_view text) noexcept {
  Log& log = LibraryLog();
  if (log.Enabled(level)) log.Write(level, "API", text);
}

}  // namespace qv
