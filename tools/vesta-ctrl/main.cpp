// vesta-ctrl: the command-line tool over the vekxapi library.
//
// Exit codes: 0 success, 1 the operation failed (the library's description on standard error),
// 2 the command line was wrong.
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "answer_deadline.h"
#include "commands.h"
#include "failure.h"
#include "output.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr char kDescription[] =
    "vesta-ctrl: control development kits through the vekxapi library.\n"
    "A TARGET is a target's handle, host name or name (see 'vesta-ctrl targets').\n"
    "The library starts the server, vesta-kx, when it is not running.";

// A failure as --json prints it on standard output, beside the message on standard error.
void PrintJsonFailure(const vesta_ctrl::Context& context, HRESULT code, const std::string& text) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(code));
  vesta_ctrl::PrintJson(
      context.out,
      {{"error", {{"code", SUCCEEDED(code) ? nlohmann::json(nullptr) : hex}, {"message", text}}}});
}

int Main(int argc, char** argv) {
  using vesta_ctrl::ParseSeconds;
  using vesta_ctrl::StartAnswerDeadline;
  vesta_ctrl::Context context;
  CLI::App app(kDescription, "vesta-ctrl");
  // Options are spelled --name everywhere; on Windows a path such as /app/game.elf must stay a
  // path rather than become a /option. Subcommands take this setting from the app.
  app.allow_windows_style_options(false);
  app.add_flag("--json", context.json, "Print one JSON document (see docs/vesta-ctrl.md)");
  std::string timeout = "60";
  app.add_option("--timeout", timeout,
                 "Seconds to wait for the server's answers before giving up with exit status 1 "
                 "(waiting for events or output does not count)")
      ->capture_default_str();
  // Runs after the whole line is parsed and before any command's callback.
  app.parse_complete_callback(
      [&] { StartAnswerDeadline(ParseSeconds("--timeout", timeout), timeout, context.json); });
  app.require_subcommand(1);
  vesta_ctrl::AddTargetCommands(app, context);
  vesta_ctrl::AddPowerCommands(app, context);
  vesta_ctrl::AddDiscoveryCommands(app, context);
  vesta_ctrl::AddConsoleCommands(app, context);
  vesta_ctrl::AddEventCommands(app, context);
  vesta_ctrl::AddProtocolCommand(app, context);
  vesta_ctrl::AddDebugCommands(app, context);
  vesta_ctrl::AddServerCommands(app, context);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // Help is a success; every other complaint of the parser is a usage error. A word that
    // names no command would otherwise be reported as a missing command.
    if (error.get_exit_code() != 0 && app.get_subcommands().empty()) {
      for (int index = 1; index < argc; ++index) {
        if (argv[index][0] == '-') continue;
        std::cerr << "vesta-ctrl: unknown command '" << argv[index]
                  << "'\nRun with --help for more information.\n";
        return kExitUsage;
      }
    }
    const int code = app.exit(error);
    return code == 0 ? 0 : kExitUsage;
  } catch (const vesta_ctrl::UsageError& error) {
    std::cerr << "vesta-ctrl: " << error.what() << "\nRun with --help for more information.\n";
    return kExitUsage;
  } catch (const vesta_ctrl::Failure& failure) {
    std::cerr << "vesta-ctrl: " << failure.what() << '\n';
    if (context.json) PrintJsonFailure(context, failure.code(), failure.what());
    return kExitFailed;
  }
  return context.exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "vesta-ctrl: " << error.what() << '\n';
    return kExitFailed;
  }
}
