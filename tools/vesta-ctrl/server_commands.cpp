// The server process and the library themselves: whether vesta-kx runs, starting and stopping
// it, versions, and what a result code means.
#include <charconv>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>

#include "answer_deadline.h"
#include "commands.h"
#include "failure.h"
#include "output.h"
#include "platform/pipe.h"
#include "platform/process_identity.h"
#include "platform/server_process.h"
#include "vekxapi/bstr.h"

namespace vesta_ctrl {
namespace {

// How long `server stop` waits for the server to let go of its lock.
constexpr auto kStopWait = std::chrono::seconds(10);

std::optional<std::uint32_t> RunningServer() {
  const std::optional<std::string> runtime_dir = qv::platform::ServerRuntimeDirectory();
  if (!runtime_dir) {
    throw Failure(S_OK,
                  "the server's runtime directory cannot be used (it must be the user's "
                  "own and closed to others)");
  }
  return qv::platform::RunningServerProcessId(qv::platform::CurrentUserName(), *runtime_dir);
}

std::string VersionText(const ULONG (&parts)[4]) {
  return std::to_string(parts[0]) + "." + std::to_string(parts[1]) + "." +
         std::to_string(parts[2]) + "." + std::to_string(parts[3]);
}

std::string ServerVersion(IVEKXAPI12& api) {
  ULONG parts[4] = {};
  Check(api.ServerVersion(&parts[0], &parts[1], &parts[2], &parts[3]));
  return VersionText(parts);
}

void Start(Context& context) {
  if (const auto pid = RunningServer()) {
    if (context.json) {
      PrintJson(context.out, {{"running", true}, {"pid", *pid}, {"started", false}});
    } else {
      context.out << "vesta-kx is already running (process " << *pid << ").\n";
    }
    return;
  }
  // Any request makes the library start the server.
  const std::string version = ServerVersion(context.session.Api());
  const auto pid = RunningServer();
  if (context.json) {
    PrintJson(context.out, {{"running", true},
                            {"pid", pid ? nlohmann::json(*pid) : nlohmann::json(nullptr)},
                            {"started", true},
                            {"version", version}});
  } else {
    context.out << "vesta-kx " << version << " started";
    if (pid) context.out << " (process " << *pid << ")";
    context.out << ".\n";
  }
}

void Stop(Context& context) {
  const auto pid = RunningServer();
  if (!pid) {
    if (context.json) {
      PrintJson(context.out, {{"running", false}, {"stopped", false}});
    } else {
      context.out << "vesta-kx is not running.\n";
    }
    return;
  }
  if (!qv::platform::RequestServerStop(*pid)) {
    throw Failure(S_OK, "vesta-kx (process " + std::to_string(*pid) + ") refused to be stopped");
  }
  const AnswerDeadlinePause waiting_for_the_exit;  // kStopWait bounds it
  const auto deadline = std::chrono::steady_clock::now() + kStopWait;
  while (RunningServer() == pid) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw Failure(S_OK, "vesta-kx (process " + std::to_string(*pid) +
                              ") was asked to stop but is still running");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (context.json) {
    PrintJson(context.out, {{"running", false}, {"stopped", true}, {"pid", *pid}});
  } else {
    context.out << "vesta-kx (process " << *pid << ") stopped.\n";
  }
}

void Status(Context& context) {
  const auto pid = RunningServer();
  if (context.json) {
    PrintJson(context.out,
              {{"running", pid.has_value()}, {"pid", pid ? nlohmann::json(*pid) : nullptr}});
  } else if (pid) {
    context.out << "vesta-kx is running (process " << *pid << ").\n";
  } else {
    context.out << "vesta-kx is not running.\n";
  }
}

void Version(Context& context) {
  IVEKXAPI12& api = context.session.Api();
  ULONG library[4] = {};
  Check(api.Version(&library[0], &library[1], &library[2], &library[3]));
  const std::string server = ServerVersion(api);
  if (context.json) {
    PrintJson(context.out, {{"library", VersionText(library)}, {"server", server}});
  } else {
    PrintFields(context.out, {{"library", VersionText(library)}, {"vesta-kx", server}});
  }
}

// A result code as written: hexadecimal with 0x, or decimal (negative for failures, as a
// signed HRESULT prints).
HRESULT ParseCode(const std::string& text) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* begin = text.data() + (hex ? 2 : 0);
  const char* end = text.data() + text.size();
  if (!hex && begin != end && *begin == '-') {
    std::int32_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value);
    if (error == std::errc() && stop == end) return static_cast<HRESULT>(value);
  } else {
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
    if (error == std::errc() && stop == end && begin != end) return static_cast<HRESULT>(value);
  }
  throw UsageError("CODE must be a 32-bit result code such as 0x8004021B or -2147220965, not '" +
                   text + "'");
}

void Describe(Context& context, const std::string& code_text) {
  const HRESULT code = ParseCode(code_text);
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(code));
  vekx::Bstr description;
  const HRESULT result = context.session.Api().GetErrorDescription(code, description.Put());
  if (result == E_INVALIDARG) {
    throw Failure(result, std::string(hex) + " is not one of the library's result codes");
  }
  Check(result);
  if (context.json) {
    PrintJson(context.out, {{"code", hex}, {"description", description.Utf8()}});
  } else {
    context.out << hex << "  " << description.Utf8() << '\n';
  }
}

}  // namespace

void AddServerCommands(CLI::App& app, Context& context) {
  CLI::App* server = app.add_subcommand("server", "The per-user server, vesta-kx");
  server->require_subcommand(1);
  server
      ->add_subcommand("start",
                       "Start vesta-kx through the library (as any tool's first request would)")
      ->callback([&context] { Start(context); });
  server->add_subcommand("stop", "Ask the running vesta-kx to stop, and wait until it has")
      ->callback([&context] { Stop(context); });
  server->add_subcommand("status", "Say whether vesta-kx is running, and as which process")
      ->callback([&context] { Status(context); });
  server->add_subcommand("version", "The library's and the server's versions (starts vesta-kx)")
      ->callback([&context] { Version(context); });

  auto code = std::make_shared<std::string>();
  CLI::App* error = app.add_subcommand("error", "What a result code means");
  error->add_option("CODE", *code, "0x8004021B, or the decimal value")->required();
  error->callback([&context, code] { Describe(context, *code); });
}

}  // namespace vesta_ctrl
