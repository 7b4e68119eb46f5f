#include "platform/pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/sockios.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/wide_string.h"

namespace qv::platform {
namespace {

// A path must leave room for its terminating zero in sun_path.
constexpr size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

// Gathered sends take the parts in batches of this many, so that no send needs an allocation.
constexpr size_t kSendBatch = 64;
// Parts of at most this many bytes in all are copied into one buffer and sent with send.
constexpr size_t kSmallSendBytes = 512;

// Pause between attempts to reach a socket that is not there yet or refuses.
constexpr long kConnectRetryMs = 10;

uint32_t ErrnoValue() noexcept {
  return static_cast<uint32_t>(errno);
}

bool IsBrokenPipeErrno(int error) noexcept {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

void SleepMs(long ms) noexcept {
  timespec delay{ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
  }
}

// Waits with no time limit until `fd` reports one of `events` (or an error or hang-up, which
// the retried operation then reports), or the stop signal is set. kOk means: try again.
IoResult WaitFor(int fd, short events, const StopSignal& stop, uint32_t& error,
                 int timeout_ms = -1) noexcept {
  pollfd entries[2] = {{fd, events, 0}, {stop.native_handle(), POLLIN, 0}};
  for (;;) {
    const int n = poll(entries, 2, timeout_ms);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = ErrnoValue();
      return IoResult::kFailed;
    }
    // Readiness of the pipe wins, so bytes that arrived are read; the next operation sees stop.
    if ((entries[0].revents & POLLNVAL) != 0) {
      error = EBADF;
      return IoResult::kFailed;
    }
    if (entries[0].revents != 0) return IoResult::kOk;
    if (entries[1].revents != 0) return IoResult::kStopped;
    if (n == 0) return IoResult::kTimedOut;
  }
}

// The common entry check of every operation.
IoResult CheckStart(int fd, const StopSignal& stop, uint32_t& error) noexcept {
  if (fd < 0) {
    error = EBADF;
    return IoResult::kFailed;
  }
  if (!stop.IsValid()) {
    error = EINVAL;
    return IoResult::kFailed;
  }
  return stop.IsSet() ? IoResult::kStopped : IoResult::kOk;
}

bool ValidName(std::u16string_view name) noexcept {
  if (name.empty() || name == u"." || name == u"..") return false;
  return name.find_first_of(std::u16string_view(u"/\0", 2)) == std::u16string_view::npos;
}

uint64_t Fnv1a64(std::string_view bytes) noexcept {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

// Fills `address` with `path`; false when it does not fit.
bool MakeAddress(const std::string& path, sockaddr_un& address) noexcept {
  if (path.size() > kMaxSocketPath) return false;
  std::memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

// The socket path of `name` in this user's runtime directory, or nullopt with `error` set.
std::optional<std::string> ResolvePath(std::u16string_view name, uint32_t& error) noexcept {
  if (!ValidName(name)) {
    error = EINVAL;
    return std::nullopt;
  }
  std::optional<std::string> run_dir = RuntimeDirectory();
  if (!run_dir) {
    error = ErrnoValue();
    return std::nullopt;
  }
  std::optional<std::string> path = SocketPath(*run_dir, name);
  if (!path) error = ENAMETOOLONG;
  return path;
}

int NewSocket() noexcept {
  return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Whether the user at the other end of `fd` is ours; `error` says why not.
bool PeerIsOurUser(int fd, uint32_t& error) noexcept {
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    error = ErrnoValue();
    return false;
  }
  if (credentials.uid != geteuid()) {
    error = EPERM;
    return false;
  }
  return true;
}

// Whether some listener accepts connections on `address` right now.
bool SomeoneListens(const sockaddr_un& address) noexcept {
  const int probe = NewSocket();
  if (probe < 0) return true;  // Cannot tell: do not touch the file.
  const int result = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int error = errno;
  close(probe);
  // A full backlog (EAGAIN) still means a listener.
  return result == 0 || error == EAGAIN || error == EINPROGRESS;
}

}  // namespace

// --- StopSignal ---

StopSignal::StopSignal() noexcept : handle_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

StopSignal::~StopSignal() {
  if (handle_ >= 0) close(handle_);
}

bool StopSignal::IsValid() const noexcept {
  return handle_ >= 0;
}

void StopSignal::Set() noexcept {
  if (handle_ < 0) return;
  set_.store(true, std::memory_order_seq_cst);
  {
    std::lock_guard lock(blocking_mutex_);
    const int fd = blocking_fd_.load(std::memory_order_seq_cst);
    if (fd >= 0) shutdown(fd, SHUT_RD);
  }
  const uint64_t one = 1;
  // EAGAIN means the counter is all but full: it is set anyway.
  while (write(handle_, &one, sizeof(one)) < 0 && errno == EINTR) {
  }
}

void StopSignal::Reset() noexcept {
  if (handle_ < 0) return;
  set_.store(false, std::memory_order_release);
  uint64_t count;
  // One read takes the whole counter back to zero; EAGAIN means it was not set.
  while (read(handle_, &count, sizeof(count)) < 0 && errno == EINTR) {
  }
}

bool StopSignal::IsSet() const noexcept {
  return handle_ >= 0 && set_.load(std::memory_order_acquire);
}

// A read and Set each write their own word and then read the other's (both sequentially
// consistent), so at least one sees the other: a Set before the read is seen here, a Set after it
// finds the descriptor. The lock is taken only when a Set has come, so that a Set that found the
// descriptor has shut it down before the read ends and the pipe may close it.
bool StopSignal::BeginBlockingRead(int fd) const noexcept {
  blocking_fd_.store(fd, std::memory_order_seq_cst);
  if (!set_.load(std::memory_order_seq_cst)) return true;
  EndBlockingRead();
  return false;
}

void StopSignal::EndBlockingRead() const noexcept {
  blocking_fd_.store(-1, std::memory_order_seq_cst);
  if (set_.load(std::memory_order_seq_cst)) {
    const std::lock_guard wait_for_set(blocking_mutex_);
  }
}

// --- Pipe ---

Pipe::Pipe(NativeHandle handle) noexcept : handle_(handle) {
  // Best effort: a pipe with the default buffer works, only slower for large answers.
  int bytes = kSendBufferBytes;
  setsockopt(handle_, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  // What the system granted, for the splices of lent pages, which must not wait for room.
  socklen_t length = sizeof(send_buffer_);
  if (getsockopt(handle_, SOL_SOCKET, SO_SNDBUF, &send_buffer_, &length) != 0) send_buffer_ = 0;
}

Pipe::~Pipe() {
  Close();
}

void Pipe::Close() noexcept {
  if (handle_ >= 0) {
    close(handle_);
    handle_ = -1;
  }
}

bool Pipe::IsOpen() const noexcept {
  return handle_ >= 0;
}

void Pipe::WaitInsideReads() noexcept {
  if (handle_ < 0 || reads_block_) return;
  // Writes stay non-blocking through MSG_DONTWAIT; only recv waits.
  const int flags = fcntl(handle_, F_GETFL);
  if (flags < 0 || fcntl(handle_, F_SETFL, flags & ~O_NONBLOCK) != 0) return;
  reads_block_ = true;
}

IoResult Pipe::Connect(std::u16string_view name, uint32_t timeout_ms, std::unique_ptr<Pipe>& out,
                       uint32_t& system_error) noexcept {
  out.reset();
  system_error = 0;
  const std::optional<std::string> path = ResolvePath(name, system_error);
  if (!path) return IoResult::kFailed;
  sockaddr_un address;
  if (!MakeAddress(*path, address)) {
    system_error = ENAMETOOLONG;
    return IoResult::kFailed;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const int fd = NewSocket();
    if (fd < 0) {
      system_error = ErrnoValue();
      return IoResult::kFailed;
    }
    int result;
    do {
      result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
      if (!PeerIsOurUser(fd, system_error)) {
        close(fd);
        return IoResult::kFailed;
      }
      out.reset(new (std::nothrow) Pipe(fd));
      if (!out) {
        close(fd);
        system_error = ENOMEM;
        return IoResult::kFailed;
      }
      return IoResult::kOk;
    }
    const int error = errno;
    close(fd);
    system_error = static_cast<uint32_t>(error);
    // Not there yet, stale, or its backlog full: all may change before the time-out.
    if (error != ENOENT && error != ECONNREFUSED && error != EAGAIN) return IoResult::kFailed;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return IoResult::kTimedOut;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count() + 1;
    SleepMs(std::min<long>(kConnectRetryMs, static_cast<long>(left)));
  }
}

IoResult Pipe::Write(std::span<const std::span<const uint8_t>> parts,
                     const StopSignal& stop) noexcept {
  return Write(parts, {}, stop);
}

IoResult Pipe::Write(std::span<const std::span<const uint8_t>> parts,
                     std::span<const uint8_t> lendable, const StopSignal& stop) noexcept {
  uint32_t error = 0;
  IoResult start = CheckStart(handle_, stop, error);
  if (start != IoResult::kOk) {
    if (start == IoResult::kFailed) Fail(error);
    return start;
  }
  auto lent = [&](size_t i) {
    return i < lendable.size() && lendable[i] != 0 && parts[i].size() >= kLendFrom;
  };
  // Runs of copied parts go out gathered, each lent part on its own between them.
  for (size_t from = 0; from < parts.size();) {
    size_t to = from;
    while (to < parts.size() && !lent(to))
      ++to;
    if (to > from) {
      const IoResult copied = SendCopies(parts.subspan(from, to - from), stop);
      if (copied != IoResult::kOk) return copied;
    }
    if (to < parts.size()) {
      const IoResult sent = SendLent(parts[to], stop);
      if (sent != IoResult::kOk) return sent;
      ++to;
    }
    from = to;
  }
  return IoResult::kOk;
}

IoResult Pipe::SendCopies(std::span<const std::span<const uint8_t>> parts,
                          const StopSignal& stop) noexcept {
  uint32_t error = 0;
  size_t next_part = 0;
  size_t offset = 0;  // bytes of parts[next_part] already sent
  for (;;) {
    iovec vectors[kSendBatch];
    size_t count = 0;
    for (size_t i = next_part; i < parts.size() && count < kSendBatch; ++i) {
      const size_t skip = i == next_part ? offset : 0;
      if (parts[i].size() == skip) continue;
      vectors[count].iov_base = const_cast<uint8_t*>(parts[i].data() + skip);
      vectors[count].iov_len = parts[i].size() - skip;
      ++count;
    }
    if (count == 0) return IoResult::kOk;
    size_t offered = 0;
    for (size_t i = 0; i < count; ++i)
      offered += vectors[i].iov_len;
    ssize_t sent = 0;
    if (count == 1 || offered <= kSmallSendBytes) {
      // One part, or a small frame's parts copied together: send takes no message header and no
      // vector from this process's memory, which sendmsg would copy in first.
      uint8_t joined[kSmallSendBytes];
      const void* data = vectors[0].iov_base;
      if (count > 1) {
        size_t at = 0;
        for (size_t i = 0; i < count; ++i) {
          std::memcpy(joined + at, vectors[i].iov_base, vectors[i].iov_len);
          at += vectors[i].iov_len;
        }
        data = joined;
      }
      sent = send(handle_, data, offered, MSG_NOSIGNAL | MSG_DONTWAIT);
    } else {
      msghdr message{};
      message.msg_iov = vectors;
      message.msg_iovlen = count;
      sent = sendmsg(handle_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (sent < 0) {
      const int code = errno;
      if (code == EINTR) continue;
      if (code == EAGAIN || code == EWOULDBLOCK) {
        const IoResult waited = WaitFor(handle_, POLLOUT, stop, error);
        if (waited == IoResult::kOk) continue;
        if (waited == IoResult::kFailed) Fail(error);
        return waited;
      }
      Fail(static_cast<uint32_t>(code));
      return IsBrokenPipeErrno(code) ? IoResult::kBrokenPipe : IoResult::kFailed;
    }
    // Move past what went out.
    size_t done = static_cast<size_t>(sent);
    while (done > 0 && next_part < parts.size()) {
      const size_t left = parts[next_part].size() - offset;
      if (done < left) {
        offset += done;
        done = 0;
      } else {
        done -= left;
        ++next_part;
        offset = 0;
      }
    }
    // Skip parts that are empty or complete.
    while (next_part < parts.size() && parts[next_part].size() == offset) {
      ++next_part;
      offset = 0;
    }
    if (next_part == parts.size()) return IoResult::kOk;
    // A send that took less than it was offered found the buffer full: the next one waits for
    // room first rather than failing with EAGAIN (a system call per buffer of a large answer).
    if (static_cast<size_t>(sent) < offered) {
      const IoResult waited = WaitFor(handle_, POLLOUT, stop, error);
      if (waited == IoResult::kFailed) Fail(error);
      if (waited != IoResult::kOk) return waited;
    }
  }
}

// --- Lending pages to the socket ---

namespace {

#ifdef __linux__
// The kernel pipe a thread's lent pages pass through on their way into a socket: vmsplice takes
// references to the pages into it, splice moves them on into the socket. One per writing thread,
// so that writers on different pipes never wait for each other; empty between writes.
class SpliceRelay {
 public:
  ~SpliceRelay() { Reset(); }
  // Opens the relay when it is not open; false when the system gives no pipe.
  bool Ready() noexcept {
    if (read_ >= 0) return true;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read_ = ends[0];
    write_ = ends[1];
    // A larger relay takes a 1 MiB answer in one pass; the default of 64 KiB works, in more.
    fcntl(write_, F_SETPIPE_SZ, kWantedCapacity);
    const int capacity = fcntl(write_, F_GETPIPE_SZ);
    capacity_ = capacity > 0 ? static_cast<size_t>(capacity) : 64 * 1024;
    return true;
  }
  // Closes the relay, dropping whatever pages it still holds (after a failed or stopped write).
  void Reset() noexcept {
    if (read_ >= 0) close(read_);
    if (write_ >= 0) close(write_);
    read_ = write_ = -1;
  }
  int read_end() const noexcept { return read_; }
  int write_end() const noexcept { return write_; }
  size_t capacity() const noexcept { return capacity_; }

 private:
  static constexpr int kWantedCapacity = 1 << 20;
  int read_ = -1;
  int write_ = -1;
  size_t capacity_ = 0;
};

thread_local SpliceRelay tls_relay;

// What the socket `fd`, with a send buffer of `buffer` bytes, can take now without a send
// waiting for room, or 0 when it cannot tell: half of what is free, since the socket charges a
// little more than the bytes for each of its buffers.
size_t RoomInSocket(int fd, int buffer) noexcept {
  int queued = 0;
  if (ioctl(fd, SIOCOUTQ, &queued) != 0 || queued < 0 || queued >= buffer) return 0;
  return static_cast<size_t>(buffer - queued) / 2;
}
#endif

}  // namespace

size_t Pipe::UnreadByPeer() const noexcept {
#ifdef __linux__
  int queued = 0;
  if (handle_ < 0 || ioctl(handle_, SIOCOUTQ, &queued) != 0 || queued < 0) return 0;
  return static_cast<size_t>(queued);
#else
  return 0;
#endif
}

IoResult Pipe::SendLent(std::span<const uint8_t> part, const StopSignal& stop) noexcept {
#ifdef __linux__
  SpliceRelay& relay = tls_relay;
  if (!relay.Ready()) return SendCopies({&part, 1}, stop);
  size_t lent = 0;  // bytes handed to the relay
  size_t sent = 0;  // bytes moved on into the socket
  // Ends the write with `result`; the relay is emptied when it still holds pages.
  auto end = [&](IoResult result, uint32_t error) {
    if (lent != sent) relay.Reset();
    if (result == IoResult::kFailed || result == IoResult::kBrokenPipe) Fail(error);
    return result;
  };
  while (sent < part.size()) {
    if (lent == sent) {
      iovec pages{const_cast<uint8_t*>(part.data() + lent),
                  std::min(part.size() - lent, relay.capacity())};
      const ssize_t n = vmsplice(relay.write_end(), &pages, 1, SPLICE_F_NONBLOCK);
      if (n <= 0) {
        if (n < 0 && errno == EINTR) continue;
        // Pages the system will not lend go out as copies.
        const std::span<const uint8_t> rest = part.subspan(sent);
        return SendCopies({&rest, 1}, stop);
      }
      lent += static_cast<size_t>(n);
    }
    const size_t room = RoomInSocket(handle_, send_buffer_);
    if (room < kLendFrom / 4) {
      uint32_t error = 0;
      const IoResult waited = WaitFor(handle_, POLLOUT, stop, error);
      if (waited != IoResult::kOk) return end(waited, error);
      if (stop.IsSet()) return end(IoResult::kStopped, 0);
      if (RoomInSocket(handle_, send_buffer_) < kLendFrom / 4) {
        // Writable, yet no room the splice could count on: the socket's own reckoning differs
        // from ours. The rest goes out as copies, which wait for room themselves.
        if (lent != sent) relay.Reset();
        const std::span<const uint8_t> rest = part.subspan(sent);
        return SendCopies({&rest, 1}, stop);
      }
      continue;
    }
    const ssize_t n = splice(relay.read_end(), nullptr, handle_, nullptr,
                             std::min(lent - sent, room), SPLICE_F_NONBLOCK | SPLICE_F_MORE);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    const int code = n == 0 ? EPIPE : errno;
    if (code == EINTR || code == EAGAIN) continue;
    if (IsBrokenPipeErrno(code)) return end(IoResult::kBrokenPipe, static_cast<uint32_t>(code));
    if (sent == 0 && (code == EINVAL || code == ENOSYS)) {
      // This socket takes no spliced pages: the whole part goes out as copies.
      relay.Reset();
      return SendCopies({&part, 1}, stop);
    }
    return end(IoResult::kFailed, static_cast<uint32_t>(code));
  }
  return IoResult::kOk;
#else
  return SendCopies({&part, 1}, stop);
#endif
}

IoResult Pipe::ReadSome(void* dest, size_t size, size_t& got, const StopSignal& stop) noexcept {
  got = 0;
  uint32_t error = 0;
  IoResult start = CheckStart(handle_, stop, error);
  if (start != IoResult::kOk) {
    if (start == IoResult::kFailed) Fail(error);
    return start;
  }
  if (size == 0) return IoResult::kOk;
  if (reads_block_) return ReadBlocking(dest, size, got, stop);
  for (;;) {
    if (read_waits_) {
      const IoResult waited = WaitFor(handle_, POLLIN, stop, error);
      if (waited != IoResult::kOk) {
        if (waited == IoResult::kFailed) Fail(error);
        return waited;
      }
    }
    const ssize_t n = recv(handle_, dest, size, 0);
    if (n > 0) {
      got = static_cast<size_t>(n);
      // A read that fills the buffer leaves more behind: a stream, which reads on at once.
      if (got == size) read_waits_ = false;
      return IoResult::kOk;
    }
    if (n == 0) {
      Fail(EPIPE);
      return IoResult::kBrokenPipe;
    }
    const int code = errno;
    if (code == EINTR) continue;
    if (code == EAGAIN || code == EWOULDBLOCK) {
      // The next pass waits before it reads again.
      read_waits_ = true;
      continue;
    }
    Fail(static_cast<uint32_t>(code));
    return IsBrokenPipeErrno(code) ? IoResult::kBrokenPipe : IoResult::kFailed;
  }
}

IoResult Pipe::ReadBlocking(void* dest, size_t size, size_t& got, const StopSignal& stop) noexcept {
  if (!stop.BeginBlockingRead(handle_)) return IoResult::kStopped;
  ssize_t n;
  do {
    n = recv(handle_, dest, size, 0);
  } while (n < 0 && errno == EINTR);
  const int code = errno;
  stop.EndBlockingRead();
  if (n > 0) {
    got = static_cast<size_t>(n);
    return IoResult::kOk;
  }
  // The stop shut the reading down; otherwise the peer closed.
  if (n == 0 && stop.IsSet()) return IoResult::kStopped;
  const uint32_t error = n == 0 ? EPIPE : static_cast<uint32_t>(code);
  Fail(error);
  return n == 0 || IsBrokenPipeErrno(code) ? IoResult::kBrokenPipe : IoResult::kFailed;
}

IoResult Pipe::WaitReadable(const StopSignal& stop, bool wait) noexcept {
  uint32_t error = 0;
  IoResult result = CheckStart(handle_, stop, error);
  if (result == IoResult::kOk) result = WaitFor(handle_, POLLIN, stop, error, wait ? -1 : 0);
  if (result == IoResult::kFailed) Fail(error);
  return result;
}

// --- PipeListener ---

PipeListener::~PipeListener() {
  if (fd_ >= 0) close(fd_);
  // Remove the socket file only when it is still the one bound here.
  struct stat status;
  if (!path_.empty() && lstat(path_.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
      static_cast<uint64_t>(status.st_dev) == device_ &&
      static_cast<uint64_t>(status.st_ino) == inode_) {
    unlink(path_.c_str());
  }
}

IoResult PipeListener::Create(std::u16string_view name, std::unique_ptr<PipeListener>& out,
                              uint32_t& system_error) noexcept {
  out.reset();
  system_error = 0;
  std::unique_ptr<PipeListener> listener(new (std::nothrow) PipeListener());
  if (!listener) {
    system_error = ENOMEM;
    return IoResult::kFailed;
  }
  std::optional<std::string> path = ResolvePath(name, system_error);
  if (!path) return IoResult::kFailed;
  sockaddr_un address;
  if (!MakeAddress(*path, address)) {
    system_error = ENAMETOOLONG;
    return IoResult::kFailed;
  }
  listener->fd_ = NewSocket();
  if (listener->fd_ < 0) {
    system_error = ErrnoValue();
    return IoResult::kFailed;
  }
  const auto* raw_address = reinterpret_cast<const sockaddr*>(&address);
  if (bind(listener->fd_, raw_address, sizeof(address)) != 0) {
    if (errno != EADDRINUSE) {
      system_error = ErrnoValue();
      return IoResult::kFailed;
    }
    // A socket file is there. Replace it only when it is a socket that nobody listens on,
    // which a crashed server leaves behind.
    struct stat status;
    if (lstat(path->c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
        SomeoneListens(address)) {
      system_error = EADDRINUSE;
      return IoResult::kFailed;
    }
    if ((unlink(path->c_str()) != 0 && errno != ENOENT) ||
        bind(listener->fd_, raw_address, sizeof(address)) != 0) {
      system_error = ErrnoValue();
      return IoResult::kFailed;
    }
  }
  // From here on the file is ours, and the destructor removes it.
  listener->path_ = std::move(*path);
  struct stat status;
  if (lstat(listener->path_.c_str(), &status) == 0) {
    listener->device_ = static_cast<uint64_t>(status.st_dev);
    listener->inode_ = static_cast<uint64_t>(status.st_ino);
  }
  if (listen(listener->fd_, SOMAXCONN) != 0) {
    system_error = ErrnoValue();
    return IoResult::kFailed;
  }
  out = std::move(listener);
  return IoResult::kOk;
}

IoResult PipeListener::Accept(std::unique_ptr<Pipe>& out, const StopSignal& stop) noexcept {
  out.reset();
  uint32_t error = 0;
  const IoResult start = CheckStart(fd_, stop, error);
  if (start != IoResult::kOk) {
    if (start == IoResult::kFailed) last_error_ = error;
    return start;
  }
  for (;;) {
    const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) {
      const int code = errno;
      // A client that gave up before we took it, or a signal: wait for the next.
      if (code == EINTR || code == ECONNABORTED) continue;
      if (code == EAGAIN || code == EWOULDBLOCK) {
        const IoResult waited = WaitFor(fd_, POLLIN, stop, error);
        if (waited == IoResult::kOk) continue;
        if (waited == IoResult::kFailed) last_error_ = error;
        return waited;
      }
      last_error_ = static_cast<uint32_t>(code);
      return IoResult::kFailed;
    }
    if (!PeerIsOurUser(client, error)) {
      // Another user reached the socket (its directory protects it, so only root or a
      // misconfiguration can): drop the client and serve the next.
      last_error_ = error;
      close(client);
      continue;
    }
    out.reset(new (std::nothrow) Pipe(client));
    if (!out) {
      close(client);
      last_error_ = ENOMEM;
      return IoResult::kFailed;
    }
    return IoResult::kOk;
  }
}

// --- Names and places ---

std::u16string CurrentUserName() noexcept {
  try {
    const uid_t uid = geteuid();
    const long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 1024);
    for (;;) {
      passwd entry{};
      passwd* found = nullptr;
      const int error = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
      if (error == ERANGE && buffer.size() < (1u << 20)) {
        buffer.resize(buffer.size() * 2);
        continue;
      }
      if (error == 0 && found != nullptr && found->pw_name != nullptr &&
          found->pw_name[0] != '\0') {
        return Utf8ToUtf16(found->pw_name);
      }
      return Utf8ToUtf16(std::to_string(uid));
    }
  } catch (...) {
    return {};
  }
}

std::optional<std::string> RuntimeDirectory(std::string* problem) noexcept {
  std::string path;
  // Says what is wrong, for the user to act on; errno keeps its value for the caller.
  const auto refuse = [&](int error, const std::string& what) -> std::optional<std::string> {
    if (problem != nullptr) {
      try {
        *problem = "The runtime directory " + path + " " + what + ".";
      } catch (...) {
      }
    }
    errno = error;
    return std::nullopt;
  };
  try {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] != '\0') {
      path = std::string(runtime) + "/vesta";
    } else {
      path = "/tmp/vesta-" + std::to_string(geteuid());
    }
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
      const int error = errno;
      return refuse(error, std::string("cannot be created: ") + std::strerror(error));
    }
    // lstat: a symbolic link planted in a shared /tmp is not our directory.
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
      const int error = errno;
      return refuse(error, std::string("cannot be examined: ") + std::strerror(error));
    }
    if (S_ISLNK(status.st_mode)) {
      return refuse(ENOTDIR, "is a symbolic link; it must be a directory of this user's own");
    }
    if (!S_ISDIR(status.st_mode)) return refuse(ENOTDIR, "is not a directory");
    if (status.st_uid != geteuid()) {
      return refuse(EACCES, "belongs to user id " + std::to_string(status.st_uid) +
                                ", not to this user (" + std::to_string(geteuid()) + ")");
    }
    if ((status.st_mode & 077) != 0) {
      char mode[8];
      std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
      return refuse(EACCES, std::string("is open to other users (mode ") + mode +
                                "); make it private with chmod 700");
    }
    return path;
  } catch (...) {
    errno = ENOMEM;
    return std::nullopt;
  }
}

std::optional<std::string> SocketPath(std::string_view run_dir, std::u16string_view name) noexcept {
  if (!ValidName(name)) return std::nullopt;
  try {
    const std::string narrow = Utf16ToUtf8(name);
    std::string path(run_dir);
    path += '/';
    if (path.size() + narrow.size() <= kMaxSocketPath) return path + narrow;
    static constexpr char kHex[] = "0123456789abcdef";
    const uint64_t hash = Fnv1a64(narrow);
    path += "qv_";
    for (int shift = 60; shift >= 0; shift -= 4)
      path += kHex[(hash >> shift) & 0xF];
    if (path.size() > kMaxSocketPath) return std::nullopt;
    return path;
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace qv::platform
