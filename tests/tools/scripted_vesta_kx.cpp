// A stand-in for the server, built as an executable named vesta-kx so that the library's search
// for the server and its start of it can be tested from PATH. The library starts it without
// arguments, so it takes its orders from the environment it inherits:
//
//   VEKX_SCRIPTED_USER        the user part of the pipe and readiness names to serve (required)
//   VEKX_SCRIPTED_ALIVE_FILE  it exits once this file is gone (and after two minutes at most)
//   VEKX_SCRIPTED_NOT_READY   when set, it listens but never signals that it is ready
//
// It answers every request with success, GET_SERVER_VERSION with its own process id as the Build
// number (so that a test can tell a restarted server from the first), and dies without answering
// on POWER_OFF and CANCEL_FIND_TARGETS (a target's call and a root object's), as a server that
// crashes in the middle of a call.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "platform/process_identity.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "support/scripted_server.h"

int main() {
  using namespace qv;
  const char* user = std::getenv("VEKX_SCRIPTED_USER");
  const char* alive_file = std::getenv("VEKX_SCRIPTED_ALIVE_FILE");
  if (user == nullptr || *user == '\0') {
    std::fputs("scripted vesta-kx: VEKX_SCRIPTED_USER is not set\n", stderr);
    return 2;
  }
  testing::ScriptedServer::Options options;
  options.user = platform::Utf8ToUtf16(user);
  options.mark_ready = std::getenv("VEKX_SCRIPTED_NOT_READY") == nullptr;
  testing::ScriptedServer server(options, [](const testing::ReceivedRequest& received) {
    if (received.type_number == CPowerOffRequest::kTypeNumber ||
        received.type_number == CCancelFindTargetsRequest::kTypeNumber) {
      std::_Exit(3);
    }
    testing::Reply reply;
    if (received.type_number == CGetServerVersionRequest::kTypeNumber) {
      reply.fill = [](CResponse& response) {
        static_cast<CGetServerVersionResponse&>(response).Build = platform::CurrentProcessId();
      };
    }
    return reply;
  });
  if (!server.Start()) {
    std::fputs("scripted vesta-kx: cannot serve\n", stderr);
    return 1;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  std::error_code error;
  while (alive_file != nullptr && std::filesystem::exists(alive_file, error) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  server.Stop();
  return 0;
}
