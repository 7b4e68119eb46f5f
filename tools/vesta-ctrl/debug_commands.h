#pragma once
// The parts of the debug commands that AddDebugCommands (commands.h) declares, one file each,
// and what they share.

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

// mem read|write, regs.
void AddMemoryCommands(CLI::App& app, Context& context);
// break.
void AddBreakpointCommands(CLI::App& app, Context& context);
// run.
void AddRunCommand(CLI::App& app, Context& context);
// core.
void AddCoreCommand(CLI::App& app, Context& context);
// core-load.
void AddCoreLoadCommand(CLI::App& app, Context& context);

// A program as `load` and `run` send it: a file of this machine is loaded from the host, by its
// absolute path (the server's working directory is not the tool's); any other path names a file
// of the kit's application file system, sent as typed.
struct ProgramPath {
  bool on_host = false;
  std::string path;
};
ProgramPath ProgramPathOf(const std::string& typed);

// The TARGET and PID positionals every debug command starts with.
struct ProcessArgs {
  std::string spec;
  std::string pid;
};
void AddProcessArgs(CLI::App& command, ProcessArgs& args);
std::uint32_t Pid(const ProcessArgs& args);

// A stop reason as the output gives it: {"code": 131, "name": "STOP_REASON_SIGSWBRKPT"}, the name
// null when the IDL has none for the code; null for no reason (no object, or code 0).
nlohmann::ordered_json StopReasonJson(const vekx::ComPtr<IStopReason>& reason);
// "STOP_REASON_SIGSWBRKPT (131)", or "-" for no reason.
std::string StopReasonText(const nlohmann::ordered_json& reason);

}  // namespace vesta_ctrl
