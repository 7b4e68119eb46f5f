#include "platform/pipe.h"

#include <windows.h>
// windows.h must come first.
#include <sddl.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>

#include "platform/wide_string.h"

namespace qv::platform {
namespace {

constexpr wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";

// Sizes the system reserves for each direction of a server instance: a hint, not a limit.
constexpr DWORD kPipeBufferBytes = 64 * 1024;

// The largest single ReadFile or WriteFile; longer transfers loop.
constexpr size_t kMaxTransfer = 1u << 30;

// Pause between attempts to open a pipe that nobody serves yet.
constexpr DWORD kConnectRetryMs = 10;

uint32_t LastError() noexcept {
  return static_cast<uint32_t>(GetLastError());
}

// A peer that went away shows as any of these, depending on the moment and on the system
// (Wine 8 reports a pending read on a pipe whose server disconnected as "not connected").
bool IsBrokenPipeError(DWORD error) noexcept {
  return error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED || error == ERROR_NO_DATA;
}

IoResult Classify(DWORD error) noexcept {
  return IsBrokenPipeError(error) ? IoResult::kBrokenPipe : IoResult::kFailed;
}

HANDLE NewManualResetEvent() noexcept {
  return CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

// The common entry check of every operation.
IoResult CheckStart(HANDLE handle, const StopSignal& stop, uint32_t& error) noexcept {
  if (handle == INVALID_HANDLE_VALUE) {
    error = ERROR_INVALID_HANDLE;
    return IoResult::kFailed;
  }
  if (!stop.IsValid()) {
    error = ERROR_INVALID_PARAMETER;
    return IoResult::kFailed;
  }
  return stop.IsSet() ? IoResult::kStopped : IoResult::kOk;
}

// Finishes the overlapped operation `overlapped` on `handle` that the system reported pending:
// waits with no time limit for its event or the stop signal. When the stop signal ends the wait
// the operation is cancelled, and waited for, since the system writes to `overlapped` (and, for
// a read, to the buffer) until it has ended. A completion that is already there wins over the
// stop signal.
IoResult FinishPending(HANDLE handle, OVERLAPPED& overlapped, const StopSignal& stop,
                       DWORD& transferred, uint32_t& error) noexcept {
  HANDLE waits[2] = {overlapped.hEvent, stop.native_handle()};
  const DWORD woke = WaitForMultipleObjects(2, waits, FALSE, INFINITE);
  if (woke != WAIT_OBJECT_0) {
    const IoResult result = woke == WAIT_OBJECT_0 + 1 ? IoResult::kStopped : IoResult::kFailed;
    if (result == IoResult::kFailed) error = LastError();
    CancelIoEx(handle, &overlapped);
    GetOverlappedResult(handle, &overlapped, &transferred, TRUE);
    return result;
  }
  if (!GetOverlappedResult(handle, &overlapped, &transferred, FALSE)) {
    const DWORD code = GetLastError();
    error = code;
    return Classify(code);
  }
  return IoResult::kOk;
}

// Runs one overlapped ReadFile or WriteFile, which `start` issues on the OVERLAPPED it is given,
// to its end: done at once, done after a wait, ended by the stop signal, or failed with the code
// left in `error`.
template <class Start>
IoResult RunOverlapped(HANDLE handle, HANDLE event, const StopSignal& stop, Start start,
                       DWORD& transferred, uint32_t& error) noexcept {
  OVERLAPPED overlapped{};
  overlapped.hEvent = event;
  transferred = 0;
  if (!start(overlapped)) {
    const DWORD code = GetLastError();
    if (code != ERROR_IO_PENDING) {
      error = code;
      return Classify(code);
    }
    return FinishPending(handle, overlapped, stop, transferred, error);
  }
  if (!GetOverlappedResult(handle, &overlapped, &transferred, FALSE)) {
    error = GetLastError();
    return Classify(error);
  }
  return IoResult::kOk;
}

// A security descriptor whose one entry gives the current user full access to the pipe, so no
// other account on the machine can open it (the default also lets everyone read). nullptr when
// the user's SID cannot be read; free it with LocalFree.
PSECURITY_DESCRIPTOR NewCurrentUserOnlyDescriptor() noexcept {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return nullptr;
  // TOKEN_USER and the SID behind it; SECURITY_MAX_SID_SIZE is 68 bytes.
  alignas(TOKEN_USER) unsigned char buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  const BOOL have_user = GetTokenInformation(token, TokenUser, buffer, sizeof(buffer), &size);
  CloseHandle(token);
  if (!have_user) return nullptr;
  wchar_t* sid = nullptr;
  if (!ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &sid)) {
    return nullptr;
  }
  // "D:P": a protected DACL; "(A;;GA;;;sid)": allow generic-all to that SID.
  wchar_t sddl[256];
  const int length = _snwprintf(sddl, std::size(sddl), L"D:P(A;;GA;;;%ls)", sid);
  LocalFree(sid);
  if (length < 0 || static_cast<size_t>(length) >= std::size(sddl)) return nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor,
                                                            nullptr)) {
    return nullptr;
  }
  return descriptor;
}

}  // namespace

