// The byte pipe between the library and its server, and the signal that stops its waits.
//
// Windows: named pipes opened overlapped, each wait on WaitForMultipleObjects over the I/O's
// event and the stop event. POSIX: non-blocking, close-on-exec Unix-domain stream sockets in the
// user's runtime directory, each wait a poll() over the socket and the stop signal's eventfd
// (or, for a pipe that asks, a read's wait inside recv, which a stop ends by shutdown).
// Framing, locking and logging belong to the channel above; this layer moves bytes and says,
// as one IoResult, how an operation ended.
#ifndef VEKX_PLATFORM_PIPE_H_
#define VEKX_PLATFORM_PIPE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qv::platform {

/// How a pipe operation ended. The system error behind kBrokenPipe and kFailed (and the last one
/// seen before kTimedOut) is kept for log lines: Pipe::LastSystemError, or an out parameter.
enum class IoResult {
  kOk,
  kStopped,     // The stop signal was set while the operation waited.
  kBrokenPipe,  // The peer closed its end (or was never there to write to).
  kTimedOut,    // Connect: nobody accepted within the time-out; WaitReadable: nothing there yet.
  kFailed,      // Anything else, including running out of memory or handles.
};

#ifdef _WIN32
using NativeHandle = void*;  // HANDLE
#else
using NativeHandle = int;  // file descriptor
#endif

/// A manual-reset signal that, once set, ends every wait of the pipe operations given it, and
/// stays set until reset. Set, Reset and IsSet may be called from any thread. An operation
/// checks the signal before it starts and while it waits; data that is already there when an
/// operation begins is not lost to a signal set at the same moment: the operation completes and
/// the next one reports kStopped.
///
/// Windows: a manual-reset event. POSIX: an eventfd that is readable while the signal is set.
class StopSignal {
 public:
  StopSignal() noexcept;
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  /// False when the system gave no event or descriptor; every operation given an invalid
  /// signal fails (kFailed), and Set/Reset do nothing.
  bool IsValid() const noexcept;
  void Set() noexcept;
  void Reset() noexcept;
  bool IsSet() const noexcept;

  /// The event or descriptor to wait on, for the platform layer's own waits. Owned by this.
  NativeHandle native_handle() const noexcept { return handle_; }

 private:
  NativeHandle handle_;
#ifndef _WIN32
  friend class Pipe;
  // Registers the descriptor of a read that waits inside recv, which Set then wakes by shutting
  // the socket's reading down; false when the signal is set already. One such read at a time.
  bool BeginBlockingRead(int fd) const noexcept;
  void EndBlockingRead() const noexcept;

  // Mirrors the descriptor's state, so that the check at the start of every read and write
  // costs no system call.
  std::atomic<bool> set_{false};
  // The blocking read under way, so that Set shuts down only a descriptor that is still open
  // (a pipe is not closed while one of its operations runs). Set holds the lock while it shuts
  // the descriptor down; a read that sees the signal set waits for it before it ends.
  mutable std::mutex blocking_mutex_;
  mutable std::atomic<int> blocking_fd_{-1};
#endif
};

/// One connected end of a pipe, client or server side. It owns its OS handle and closes it
/// once, in Close or the destructor.
///
/// One thread may read while another writes (a read and a write each have their own
/// completion event on Windows); two concurrent reads or two concurrent writes are the caller's
/// to prevent. Close and the destructor must not run while another thread is inside an
/// operation: stop it with its StopSignal and join it first, since POSIX reuses a closed
/// descriptor's number at once.
class Pipe {
 public:
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  /// Opens the client end of the pipe `name` (Windows "\\.\pipe\<name>", POSIX the socket
  /// SocketPath(RuntimeDirectory(), name)), retrying while nobody serves the name, or every
  /// instance is taken by other clients, until `timeout_ms` has passed: then kTimedOut. On POSIX
  /// the server's user must be ours, else kFailed. On success `out` holds the pipe and
  /// `system_error` is 0; otherwise `out` is left empty and `system_error` holds the reason
  /// (errno or GetLastError).
  static IoResult Connect(std::u16string_view name, uint32_t timeout_ms, std::unique_ptr<Pipe>& out,
                          uint32_t& system_error) noexcept;

