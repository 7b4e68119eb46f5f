#include "server/core/server_log.h"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace qv::server {
namespace {

std::atomic<int> g_level{kLogErrors};
std::mutex g_mutex;

}  // namespace

void SetLogLevel(int level) {
  g_level.store(level);
}

int GetLogLevel() {
  return g_level.load();
}

bool LogEnabled(int level) {
  return level <= g_level.load();
}

void ServerLog(int level, const std::string& text) {
  if (!LogEnabled(level)) return;
  std::lock_guard lock(g_mutex);
  std::fprintf(stderr, "vesta-kx: %s\n", text.c_str());
  std::fflush(stderr);
}

}  // namespace qv::server
