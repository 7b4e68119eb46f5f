#include "server/core/options.h"

#include <cstdint>
#include <cstdlib>

namespace qv::server {

bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        error = arg + " needs a value";
        return false;
      }
      out = args[++i];
      return true;
    };
    if (arg == "--help" || arg == "-h") {
      options.show_help = true;
    } else if (arg == "--version") {
      options.show_version = true;
    } else if (arg == "--scenario") {
      if (!value(options.scenario_path)) return false;
    } else if (arg == "--user") {
      if (!value(options.user)) return false;
      // It becomes part of pipe, event and file names: nothing that could leave them.
      const bool plain = options.user.size() <= 64 &&
                         options.user.find_first_not_of(
                             "abcdefghijklmnopqrstuvwxyz"
                             "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") == std::string::npos;
      if (!plain) {
        error =
            "--user takes up to 64 letters, digits, '.', '_' or '-', not '" + options.user + "'";
        return false;
      }
    } else if (arg == "--log-level") {
      std::string level;
      if (!value(level)) return false;
      if (level.size() != 1 || level[0] < '0' || level[0] > '4') {
        error = "--log-level takes a number from 0 to 4, not '" + level + "'";
        return false;
      }
      options.log_level = level[0] - '0';
    } else if (arg == "--frame-timeout") {
      std::string text;
      if (!value(text)) return false;
      char* end = nullptr;
      const double seconds = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !(seconds > 0) || seconds > 86400) {
        error = "--frame-timeout takes a number of seconds above 0, not '" + text + "'";
        return false;
      }
      options.frame_timeout = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000 + 0.5));
      if (options.frame_timeout.count() == 0) options.frame_timeout = std::chrono::milliseconds(1);
    } else if (arg == "--forward") {
      std::string text;
      if (!value(text)) return false;
      const auto endpoint = ParseForwardOption(text, error);
      if (!endpoint) return false;
      options.forwards.push_back(*endpoint);
    } else {
      error = "unknown argument '" + arg + "'";
      return false;
    }
  }
  return true;
}

std::string UsageText() {
  return "usage: vesta-kx [--scenario FILE] [--forward N=ADDRESS]... [--log-level N] [--user "
         "NAME]\n"
         "                [--frame-timeout S] [--version] [--help]\n"
         "\n"
         "The per-user server that tools reach through the vekxapi library. It serves virtual\n"
         "development kits described by a scenario file, or by its built-in scenario.\n"
         "\n"
         "  --scenario FILE  the kits to simulate (YAML; see docs/scenarios.md)\n"
         "  --forward N=tcp:127.0.0.1:PORT | N=unix:PATH\n"
         "                   the local target's protocol N connects there, once per open\n"
         "                   (see docs/protocols.md); may be given more than once\n"
         "  --log-level N    diagnostics on standard error: 0 none, 1 errors (default),\n"
         "                   2 refused input, 3 clients, 4 every request\n"
         "  --user NAME      serve the pipes of NAME instead of this account's (servers side by\n"
         "                   side, as tests run them; clients must ask for NAME too)\n"
         "  --frame-timeout S\n"
         "                   a client whose request frame has not arrived S seconds after its\n"
         "                   header is disconnected (default 30; fractions allowed)\n"
         "  --version        print the server's version and exit\n"
         "  --help           print this text and exit\n"
         "\n"
         "SIGTERM or SIGINT ends it cleanly. Only one vesta-kx serves a user at a time.\n";
}

}  // namespace qv::server