  /// Writes every byte of every part, in order, as one write where the system allows (POSIX one
  /// gathered send per batch of parts, looping over partial writes; Windows one WriteFile, the
  /// parts copied together first when there is more than one). Empty parts are skipped. Never
  /// raises SIGPIPE. kBrokenPipe when the peer has closed; after kStopped or a failure an
  /// unknown prefix of the bytes may have been sent.
  IoResult Write(std::span<const std::span<const uint8_t>> parts, const StopSignal& stop) noexcept;

  /// Write, with the parts marked nonzero in `lendable` (and of kLendFrom bytes or more) lent
  /// rather than copied where the system allows: Linux hands their pages to the socket by
  /// reference (vmsplice into a relay pipe, splice into the socket), and the peer reads them from
  /// where they lie. The caller then leaves those bytes unchanged until UnreadByPeer() has come
  /// to 0. A splice never waits for room: each takes only what the socket has room for, so that a
  /// stop still ends the wait. Where the system refuses, and on Windows, the parts are copied.
  IoResult Write(std::span<const std::span<const uint8_t>> parts, std::span<const uint8_t> lendable,
                 const StopSignal& stop) noexcept;
  /// Below this, copying a part costs less than lending its pages.
  static constexpr size_t kLendFrom = 256 * 1024;
  /// Bytes written at this end that the peer has not read yet; 0 on Windows, where a write
  /// copies, and when the system cannot tell.
  size_t UnreadByPeer() const noexcept;

  /// Reads at least one and at most `size` bytes into `dest` and sets `got` to the count (0 on
  /// anything but kOk, and for size 0). kBrokenPipe when the peer has closed and nothing is
  /// left to read.
  IoResult ReadSome(void* dest, size_t size, size_t& got, const StopSignal& stop) noexcept;

  /// Reads exactly `size` bytes into `dest`. kBrokenPipe when the peer closes first, whatever
  /// part of the bytes had arrived.
  IoResult ReadExact(void* dest, size_t size, const StopSignal& stop) noexcept;

  /// The send buffer a POSIX pipe asks the system for: room for a large answer (a 1 MiB memory
  /// read) to go out in one write and be read in one wake-up, where the default of about
  /// 200 KiB costs a dozen context switches. Linux caps it at net.core.wmem_max and charges only
  /// what is queued.
  static constexpr int kSendBufferBytes = 4 << 20;

  /// From now on a read that finds nothing waits inside the system's read call rather than in a
  /// poll before it: one system call and one wake-up per message instead of two, for a reader
  /// that spends its life waiting for the next request. A stop then ends the wait by shutting
  /// the pipe's reading down for good, so only a pipe whose stop ends it should ask; and the
  /// signal given to its reads may serve one such pipe at a time. Windows already waits in the
  /// read itself: nothing changes there.
  void WaitInsideReads() noexcept;

  /// Whether WaitReadable can wait: POSIX polls the socket; a Windows pipe shows that bytes have
  /// come only by reading them.
#ifdef _WIN32
  static constexpr bool kWaitsWithoutReading = false;
#else
  static constexpr bool kWaitsWithoutReading = true;
#endif
  /// Reads nothing: kOk once a read would find bytes or the peer's close, kStopped when `stop` is
  /// set first. Without `wait` it only looks: kTimedOut when nothing is there yet. Another thread
  /// may read meanwhile. Where kWaitsWithoutReading is false, a wait returns kOk at once.
  IoResult WaitReadable(const StopSignal& stop, bool wait) noexcept;

  /// errno or GetLastError of the last failed operation of this pipe (0 before any), for logs.
  uint32_t LastSystemError() const noexcept {
    return last_error_.load(std::memory_order_relaxed);
  }

  /// Closes the handle now; later operations fail. Safe to call twice.
  void Close() noexcept;
  bool IsOpen() const noexcept;

 private:
  friend class PipeListener;
  explicit Pipe(NativeHandle handle) noexcept;
#ifndef _WIN32
  // ReadSome of a pipe whose reads wait inside recv.
  IoResult ReadBlocking(void* dest, size_t size, size_t& got, const StopSignal& stop) noexcept;
  // The parts copied into the socket, and one part's pages lent to it.
  IoResult SendCopies(std::span<const std::span<const uint8_t>> parts,
                      const StopSignal& stop) noexcept;
  IoResult SendLent(std::span<const uint8_t> part, const StopSignal& stop) noexcept;
#endif
  void Fail(uint32_t error) noexcept {
    last_error_.store(error, std::memory_order_relaxed);
  }