// --- StopSignal ---

StopSignal::StopSignal() noexcept : handle_(NewManualResetEvent()) {}

StopSignal::~StopSignal() {
  if (handle_ != nullptr) CloseHandle(handle_);
}

bool StopSignal::IsValid() const noexcept {
  return handle_ != nullptr;
}

void StopSignal::Set() noexcept {
  if (handle_ != nullptr) SetEvent(handle_);
}

void StopSignal::Reset() noexcept {
  if (handle_ != nullptr) ResetEvent(handle_);
}

bool StopSignal::IsSet() const noexcept {
  return handle_ != nullptr && WaitForSingleObject(handle_, 0) == WAIT_OBJECT_0;
}

// --- Pipe ---

Pipe::Pipe(NativeHandle handle) noexcept : handle_(handle) {}

Pipe::~Pipe() {
  Close();
}

void Pipe::Close() noexcept {
  if (handle_ != INVALID_HANDLE_VALUE) {
    CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
  }
  if (read_event_ != nullptr) {
    CloseHandle(read_event_);
    read_event_ = nullptr;
  }
  if (write_event_ != nullptr) {
    CloseHandle(write_event_);
    write_event_ = nullptr;
  }
}

bool Pipe::IsOpen() const noexcept {
  return handle_ != INVALID_HANDLE_VALUE;
}

