// vesta-kx: the per-user server of the vekxapi library.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "platform/heap_tuning.h"
#include "platform/pipe.h"
#include "platform/termination.h"
#include "platform/wide_string.h"
#include "server/core/options.h"
#include "server/core/server.h"
#include "server/core/server_log.h"
#include "server/handlers/handlers.h"
#include "server/kits/scenario.h"

namespace {

int Main(const std::vector<std::string>& args) {
  using qv::server::Server;
  qv::server::Options options;
  std::string error;
  if (!qv::server::ParseOptions(args, options, error)) {
    std::fprintf(stderr, "vesta-kx: %s\n%s", error.c_str(), qv::server::UsageText().c_str());
    return Server::kExitUsage;
  }
  if (options.show_help) {
    std::fputs(qv::server::UsageText().c_str(), stdout);
    return Server::kExitOk;
  }
  if (options.show_version) {
    std::printf("vesta-kx %u.%u.%u.%u\n", qv::server::kServerVersion[0],
                qv::server::kServerVersion[1], qv::server::kServerVersion[2],
                qv::server::kServerVersion[3]);
    return Server::kExitOk;
  }
  qv::server::SetLogLevel(options.log_level);

  qv::server::Scenario scenario;
  if (options.scenario_path.empty()) {
    scenario = qv::server::DefaultScenario();
  } else {
    qv::server::ScenarioResult loaded = qv::server::LoadScenarioFile(options.scenario_path);
    if (!loaded.scenario.has_value()) {
      std::fprintf(stderr, "vesta-kx: scenario refused: %s\n", loaded.error.c_str());
      return Server::kExitUsage;
    }
    scenario = std::move(*loaded.scenario);
  }

  if (!qv::server::AddForwards(scenario, options.forwards, error)) {
    std::fprintf(stderr, "vesta-kx: %s\n", error.c_str());
    return Server::kExitUsage;
  }

  qv::platform::KeepLargeBlocksOnHeap();
  qv::platform::StopSignal stop;
  if (!qv::platform::StopOnTermination(stop)) {
    std::fprintf(stderr, "vesta-kx: cannot handle termination signals\n");
    return Server::kExitError;
  }
  Server server(scenario, options.frame_timeout);
  if (const int code = server.Start(qv::platform::Utf8ToUtf16(options.user), error);
      code != Server::kExitOk) {
    std::fprintf(stderr, "vesta-kx: %s\n", error.c_str());
    return code;
  }
  server.Run(stop);
  return Server::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vesta-kx: %s\n", error.what());
    return 1;
  }
}
