#pragma once
// The command line of vesta-kx.

#include <chrono>
#include <string>
#include <vector>

#include "server/kits/protocol_endpoints.h"

namespace qv::server {

struct Options {
  std::string scenario_path;  // empty: the built-in scenario
  std::string user;           // empty: the account this process runs as
  int log_level = 1;
  std::vector<ProtocolEndpoint> forwards;  // --forward N=ADDRESS, for the local target
  // --frame-timeout S: how long a frame may take to arrive once its header has.
  std::chrono::milliseconds frame_timeout{30000};
  bool show_version = false;
  bool show_help = false;
};

// Parses argv[1..]; false with `error` set when an argument is not understood.
bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error);

// The text --help prints.
std::string UsageText();

}  // namespace qv::server