IoResult Pipe::Connect(std::u16string_view name, uint32_t timeout_ms, std::unique_ptr<Pipe>& out,
                       uint32_t& system_error) noexcept {
  out.reset();
  system_error = 0;
  if (name.empty()) {
    system_error = ERROR_INVALID_NAME;
    return IoResult::kFailed;
  }
  std::wstring full_name;
  try {
    full_name = kPipePrefix;
    full_name.append(reinterpret_cast<const wchar_t*>(name.data()), name.size());
  } catch (...) {
    system_error = ERROR_NOT_ENOUGH_MEMORY;
    return IoResult::kFailed;
  }
  const ULONGLONG deadline = GetTickCount64() + timeout_ms;
  for (;;) {
    const ULONGLONG now = GetTickCount64();
    const DWORD left = now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
    // A wait of 0 would mean the server's default time-out.
    if (!WaitNamedPipeW(full_name.c_str(), std::max<DWORD>(left, 1))) {
      const DWORD error = GetLastError();
      system_error = error;
      // No instance at all: nobody serves the name yet. Windows reports that at once, so wait
      // here and ask again, as POSIX does for a socket that is not there.
      if (error == ERROR_FILE_NOT_FOUND || error == ERROR_BAD_PATHNAME) {
        if (left == 0) return IoResult::kTimedOut;
        Sleep(std::min(kConnectRetryMs, left));
        continue;
      }
      return error == ERROR_SEM_TIMEOUT ? IoResult::kTimedOut : IoResult::kFailed;
    }
    HANDLE handle = CreateFileW(full_name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (handle != INVALID_HANDLE_VALUE) {
      out.reset(new (std::nothrow) Pipe(handle));
      if (!out) {
        CloseHandle(handle);
        system_error = ERROR_NOT_ENOUGH_MEMORY;
        return IoResult::kFailed;
      }
      out->read_event_ = NewManualResetEvent();
      out->write_event_ = NewManualResetEvent();
      if (out->read_event_ == nullptr || out->write_event_ == nullptr) {
        system_error = LastError();
        out.reset();
        return IoResult::kFailed;
      }
      return IoResult::kOk;
    }
    const DWORD error = GetLastError();
    system_error = error;
    // Another client took the free instance between the wait and the open, or the server
    // closed it: wait for the next one.
    if (error != ERROR_PIPE_BUSY && error != ERROR_FILE_NOT_FOUND) return IoResult::kFailed;
    if (GetTickCount64() >= deadline) return IoResult::kTimedOut;
  }
}

// A named pipe copies what is written into its own buffer: nothing is lent.
IoResult Pipe::Write(std::span<const std::span<const uint8_t>> parts, std::span<const uint8_t>,
                     const StopSignal& stop) noexcept {
  return Write(parts, stop);
}

size_t Pipe::UnreadByPeer() const noexcept {
  return 0;
}

IoResult Pipe::Write(std::span<const std::span<const uint8_t>> parts,
                     const StopSignal& stop) noexcept {
  uint32_t error = 0;
  const IoResult start = CheckStart(handle_, stop, error);
  if (start != IoResult::kOk) {
    if (start == IoResult::kFailed) Fail(error);
    return start;
  }
  // One WriteFile for the whole frame: the parts that hold bytes are copied together unless
  // there is only one.
  size_t total = 0;
  size_t non_empty = 0;
  const uint8_t* data = nullptr;
  for (const auto& part : parts) {
    if (part.empty()) continue;
    total += part.size();
    ++non_empty;
    data = part.data();
  }
  if (total == 0) return IoResult::kOk;
  std::unique_ptr<uint8_t[]> joined;
  if (non_empty > 1) {
    joined.reset(new (std::nothrow) uint8_t[total]);
    if (!joined) {
      Fail(ERROR_NOT_ENOUGH_MEMORY);
      return IoResult::kFailed;
    }
    size_t at = 0;
    for (const auto& part : parts) {
      std::copy(part.begin(), part.end(), joined.get() + at);
      at += part.size();
    }
    data = joined.get();
  }
  size_t done = 0;
  while (done < total) {
    const DWORD chunk = static_cast<DWORD>(std::min(total - done, kMaxTransfer));
    DWORD written = 0;
    const IoResult result = RunOverlapped(
        handle_, write_event_, stop,
        [&](OVERLAPPED& overlapped) {
          return WriteFile(handle_, data + done, chunk, nullptr, &overlapped) != FALSE;
        },
        written, error);
    if (result != IoResult::kOk) {
      if (result != IoResult::kStopped) Fail(error);
      return result;
    }
    if (written == 0) {
      Fail(ERROR_WRITE_FAULT);
      return IoResult::kFailed;
    }
    done += written;
  }
  return IoResult::kOk;
}

IoResult Pipe::ReadSome(void* dest, size_t size, size_t& got, const StopSignal& stop) noexcept {
  got = 0;
  uint32_t error = 0;
  const IoResult start = CheckStart(handle_, stop, error);
  if (start != IoResult::kOk) {
    if (start == IoResult::kFailed) Fail(error);
    return start;
  }
  if (size == 0) return IoResult::kOk;
  const DWORD wanted = static_cast<DWORD>(std::min(size, kMaxTransfer));
  for (;;) {
    DWORD read = 0;
    const IoResult result = RunOverlapped(
        handle_, read_event_, stop,
        [&](OVERLAPPED& overlapped) {
          return ReadFile(handle_, dest, wanted, nullptr, &overlapped) != FALSE;
        },
        read, error);
    if (result != IoResult::kOk) {
      if (result != IoResult::kStopped) Fail(error);
      return result;
    }
    // A zero-byte write by the peer completes a read with nothing: wait for real bytes.
    if (read > 0) {
      got = read;
      return IoResult::kOk;
    }
    if (stop.IsSet()) return IoResult::kStopped;
  }
}

void Pipe::WaitInsideReads() noexcept {}

IoResult Pipe::WaitReadable(const StopSignal& stop, bool wait) noexcept {
  uint32_t error = 0;
  const IoResult start = CheckStart(handle_, stop, error);
  if (start != IoResult::kOk) {
    if (start == IoResult::kFailed) Fail(error);
    return start;
  }
  if (wait) return IoResult::kOk;
  DWORD available = 0;
  if (!PeekNamedPipe(handle_, nullptr, 0, nullptr, &available, nullptr)) {
    error = GetLastError();
    const IoResult result = Classify(error);
    // A closed peer is something a read finds.
    if (result == IoResult::kBrokenPipe) return IoResult::kOk;
    Fail(error);
    return result;
  }
  return available > 0 ? IoResult::kOk : IoResult::kTimedOut;
}

// --- PipeListener ---

PipeListener::~PipeListener() {
  if (pending_ != nullptr && pending_ != INVALID_HANDLE_VALUE) CloseHandle(pending_);
  if (connect_event_ != nullptr) CloseHandle(connect_event_);
  if (security_descriptor_ != nullptr) LocalFree(security_descriptor_);
}

bool PipeListener::NewInstance(bool first) noexcept {
  const DWORD open_mode =
      PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0);
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), security_descriptor_, FALSE};
  pending_ =
      CreateNamedPipeW(full_name_.c_str(), open_mode,
                       PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                       PIPE_UNLIMITED_INSTANCES, kPipeBufferBytes, kPipeBufferBytes, 0,
                       security_descriptor_ != nullptr ? &attributes : nullptr);
  if (pending_ == INVALID_HANDLE_VALUE) {
    last_error_ = LastError();
    return false;
  }
  return true;
}

