#pragma once
// The tool's commands, one group per file; each Add* function declares its group's commands
// on `app` with callbacks that run through `context`.

#include <iostream>

#include <CLI/CLI.hpp>

#include "session.h"

namespace vesta_ctrl {

struct Context {
  Session session;
  bool json = false;  // --json: one JSON document on standard output instead of text.
  std::ostream& out = std::cout;
  int exit_code = 0;  // what a command that succeeded has the tool exit with (`run`: the program's)
};

// server start|stop|status|version, error CODE.
void AddServerCommands(CLI::App& app, Context& context);
// targets, add, delete, default, info.
void AddTargetCommands(CLI::App& app, Context& context);
// connect, disconnect, power on|off|status, reboot.
void AddPowerCommands(CLI::App& app, Context& context);
// discover, find.
void AddDiscoveryCommands(CLI::App& app, Context& context);
// console: the cache, live output and input.
void AddConsoleCommands(CLI::App& app, Context& context);
// events.
void AddEventCommands(CLI::App& app, Context& context);
// proto: a generic protocol channel between standard input and output, its status, the list.
void AddProtocolCommand(CLI::App& app, Context& context);
// Debugging a target's processes: ps, threads, modules, vm, sync, load, attach, detach, kill,
// suspend, resume, mem read|write, regs, break, run, core, core-load.
void AddDebugCommands(CLI::App& app, Context& context);

}  // namespace vesta_ctrl
