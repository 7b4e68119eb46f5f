// Finding, starting and recognising the per-user server, vesta-kx.
//
// The library asks ServerIsReady before it connects and, when no server answers, finds the
// executable with FindServerExecutable and starts it with StartServerProcess. The server takes
// the InstanceLock first, so that only one serves a user, and holds a ReadinessMarker from the
// moment it accepts connections until it stops.
//
// Windows uses named kernel objects: the readiness event "Global\qv_ve_run_svr<user>" and the
// mutex "Local\vesta-kx-<user>". POSIX uses files in the runtime directory that the server
// holds open-file-description write locks on: "qv_ve_run_svr<user>" and "vesta-kx.lock". Such a
// lock belongs to the open file, not to the process, so a probe from the very process that holds
// it still sees it, and a server that dies drops it with its descriptors.
#ifndef VEKX_PLATFORM_SERVER_PROCESS_H_
#define VEKX_PLATFORM_SERVER_PROCESS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qv::platform {

/// Whether the server of `user_name` is accepting connections.
///
/// Windows opens the readiness event and waits up to `wait_ms` for it to be signalled; ready
/// only when it is. `runtime_dir` is not used. POSIX probes the readiness file in `runtime_dir`
/// for a write lock without taking it; ready only when another open file holds one. A missing
/// file, or one nobody holds (a server that crashed leaves such a file), means no server. The
/// answer is immediate, so `wait_ms` is not used.
bool ServerIsReady(std::u16string_view user_name, const std::string& runtime_dir,
                   std::uint32_t wait_ms) noexcept;

/// The server's sign that it accepts connections, held while it serves; destroying it takes
/// the sign back. Windows: the readiness event, manual-reset, set on creation and reset on
/// destruction. POSIX: the readiness file (created with mode 0600 when missing) locked for
/// writing.
class ReadinessMarker {
 public:
  /// The marker for `user_name` (POSIX: in `runtime_dir`), or nullptr when the system refuses
  /// it: on POSIX also when another open file already holds the lock.
  static std::unique_ptr<ReadinessMarker> Create(std::u16string_view user_name,
                                                 const std::string& runtime_dir) noexcept;
  ~ReadinessMarker();
  ReadinessMarker(const ReadinessMarker&) = delete;
  ReadinessMarker& operator=(const ReadinessMarker&) = delete;

 private:
  explicit ReadinessMarker(std::intptr_t handle) noexcept : handle_(handle) {}

  std::intptr_t handle_;  // The event's HANDLE on Windows, the locked file's descriptor on POSIX.
};

/// Why InstanceLock::TryAcquire gave no lock.
enum class InstanceLockFailure {
  kHeldElsewhere,  // Another server of this user holds it.
  kSystemError,    // The mutex or the lock file could not be made.
};

/// The right to be the one server of a user, held for the server's lifetime. Windows: the named
/// mutex "Local\vesta-kx-<user>", whose existence is the lock. POSIX: a write lock on
/// `<runtime_dir>/vesta-kx.lock`. The holder's process id is recorded beside the lock (POSIX: as
/// the lock file's text; Windows: in the named section "Local\vesta-kx-pid-<user>") so that a
/// tool can ask that very process to stop.
class InstanceLock {
 public:
  /// The lock, or nullptr when it cannot be had; `failure`, when not null, then says why.
  static std::unique_ptr<InstanceLock> TryAcquire(std::u16string_view user_name,
                                                  const std::string& runtime_dir,
                                                  InstanceLockFailure* failure = nullptr) noexcept;
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

 private:
  InstanceLock(std::intptr_t handle, std::intptr_t record) noexcept
      : handle_(handle), record_(record) {}

  std::intptr_t handle_;  // The mutex's HANDLE on Windows, the locked file's descriptor on POSIX.
  [[maybe_unused]] std::intptr_t record_;  // Windows: the section holding the process id.
};

/// The process id of the server that holds the InstanceLock of `user_name` now, or nullopt when
/// no server holds it or the holder cannot be told (POSIX: a lock file whose text names no live
/// vesta-kx, as when a server has just taken the lock and not yet written its id).
std::optional<std::uint32_t> RunningServerProcessId(std::u16string_view user_name,
                                                    const std::string& runtime_dir) noexcept;

/// Asks the server process `process_id` to end cleanly, as the user's Ctrl+C would: SIGTERM on
/// POSIX; on Windows the server's stop event (see StopOnTermination), else a console Ctrl+C. It
/// returns at once; the caller watches RunningServerProcessId to see it go. False when the system
/// refuses the request.
bool RequestServerStop(std::uint32_t process_id) noexcept;

/// The full path of the server executable, or nullopt when there is none to be found.
///
/// Windows: "vesta-kx.exe" along SearchPathW's standard order (the host application's
/// directory, the current directory, the system directories, then PATH); a path of 260
/// characters or more counts as not found. POSIX: "vesta-kx" in the host executable's
/// directory, then in each directory of PATH in order; the first regular file this process may
/// execute wins. The current directory is never searched: empty and relative PATH entries,
/// which name it or depend on it, are skipped.
std::optional<std::u16string> FindServerExecutable() noexcept;

#ifndef _WIN32
/// The POSIX search of FindServerExecutable with its inputs given: `host_dir` (searched first
/// when not empty) and `path_list`, a colon-separated list in the form of PATH.
std::optional<std::u16string> FindServerExecutableIn(std::string_view host_dir,
                                                     std::string_view path_list) noexcept;
#endif

/// Starts the server from `executable_path`, a full path such as FindServerExecutable returns,
/// with no arguments, in the executable's directory, inheriting no handles or descriptors but
/// the standard ones. The caller does not watch the process.
///
/// Windows: CreateProcessW without a console window, at normal priority; fails when the
/// directory is 260 characters or longer. POSIX: the server runs detached (double fork, its own
/// session, standard streams on /dev/null), so it is never the host's child; true only once
/// the executable has replaced the child, so a path that cannot be executed fails here.
/// `system_error`, when given, receives why it failed (errno on POSIX, GetLastError on Windows).
bool StartServerProcess(std::u16string_view executable_path, int* system_error = nullptr) noexcept;

/// The system's words for a `system_error` of StartServerProcess, without a final full stop.
std::string StartErrorText(int system_error);

}  // namespace qv::platform

#endif  // VEKX_PLATFORM_SERVER_PROCESS_H_
