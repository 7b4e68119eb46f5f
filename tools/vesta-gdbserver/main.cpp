// vesta-gdbserver: a GDB remote serial protocol front end over the library, so that gdb, lldb and
// the IDEs built on them debug a process of any target.
//
//   vesta-gdbserver [--listen 127.0.0.1:PORT] TARGET (--attach PID | [--cwd DIR] -- PATH [ARGS...])
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "bridge.h"
#include "connection.h"
#include "target_session.h"

namespace {

constexpr char kUsage[] =
    "usage: vesta-gdbserver [--listen 127.0.0.1:PORT] TARGET (--attach PID | [--cwd DIR] -- PATH "
    "[ARGS...])\n"
    "  Without --listen the debugger speaks on standard input and output:\n"
    "    gdb -ex 'target remote | vesta-gdbserver localhost -- ./prog'\n"
    "  TARGET is a target's handle, host name or name (the local target is 'localhost').\n";

struct Options {
  std::string listen;
  std::string target;
  std::optional<std::uint32_t> attach;
  std::string cwd;
  std::vector<std::string> program;  // PATH and ARGS
};

// nullopt after saying what is wrong.
std::optional<Options> Parse(int argc, char** argv) {
  Options options;
  int i = 1;
  auto value = [&](const char* name) -> const char* {
    if (i + 1 >= argc) {
      std::fprintf(stderr, "vesta-gdbserver: %s needs a value\n%s", name, kUsage);
      return nullptr;
    }
    return argv[++i];
  };
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") {
      for (++i; i < argc; ++i)
        options.program.emplace_back(argv[i]);
      break;
    }
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "--listen") {
      const char* text = value("--listen");
      if (text == nullptr) return std::nullopt;
      options.listen = text;
    } else if (arg == "--cwd") {
      const char* text = value("--cwd");
      if (text == nullptr) return std::nullopt;
      options.cwd = text;
    } else if (arg == "--attach") {
      const char* text = value("--attach");
      if (text == nullptr) return std::nullopt;
      std::uint32_t pid = 0;
      const char* end = text + std::strlen(text);
      if (const auto [stop, error] = std::from_chars(text, end, pid);
          error != std::errc() || stop != end || pid == 0) {
        std::fprintf(stderr, "vesta-gdbserver: --attach takes a process id, not '%s'\n", text);
        return std::nullopt;
      }
      options.attach = pid;
    } else if (!arg.empty() && arg[0] == '-') {
      std::fprintf(stderr, "vesta-gdbserver: unknown option '%s'\n%s", arg.c_str(), kUsage);
      return std::nullopt;
    } else if (options.target.empty()) {
      options.target = arg;
    } else {
      std::fprintf(stderr, "vesta-gdbserver: unexpected '%s' (the program goes after '--')\n%s",
                   arg.c_str(), kUsage);
      return std::nullopt;
    }
  }
  const bool run = !options.program.empty();
  if (options.target.empty() || run == options.attach.has_value() ||
      (options.attach && !options.cwd.empty()) || (run && options.program[0].empty())) {
    std::fputs(kUsage, stderr);
    return std::nullopt;
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<Options> options = Parse(argc, argv);
  if (!options) return 2;
  signal(SIGPIPE, SIG_IGN);
  vesta_gdb::CatchTermination();

  int in_fd = STDIN_FILENO;
  int out_fd = STDOUT_FILENO;
  if (options->listen.empty()) {
    // Standard output carries the protocol: nothing else may write there, so it moves to a
    // descriptor of its own and stdout becomes stderr. The debugger's Ctrl-C arrives as 0x03.
    out_fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    signal(SIGINT, SIG_IGN);
  }
  try {
    vesta_gdb::TargetSession session(options->target);
    if (options->attach) {
      session.Attach(*options->attach);
    } else {
      const std::vector<std::string> args(options->program.begin() + 1, options->program.end());
      session.Load(options->program[0], args, options->cwd);
    }
    std::fprintf(stderr, "Process %s created; pid = %u\n",
                 options->attach ? "attached" : options->program[0].c_str(), session.pid());
    std::optional<vesta_gdb::Connection> connection;
    if (options->listen.empty()) {
      connection.emplace(in_fd, out_fd, false);
    } else {
      std::string error;
      const std::optional<int> peer = vesta_gdb::AcceptOnLoopback(options->listen, error);
      if (!peer) {
        std::fprintf(stderr, "vesta-gdbserver: %s\n", error.c_str());
        session.Kill();
        return 1;
      }
      connection.emplace(*peer, *peer, true);
    }
    vesta_gdb::Bridge bridge(session, *connection);
    return bridge.Run();
  } catch (const vesta_gdb::LibraryError& error) {
    std::fprintf(stderr, "vesta-gdbserver: %s\n", error.what());
    return 1;
  }
}
