#pragma once
// The server's diagnostic lines on standard error (nowhere when the library started the server,
// which gives it no terminal). Levels as the library's log: 0 silent, 1 errors, 2 refused
// input and dropped clients, 3 clients coming and going, 4 every request.

#include <string>

namespace qv::server {

enum LogLevel : int { kLogErrors = 1, kLogRefusals = 2, kLogClients = 3, kLogRequests = 4 };

void SetLogLevel(int level);
int GetLogLevel();
bool LogEnabled(int level);
// Writes "vesta-kx: <text>" when `level` is enabled.
void ServerLog(int level, const std::string& text);

}  // namespace qv::server