IoResult PipeListener::Create(std::u16string_view name, std::unique_ptr<PipeListener>& out,
                              uint32_t& system_error) noexcept {
  out.reset();
  system_error = 0;
  if (name.empty()) {
    system_error = ERROR_INVALID_NAME;
    return IoResult::kFailed;
  }
  std::unique_ptr<PipeListener> listener(new (std::nothrow) PipeListener());
  if (!listener) {
    system_error = ERROR_NOT_ENOUGH_MEMORY;
    return IoResult::kFailed;
  }
  listener->pending_ = INVALID_HANDLE_VALUE;
  try {
    listener->full_name_ = kPipePrefix;
    listener->full_name_.append(reinterpret_cast<const wchar_t*>(name.data()), name.size());
  } catch (...) {
    system_error = ERROR_NOT_ENOUGH_MEMORY;
    return IoResult::kFailed;
  }
  // Without the user's SID the pipe keeps the system's default security rather than failing.
  listener->security_descriptor_ = NewCurrentUserOnlyDescriptor();
  listener->connect_event_ = NewManualResetEvent();
  if (listener->connect_event_ == nullptr) {
    system_error = LastError();
    return IoResult::kFailed;
  }
  if (!listener->NewInstance(true)) {
    system_error = listener->last_error_;
    return IoResult::kFailed;
  }
  out = std::move(listener);
  return IoResult::kOk;
}

IoResult PipeListener::Accept(std::unique_ptr<Pipe>& out, const StopSignal& stop) noexcept {
  out.reset();
  uint32_t error = 0;
  if (!stop.IsValid()) {
    last_error_ = ERROR_INVALID_PARAMETER;
    return IoResult::kFailed;
  }
  if (stop.IsSet()) return IoResult::kStopped;
  // The last Accept could not make the next instance: try again now.
  if (pending_ == INVALID_HANDLE_VALUE && !NewInstance(false)) return IoResult::kFailed;
  for (;;) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = connect_event_;
    if (!ConnectNamedPipe(pending_, &overlapped)) {
      const DWORD code = GetLastError();
      if (code == ERROR_NO_DATA) {
        // The client came and has already gone: make the instance listen again.
        DisconnectNamedPipe(pending_);
        continue;
      }
      if (code == ERROR_IO_PENDING) {
        DWORD unused = 0;
        const IoResult finished = FinishPending(pending_, overlapped, stop, unused, error);
        if (finished == IoResult::kStopped) {
          // A client that connected while the wait was being cancelled sees a broken pipe, and
          // the instance listens again for the next Accept.
          if (overlapped.Internal == 0) DisconnectNamedPipe(pending_);
          return IoResult::kStopped;
        }
        if (finished == IoResult::kBrokenPipe) {
          DisconnectNamedPipe(pending_);
          continue;
        }
        if (finished != IoResult::kOk) {
          last_error_ = error;
          return finished;
        }
      } else if (code != ERROR_PIPE_CONNECTED) {  // Connected: came before ConnectNamedPipe.
        last_error_ = code;
        return IoResult::kFailed;
      }
    }
    std::unique_ptr<Pipe> pipe(new (std::nothrow) Pipe(pending_));
    if (!pipe) {
      DisconnectNamedPipe(pending_);
      last_error_ = ERROR_NOT_ENOUGH_MEMORY;
      return IoResult::kFailed;
    }
    pending_ = INVALID_HANDLE_VALUE;  // The pipe owns the instance now.
    pipe->read_event_ = NewManualResetEvent();
    pipe->write_event_ = NewManualResetEvent();
    if (pipe->read_event_ == nullptr || pipe->write_event_ == nullptr) {
      last_error_ = LastError();
      return IoResult::kFailed;
    }
    // The next client finds an instance at once; if the system refuses one now, the next
    // Accept tries again.
    NewInstance(false);
    out = std::move(pipe);
    return IoResult::kOk;
  }
}

// --- Names ---

std::u16string CurrentUserName() noexcept {
  try {
    // UNLEN (256) characters and the terminator.
    wchar_t buffer[257];
    DWORD size = static_cast<DWORD>(std::size(buffer));
    if (!GetUserNameW(buffer, &size) || size == 0) return {};
    return std::u16string(reinterpret_cast<const char16_t*>(buffer), size - 1);
  } catch (...) {
    return {};
  }
}

}  // namespace qv::platform
