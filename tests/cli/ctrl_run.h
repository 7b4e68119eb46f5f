#pragma once
// Running vesta-ctrl as a user runs it, for the CLI tests: its exit code and what it printed.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/wait.h>
#endif

#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/process_identity.h"
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

#ifndef _WIN32
inline std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}
#endif

// `input` is what the tool reads on standard input (POSIX only).
inline CtrlRun Ctrl(const std::vector<std::string>& args,
                    [[maybe_unused]] const std::string& input = "/dev/null") {
  const auto out = TestRoot() / "ctrl.out";
  const auto err = TestRoot() / "ctrl.err";
  CtrlRun run;
#ifdef _WIN32
  const auto program =
      qv::testing::ChildProgram::Start(VEKX_CTRL_EXECUTABLE, args, out.string(), err.string());
  if (program == nullptr) return run;
  run.exit_code = program->Wait(60000).value_or(-1);
  const auto read = [](const auto& path) { return Lines(ReadText(path)); };
#else
  std::string command = Quoted(VEKX_CTRL_EXECUTABLE);
  for (const std::string& arg : args)
    command += " " + Quoted(arg);
  command += " >" + Quoted(out.string()) + " 2>" + Quoted(err.string()) + " <" + Quoted(input);
  const int status = std::system(command.c_str());
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  const auto read = [](const auto& path) { return ReadText(path); };
#endif
  run.out = read(out);
  run.err = read(err);
  return run;
}

inline nlohmann::json Json(const CtrlRun& run) {
  return nlohmann::json::parse(run.out, nullptr, /*allow_exceptions=*/false);
}

// One command of a session as a user would type it, and what it must give: its exit code, fields
// of its JSON document (by JSON pointer; "" is the whole document, "(missing)" a field that must
// not be there, Named() one whose value later rows use), and texts in its standard output and
// error (Whole() for the whole stream). In arguments and texts "{name}" is replaced by the value
// Named(name); an expected field that is just "{name}" is the value itself.
struct Step {
  std::vector<std::string> args;
  int exit_code = 0;
  std::vector<std::pair<std::string, nlohmann::json>> fields;
  std::string out;
  std::string err;
};

// An expected output that is the whole of its stream rather than a part of it.
inline std::string Whole(const std::string& text) {
  return std::string(1, '\0') + text;
}

// A field, whatever its value, that later rows name as "{name}".
inline nlohmann::json Named(const std::string& name) {
  return std::string(1, '\0') + name;
}

inline void RunSteps(const std::vector<Step>& steps) {
  std::map<std::string, nlohmann::json> captured;
  const auto substituted = [&](std::string text) {
    for (const auto& [name, value] : captured) {
      const std::string placeholder = "{" + name + "}";
      const std::string with = value.is_string() ? value.get<std::string>() : value.dump();
      for (size_t at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder))
        text.replace(at, placeholder.size(), with);
    }
    return text;
  };
  const auto expected = [&](const nlohmann::json& value) {
    const std::string text = value.is_string() ? value.get<std::string>() : "";
    const auto it = text.size() > 2 && text.front() == '{' && text.back() == '}'
                        ? captured.find(text.substr(1, text.size() - 2))
                        : captured.end();
    return it != captured.end() ? it->second : value;
  };
  for (const Step& step : steps) {
    std::vector<std::string> args;
    std::string line;
    for (const std::string& arg : step.args) {
      args.push_back(substituted(arg));
      line += args.back() + " ";
    }
    const CtrlRun run = Ctrl(args);
    ASSERT_EQ(run.exit_code, step.exit_code) << line << "\n" << run.out << run.err;
    for (const auto& [got, want] : {std::pair{run.out, step.out}, std::pair{run.err, step.err}}) {
      const bool whole = !want.empty() && want[0] == '\0';
      const std::string text = substituted(whole ? want.substr(1) : want);
      EXPECT_TRUE(whole ? got == text : got.find(text) != std::string::npos)
          << line << "\n"
          << (whole ? "is not" : "holds no") << " '" << text << "':\n"
          << got;
    }
    const nlohmann::json document = Json(run);
    for (const auto& [pointer, value] : step.fields) {
      const nlohmann::json::json_pointer at(pointer);
      if (value.is_string() && value.get<std::string>().starts_with('\0')) {
        ASSERT_TRUE(document.contains(at)) << line << pointer << "\n" << run.out;
        captured[value.get<std::string>().substr(1)] = document[at];
        continue;
      }
      EXPECT_EQ(document.contains(at) ? document[at] : nlohmann::json("(missing)"), expected(value))
          << line << pointer << "\n"
          << run.out;
    }
  }
}

// A vesta-kx for this account's user name, the one vesta-ctrl serves, on kQuickScenario; the test
// process's runtime directory keeps its servers apart from any other.
class OwnUserServerTest : public qv::servertest::ServerTest {
 protected:
  OwnUserServerTest() : ServerTest(qv::platform::CurrentUserName()) {}
};

// The same on the built-in scenario (whose kits include devkit-alpha).
class BuiltInKitTest : public OwnUserServerTest {
 protected:
  void SetUp() override { StartServer(/*built_in=*/true); }
};

}  // namespace qv::clitest
