#include "support/child_program.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/child_process.h"

#ifdef _WIN32
#include <windows.h>

#include "platform/wide_string.h"
#endif

namespace qv::testing {

#ifndef _WIN32

std::unique_ptr<ChildProgram> ChildProgram::Start(const std::string& path,
                                                  const std::vector<std::string>& args,
                                                  const std::string& output_path) {
  auto process = platform::ChildProcess::Start(path, args, output_path);
  if (process == nullptr) return nullptr;
  std::unique_ptr<ChildProgram> program(new ChildProgram);
  program->process_ = std::move(process);
  return program;
}

ChildProgram::~ChildProgram() = default;

bool ChildProgram::RequestStop() {
  process_->RequestStop();
  return true;
}

void ChildProgram::Kill() {
  process_->Kill();
}

std::optional<int> ChildProgram::Wait(uint32_t timeout_ms) {
  return process_->Wait(timeout_ms);
}

std::string ChildProgram::ThreadStacks() const {
  const std::string pid = std::to_string(process_->Id());
  std::string stacks;
  if (FILE* gdb = popen(("gdb -nx -batch -p " + pid +
                         " -ex 'set print frame-arguments none' -ex 'thread apply all bt' 2>&1")
                            .c_str(),
                        "r")) {
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, gdb)) > 0;)
      stacks.append(buffer, got);
    if (pclose(gdb) == 0 && stacks.find("Thread ") != std::string::npos) return stacks;
  }
  // Without gdb, or where it may not attach: the system call each thread waits in.
  stacks = "threads (system call and arguments):\n";
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + pid + "/task", error)) {
    std::ifstream syscall(task.path() / "syscall");
    stacks += task.path().filename().string() + ": " +
              std::string(std::istreambuf_iterator<char>(syscall), {});
  }
  return stacks;
}

#else

namespace {

// One argument as the C runtime splits a command line: quoted when it holds a blank or a quote
// or is empty, a quote escaped, and the backslashes before a quote doubled.
std::wstring Quote(const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) return arg;
  std::wstring quoted = L"\"";
  size_t backslashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  quoted.append(2 * backslashes, L'\\');
  return quoted + L"\"";
}

std::wstring Wide(const std::string& utf8) {
  const std::u16string wide = platform::Utf8ToUtf16(utf8);
  return std::wstring(wide.begin(), wide.end());
}

}  // namespace

std::unique_ptr<ChildProgram> ChildProgram::Start(const std::string& path,
                                                  const std::vector<std::string>& args,
                                                  const std::string& output_path) {
  return Start(path, args, output_path, output_path);
}

std::unique_ptr<ChildProgram> ChildProgram::Start(const std::string& path,
                                                  const std::vector<std::string>& args,
                                                  const std::string& output_path,
                                                  const std::string& error_path) {
  std::wstring command = Quote(Wide(path));
  for (const std::string& arg : args)
    command += L" " + Quote(Wide(arg));
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  const auto create = [&](const std::string& file) {
    return CreateFileW(Wide(file).c_str(), GENERIC_WRITE,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherit,
                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  };
  const HANDLE output = create(output_path);
  if (output == INVALID_HANDLE_VALUE) return nullptr;
  const HANDLE error = error_path != output_path ? create(error_path) : output;
  if (error == INVALID_HANDLE_VALUE) {
    CloseHandle(output);
    return nullptr;
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = output;
  startup.hStdError = error;
  PROCESS_INFORMATION info{};
  // A process group of its own, so that a Ctrl+Break can be sent to it alone.
  const BOOL started = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE,
                                      CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &startup, &info);
  CloseHandle(output);
  if (error != output) CloseHandle(error);
  if (!started) return nullptr;
  CloseHandle(info.hThread);
  std::unique_ptr<ChildProgram> program(new ChildProgram);
  program->process_ = info.hProcess;
  program->id_ = info.dwProcessId;
  return program;
}

ChildProgram::~ChildProgram() {
  if (!Wait(0).has_value()) {
    TerminateProcess(process_, 1);
    WaitForSingleObject(process_, 10000);
  }
  CloseHandle(process_);
}

std::string ChildProgram::ThreadStacks() const {
  return {};
}

bool ChildProgram::RequestStop() {
  return GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, id_) != FALSE;
}

void ChildProgram::Kill() {
  TerminateProcess(process_, 1);
}

std::optional<int> ChildProgram::Wait(uint32_t timeout_ms) {
  if (WaitForSingleObject(process_, timeout_ms) != WAIT_OBJECT_0) return std::nullopt;
  DWORD code = 0;
  if (!GetExitCodeProcess(process_, &code)) return -1;
  return static_cast<int>(code);
}

#endif

}  // namespace qv::testing
