#include "platform/server_process.h"

#include <cstring>
#include <new>
#include <string>

#include "platform/automation.h"
#include "platform/wide_string.h"

namespace qv::platform {
namespace {

constexpr wchar_t kServerName[] = L"vesta-kx.exe";

// "<prefix><user>" as a zero-terminated wide string for the object-naming calls.
std::wstring ObjectName(const wchar_t* prefix, std::u16string_view user_name) {
  std::wstring name(prefix);
  name.append(reinterpret_cast<const wchar_t*>(user_name.data()), user_name.size());
  return name;
}

std::wstring ReadinessEventName(std::u16string_view user_name) {
  return ObjectName(L"Global\\qv_ve_run_svr", user_name);
}

HANDLE ToHandle(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

std::intptr_t FromHandle(HANDLE handle) {
  return reinterpret_cast<std::intptr_t>(handle);
}

bool IsSeparator(wchar_t c) {
  return c == L'\\' || c == L'/';
}

std::wstring ProcessIdRecordName(std::u16string_view user_name) {
  return ObjectName(L"Local\\vesta-kx-pid-", user_name);
}

// A named section holding this process's id, for the instance lock to keep while it is held.
HANDLE RecordProcessId(std::u16string_view user_name) {
  const HANDLE record = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                           sizeof(DWORD), ProcessIdRecordName(user_name).c_str());
  if (record == nullptr) return nullptr;
  void* view = MapViewOfFile(record, FILE_MAP_WRITE, 0, 0, sizeof(DWORD));
  if (view == nullptr) {
    CloseHandle(record);
    return nullptr;
  }
  const DWORD pid = GetCurrentProcessId();
  std::memcpy(view, &pid, sizeof pid);
  UnmapViewOfFile(view);
  return record;
}

}  // namespace

bool ServerIsReady(std::u16string_view user_name, const std::string& /*runtime_dir*/,
                   std::uint32_t wait_ms) noexcept {
  try {
    const HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, ReadinessEventName(user_name).c_str());
    if (event == nullptr) return false;
    const bool signalled = WaitForSingleObject(event, wait_ms) == WAIT_OBJECT_0;
    CloseHandle(event);
    return signalled;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

std::unique_ptr<ReadinessMarker> ReadinessMarker::Create(
    std::u16string_view user_name, const std::string& /*runtime_dir*/) noexcept {
  try {
    // Manual-reset and signalled at once: every waiting client wakes, and stays woken.
    const HANDLE event = CreateEventW(nullptr, TRUE, TRUE, ReadinessEventName(user_name).c_str());
    if (event == nullptr) return nullptr;
    // When the event exists already (a client still holds the one a crashed server made), its
    // state is whatever it was, not the initial state asked for: set it.
    if (!SetEvent(event)) {
      CloseHandle(event);
      return nullptr;
    }
    std::unique_ptr<ReadinessMarker> marker(new (std::nothrow) ReadinessMarker(FromHandle(event)));
    if (marker == nullptr) CloseHandle(event);
    return marker;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

ReadinessMarker::~ReadinessMarker() {
  // A client may still hold the event open, which keeps it alive: reset it, or that client
  // would see a server that is gone.
  ResetEvent(ToHandle(handle_));
  CloseHandle(ToHandle(handle_));
}

std::unique_ptr<InstanceLock> InstanceLock::TryAcquire(std::u16string_view user_name,
                                                       const std::string& /*runtime_dir*/,
                                                       InstanceLockFailure* failure) noexcept {
  InstanceLockFailure why = InstanceLockFailure::kSystemError;
  std::unique_ptr<InstanceLock> result;
  try {
    const HANDLE mutex =
        CreateMutexW(nullptr, FALSE, ObjectName(L"Local\\vesta-kx-", user_name).c_str());
    if (mutex != nullptr) {
      if (GetLastError() == ERROR_ALREADY_EXISTS) {
        CloseHandle(mutex);
        why = InstanceLockFailure::kHeldElsewhere;
      } else if (const HANDLE record = RecordProcessId(user_name); record != nullptr) {
        result.reset(new (std::nothrow) InstanceLock(FromHandle(mutex), FromHandle(record)));
        if (result == nullptr) {
          CloseHandle(record);
          CloseHandle(mutex);
        }
      } else {
        CloseHandle(mutex);
      }
    } else if (GetLastError() == ERROR_ACCESS_DENIED) {
      why = InstanceLockFailure::kHeldElsewhere;  // Made by a server with other rights.
    }
  } catch (const std::bad_alloc&) {
  }
  if (result == nullptr && failure != nullptr) *failure = why;
  return result;
}

InstanceLock::~InstanceLock() {
  CloseHandle(ToHandle(record_));
  CloseHandle(ToHandle(handle_));
}

std::optional<std::uint32_t> RunningServerProcessId(std::u16string_view user_name,
                                                    const std::string& /*runtime_dir*/) noexcept {
  try {
    const HANDLE record =
        OpenFileMappingW(FILE_MAP_READ, FALSE, ProcessIdRecordName(user_name).c_str());
    if (record == nullptr) return std::nullopt;
    std::optional<std::uint32_t> pid;
    if (const void* view = MapViewOfFile(record, FILE_MAP_READ, 0, 0, sizeof(DWORD))) {
      DWORD value = 0;
      std::memcpy(&value, view, sizeof value);
      UnmapViewOfFile(view);
      if (value != 0) pid = value;
    }
    CloseHandle(record);
    return pid;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool RequestServerStop(std::uint32_t process_id) noexcept {
  // The event the server made for the purpose (StopOnTermination); a server without one, or a
  // process of another kind, gets a console Ctrl+C instead.
  const std::wstring name = L"Local\\vesta-kx-stop-" + std::to_wstring(process_id);
  if (const HANDLE request = OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str())) {
    const bool set = SetEvent(request) != FALSE;
    CloseHandle(request);
    return set;
  }
  // A console control event reaches only the processes of the caller's console: join the
  // server's console for the moment, ignoring the event ourselves, then go back.
  FreeConsole();
  if (!AttachConsole(process_id)) {
    AttachConsole(ATTACH_PARENT_PROCESS);
    return false;
  }
  SetConsoleCtrlHandler(nullptr, TRUE);
  const bool sent = GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0) != FALSE;
  FreeConsole();
  AttachConsole(ATTACH_PARENT_PROCESS);
  return sent;
}

std::optional<std::u16string> FindServerExecutable() noexcept {
  try {
    wchar_t buffer[MAX_PATH];
    const DWORD length = SearchPathW(nullptr, kServerName, nullptr, MAX_PATH, buffer, nullptr);
    // Too small a buffer is reported as the size it would need, terminator included.
    if (length == 0 || length >= MAX_PATH) return std::nullopt;
    return std::u16string(reinterpret_cast<const char16_t*>(buffer), length);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool StartServerProcess(std::u16string_view executable_path, int* system_error) noexcept {
  int unused = 0;
  int& error = system_error != nullptr ? *system_error : unused;
  error = ERROR_BAD_PATHNAME;
  try {
    const std::wstring path(reinterpret_cast<const wchar_t*>(executable_path.data()),
                            executable_path.size());
    if (path.empty() || path.find(L'\0') != std::wstring::npos) return false;
    std::size_t separator = path.size();
    while (separator > 0 && !IsSeparator(path[separator - 1]))
      --separator;
    if (separator == 0) return false;  // No directory to start in.
    std::wstring directory = path.substr(0, separator - 1);
    // "C:" alone would mean drive C's current directory, and "" nothing: keep a root's separator.
    if (directory.empty() || directory.back() == L':') directory = path.substr(0, separator);
    if (directory.size() >= MAX_PATH) return false;

    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(path.c_str(), nullptr, nullptr, nullptr, FALSE,
                        CREATE_NO_WINDOW | NORMAL_PRIORITY_CLASS, nullptr, directory.c_str(),
                        &startup, &process)) {
      error = static_cast<int>(GetLastError());
      return false;
    }
    error = 0;
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return true;
  } catch (const std::bad_alloc&) {
    error = ERROR_NOT_ENOUGH_MEMORY;
    return false;
  }
}

std::string StartErrorText(int system_error) {
  char* text = nullptr;
  const DWORD length = FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, static_cast<DWORD>(system_error), 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string message = length > 0 ? std::string(text, length) : std::string();
  if (text != nullptr) LocalFree(text);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r' ||
                              message.back() == '.' || message.back() == ' '))
    message.pop_back();
  if (message.empty()) message = "system error " + std::to_string(system_error);
  return message;
}

}  // namespace qv::platform
