#pragma once
// Running vesta-ctrl as a user runs it, for the CLI tests: its exit code and what it printed.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/wait.h>
#endif

#include <cstdlib>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "server/server_harness.h"
#include "support/child_program.h"

namespace qv::clitest {

using qv::servertest::ReadText;
using qv::servertest::TestRoot;

struct CtrlRun {
  int exit_code = -1;
  std::string out;
  std::string err;
};

// The tool writes text, which Windows ends with CR LF; compared as LF.
inline std::string Lines(std::string text) {
  for (size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at))
    text.erase(at, 1);
  return text;
}

#ifdef _WIN32
inline CtrlRun Ctrl(const std::vector<std::string>& args) {
  const auto out = TestRoot() / "ctrl.out";
  const auto err = TestRoot() / "ctrl.err";
  CtrlRun run;
  const auto program =
      qv::testing::ChildProgram::Start(VEKX_CTRL_EXECUTABLE, args, out.string(), err.string());
  if (program == nullptr) return run;
  run.exit_code = program->Wait(60000).value_or(-1);
  run.out = Lines(ReadText(out));
  run.err = Lines(ReadText(err));
  return run;
}
#else
inline std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

// `input` is what the tool reads on standard input.
inline CtrlRun Ctrl(const std::vector<std::string>& args, const std::string& input = "/dev/null") {
  const auto out = TestRoot() / "ctrl.out";
  const auto err = TestRoot() / "ctrl.err";
  std::string command = Quoted(VEKX_CTRL_EXECUTABLE);
  for (const std::string& arg : args)
    command += " " + Quoted(arg);
  command += " >" + Quoted(out.string()) + " 2>" + Quoted(err.string()) + " <" + Quoted(input);
  const int status = std::system(command.c_str());
  CtrlRun run;
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = ReadText(out);
  run.err = ReadText(err);
  return run;
}
#endif

inline nlohmann::json Json(const CtrlRun& run) {
  return nlohmann::json::parse(run.out, nullptr, /*allow_exceptions=*/false);
}

}  // namespace qv::clitest