  NativeHandle handle_;
#ifdef _WIN32
  // Reads and writes complete on different events, so that one of each can be in flight.
  void* read_event_ = nullptr;
  void* write_event_ = nullptr;
#else
  // Whether the last read found nothing waiting. A reader that waits for each answer or request
  // then waits first and reads once, instead of reading, finding nothing, waiting and reading
  // again. Only the one reader of the moment uses it.
  bool read_waits_ = false;
  bool reads_block_ = false;  // see WaitInsideReads
  int send_buffer_ = 0;       // the socket's send buffer in bytes, as the system granted it
#endif
  std::atomic<uint32_t> last_error_{0};
};

/// The server side of a pipe name: hands out one connected Pipe per client.
///
/// Windows keeps one listening instance of the named pipe ready at all times (the first one
/// created with FILE_FLAG_FIRST_PIPE_INSTANCE, so a name another process serves is refused),
/// open to the current user only and to no remote client.
/// POSIX binds and listens on the socket file, replacing a stale one that nobody listens on,
/// and removes the file it created when destroyed.
class PipeListener {
 public:
  ~PipeListener();
  PipeListener(const PipeListener&) = delete;
  PipeListener& operator=(const PipeListener&) = delete;

  /// Starts serving `name`. kFailed, with `out` empty and the reason in `system_error`, when
  /// another listener serves the name, the name is not usable (empty, or on POSIX holding '/'),
  /// or the system refuses.
  static IoResult Create(std::u16string_view name, std::unique_ptr<PipeListener>& out,
                         uint32_t& system_error) noexcept;

  /// Waits for the next client and hands its connected end to `out`. On POSIX a client whose
  /// user is not ours is dropped and the wait goes on. Only one thread may accept at a time.
  IoResult Accept(std::unique_ptr<Pipe>& out, const StopSignal& stop) noexcept;

  uint32_t LastSystemError() const noexcept { return last_error_; }

 private:
  PipeListener() noexcept = default;

#ifdef _WIN32
  // Creates the next listening instance into pending_.
  bool NewInstance(bool first) noexcept;

  std::wstring full_name_;
  void* pending_ = nullptr;  // INVALID_HANDLE_VALUE when no instance is ready
  void* connect_event_ = nullptr;
  // Grants the pipe to the current user alone (LocalAlloc'd); nullptr gives the default.
  void* security_descriptor_ = nullptr;
#else
  int fd_ = -1;
  std::string path_;
  // The socket file this listener bound, so that only that file is removed at the end.
  uint64_t device_ = 0;
  uint64_t inode_ = 0;
#endif
  uint32_t last_error_ = 0;
};

/// The current user's account name: GetUserNameW on Windows; on POSIX the passwd name of the
/// effective user, or its decimal uid when it has no passwd entry. Empty only on failure.
std::u16string CurrentUserName() noexcept;

#ifndef _WIN32
/// The directory that holds this user's sockets and lock files: "$XDG_RUNTIME_DIR/vesta" when
/// XDG_RUNTIME_DIR is set and not empty, else "/tmp/vesta-<euid>". Created with mode 0700 when
/// missing (its parent must exist). nullopt, with errno saying why, when it cannot be created,
/// is not a directory (a symbolic link is refused too), is not owned by the effective user or
/// grants any permission to group or others; `problem`, when given, then says which in a sentence
/// that names the directory.
std::optional<std::string> RuntimeDirectory(std::string* problem = nullptr) noexcept;

/// The socket path for the pipe `name` in `run_dir`: "<run_dir>/<name>" (name in UTF-8) when
/// that fits a socket address. Otherwise the name is replaced by "qv_" and the 16 lower-case
/// hex digits of the 64-bit FNV-1a hash of its UTF-8 bytes, which keeps names derived from
/// long user names apart. nullopt when even that does not fit, or the name is empty, "." or
/// "..", or holds '/' or a zero.
std::optional<std::string> SocketPath(std::string_view run_dir, std::u16string_view name) noexcept;
#endif

}  // namespace qv::platform

#endif  // VEKX_PLATFORM_PIPE_H_
