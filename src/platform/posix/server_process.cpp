#include "platform/server_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/wide_string.h"

namespace qv::platform {
namespace {

constexpr char kServerName[] = "vesta-kx";
constexpr char kReadinessPrefix[] = "qv_ve_run_svr";
constexpr char kInstanceLockName[] = "vesta-kx.lock";

// `<runtime_dir>/<prefix><user>`, or empty when no such file name can be made: no runtime
// directory, or a user name that would leave it (a '/') or end the C string early.
std::string RuntimeFilePath(const std::string& runtime_dir, std::string_view prefix,
                            std::u16string_view user_name) {
  if (runtime_dir.empty()) return {};
  for (char16_t c : user_name) {
    if (c == u'/' || c == u'\0') return {};
  }
  std::string path = runtime_dir;
  if (path.back() != '/') path.push_back('/');
  path.append(prefix);
  path.append(Utf16ToUtf8(user_name));
  return path;
}

// A lock over the whole file. Open-file-description locks want l_pid to be 0.
struct flock WholeFileLock(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;
  lock.l_pid = 0;
  return lock;
}

// Opens (creating with mode 0600) and write-locks `path`. The descriptor, or -1 with `*busy`
// saying whether another open file holds the lock.
int OpenLocked(const std::string& path, bool* busy) {
  *busy = false;
  if (path.empty()) return -1;
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  struct flock lock = WholeFileLock(F_WRLCK);
  if (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
    *busy = errno == EAGAIN || errno == EACCES;
    close(fd);
    return -1;
  }
  return fd;
}

// --- Finding the executable ---------------------------------------------------------------

// The directory of the running executable, or empty when /proc cannot say.
std::string HostExecutableDirectory() {
  std::string buffer(256, '\0');
  for (;;) {
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length < 0) return {};
    if (static_cast<std::size_t>(length) < buffer.size()) {
      buffer.resize(static_cast<std::size_t>(length));
      break;
    }
    buffer.resize(buffer.size() * 2);  // Possibly cut short: ask again with more room.
  }
  const std::size_t slash = buffer.rfind('/');
  if (slash == std::string::npos) return {};
  return slash == 0 ? std::string("/") : buffer.substr(0, slash);
}

// `<dir>/vesta-kx` as UTF-16 when it is a regular file this process may execute (with its
// effective ids, as exec judges) and its name survives the trip through UTF-16.
std::optional<std::u16string> ServerIn(std::string_view dir) {
  std::string candidate(dir);
  if (candidate.back() != '/') candidate.push_back('/');
  candidate.append(kServerName);
  struct stat info {};
  if (stat(candidate.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  if (faccessat(AT_FDCWD, candidate.c_str(), X_OK, AT_EACCESS) != 0) return std::nullopt;
  std::u16string wide = Utf8ToUtf16(candidate);
  if (Utf16ToUtf8(wide) != candidate) return std::nullopt;  // Not UTF-8: could not be named.
  return wide;
}

// --- Starting the server ------------------------------------------------------------------
//
// Between fork and exec only async-signal-safe calls are allowed (another thread of the host
// may hold the allocator's lock), so everything below that runs in a child uses system calls
// on memory prepared before the fork.

// Reports `error` on the status pipe and ends the child.
[[noreturn]] void FailChild(int status_fd, int error) {
  while (write(status_fd, &error, sizeof error) < 0 && errno == EINTR) {
  }
  _exit(127);
}

// Closes descriptors first..last (inclusive) by walking /proc/self/fd, for kernels without
// close_range. False when /proc cannot be read.
bool CloseFromProcList(int first, int last) {
  const int dir = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return false;
  alignas(8) char buffer[4096];
  for (;;) {
    const long bytes = syscall(SYS_getdents64, dir, buffer, sizeof buffer);
    if (bytes <= 0) break;
    for (long offset = 0; offset < bytes;) {
      // struct linux_dirent64: u64 inode, s64 offset, u16 record length, u8 type, name.
      const auto* record = buffer + offset;
      unsigned short record_length;
      std::memcpy(&record_length, record + 16, sizeof record_length);
      const char* name = record + 19;
      offset += record_length;
      if (name[0] < '0' || name[0] > '9') continue;  // "." and "..".
      int fd = 0;
      for (const char* p = name; *p >= '0' && *p <= '9'; ++p)
        fd = fd * 10 + (*p - '0');
      if (fd >= first && fd <= last && fd != dir) close(fd);
    }
  }
  close(dir);
  return true;
}

void CloseRange(int first, int last) {
  if (first > last) return;
#ifdef SYS_close_range
  if (syscall(SYS_close_range, static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0)
    return;
#endif
  if (CloseFromProcList(first, last)) return;
  // No /proc either: try every number up to the descriptor limit.
  struct rlimit limit {};
  rlim_t end = 65536;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    end = limit.rlim_cur;
  }
  for (rlim_t fd = static_cast<rlim_t>(first); fd < end && fd <= static_cast<rlim_t>(last); ++fd)
    close(static_cast<int>(fd));
}

// The grandchild: becomes the server or reports why it could not.
[[noreturn]] void ExecServer(const char* path, const char* dir, char* const argv[], int status_fd) {
  // The host's ignored and blocked signals would survive exec; the server starts clean. The
  // handlers go before the mask, so that no host handler runs here; a new child has no
  // signals pending.
  struct sigaction default_action {};
  default_action.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig)
    sigaction(sig, &default_action, nullptr);  // Fails harmlessly for KILL, STOP and the like.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  // Keep the status pipe clear of the standard descriptors about to be replaced.
  if (status_fd <= 2) {
    const int moved = fcntl(status_fd, F_DUPFD_CLOEXEC, 3);
    if (moved < 0) FailChild(status_fd, errno);
    status_fd = moved;
  }
  const int null_fd = open("/dev/null", O_RDWR | O_NOCTTY);
  if (null_fd < 0) FailChild(status_fd, errno);
  for (int fd = 0; fd <= 2; ++fd) {
    if (dup2(null_fd, fd) < 0) FailChild(status_fd, errno);
  }
  if (null_fd > 2) close(null_fd);
  // Everything above 2 goes, except the status pipe, which is close-on-exec.
  CloseRange(3, status_fd - 1);
  CloseRange(status_fd + 1, 0x7FFFFFFF);
  if (chdir(dir) != 0) FailChild(status_fd, errno);
  execv(path, argv);
  FailChild(status_fd, errno);
}

}  // namespace

// --- Readiness and the instance lock ------------------------------------------------------

bool ServerIsReady(std::u16string_view user_name, const std::string& runtime_dir,
                   std::uint32_t /*wait_ms*/) noexcept {
  try {
    const std::string path = RuntimeFilePath(runtime_dir, kReadinessPrefix, user_name);
    if (path.empty()) return false;
    // Read-only is enough to ask; F_OFD_GETLK never takes the lock.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    struct flock lock = WholeFileLock(F_WRLCK);
    const bool held = fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    return held;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

std::unique_ptr<ReadinessMarker> ReadinessMarker::Create(std::u16string_view user_name,
                                                         const std::string& runtime_dir) noexcept {
  try {
    bool busy = false;
    const int fd = OpenLocked(RuntimeFilePath(runtime_dir, kReadinessPrefix, user_name), &busy);
    if (fd < 0) return nullptr;
    std::unique_ptr<ReadinessMarker> marker(new (std::nothrow) ReadinessMarker(fd));
    if (marker == nullptr) close(fd);
    return marker;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

ReadinessMarker::~ReadinessMarker() {
  close(static_cast<int>(handle_));  // The lock goes with the descriptor.
}

std::unique_ptr<InstanceLock> InstanceLock::TryAcquire(std::u16string_view /*user_name*/,
                                                       const std::string& runtime_dir,
                                                       InstanceLockFailure* failure) noexcept {
  InstanceLockFailure why = InstanceLockFailure::kSystemError;
  std::unique_ptr<InstanceLock> result;
  try {
    // The runtime directory is the user's own, so the file name need not carry the user.
    bool busy = false;
    const int fd = OpenLocked(RuntimeFilePath(runtime_dir, kInstanceLockName, u""), &busy);
    if (fd >= 0) {
      // The holder's id as the file's text, for `vesta-ctrl server stop`. An OFD lock does not
      // name its owner (F_OFD_GETLK reports pid -1), so the file has to.
      const std::string pid = std::to_string(getpid()) + "\n";
      if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) < 0) {
        close(fd);
        if (failure != nullptr) *failure = why;
        return nullptr;
      }
      result.reset(new (std::nothrow) InstanceLock(fd, 0));
      if (result == nullptr) close(fd);
    } else if (busy) {
      why = InstanceLockFailure::kHeldElsewhere;
    }
  } catch (const std::bad_alloc&) {
  }
  if (result == nullptr && failure != nullptr) *failure = why;
  return result;
}

InstanceLock::~InstanceLock() {
  // A server that stops cleanly leaves no id behind that a later process might reuse.
  if (ftruncate(static_cast<int>(handle_), 0) != 0) {
  }
  close(static_cast<int>(handle_));
}

std::optional<std::uint32_t> RunningServerProcessId(std::u16string_view /*user_name*/,
                                                    const std::string& runtime_dir) noexcept {
  try {
    const std::string path = RuntimeFilePath(runtime_dir, kInstanceLockName, u"");
    if (path.empty()) return std::nullopt;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
    if (fd < 0) return std::nullopt;
    struct flock lock = WholeFileLock(F_WRLCK);
    const bool held = fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    char text[24] = {};
    const ssize_t got = held ? pread(fd, text, sizeof text - 1, 0) : -1;
    close(fd);
    if (got <= 0) return std::nullopt;
    char* end = nullptr;
    const unsigned long pid = std::strtoul(text, &end, 10);
    if (end == text || *end != '\n' || pid == 0 || pid > 0x7FFFFFFF) return std::nullopt;
    // A crashed server's text may name a process id that has since been reused: only a process
    // that runs vesta-kx counts.
    char comm_path[40];
    std::snprintf(comm_path, sizeof comm_path, "/proc/%lu/comm", pid);
    const int comm_fd = open(comm_path, O_RDONLY | O_CLOEXEC);
    if (comm_fd < 0) return std::nullopt;
    char comm[32] = {};
    const ssize_t comm_length = read(comm_fd, comm, sizeof comm - 1);
    close(comm_fd);
    if (comm_length <= 0 || std::strncmp(comm, "vesta-kx\n", 9) != 0) return std::nullopt;
    return static_cast<std::uint32_t>(pid);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool RequestServerStop(std::uint32_t process_id) noexcept {
  if (process_id == 0 || process_id > 0x7FFFFFFF) return false;
  return kill(static_cast<pid_t>(process_id), SIGTERM) == 0;
}

// --- Finding and starting the server ------------------------------------------------------

std::optional<std::u16string> FindServerExecutableIn(std::string_view host_dir,
                                                     std::string_view path_list) noexcept {
  try {
    if (!host_dir.empty()) {
      if (auto found = ServerIn(host_dir)) return found;
    }
    while (!path_list.empty()) {
      const std::size_t colon = path_list.find(':');
      const std::string_view entry = path_list.substr(0, colon);
      path_list =
          colon == std::string_view::npos ? std::string_view() : path_list.substr(colon + 1);
      // An empty entry means the current directory, and a relative one depends on it.
      if (entry.empty() || entry.front() != '/') continue;
      if (auto found = ServerIn(entry)) return found;
    }
    return std::nullopt;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<std::u16string> FindServerExecutable() noexcept {
  try {
    const char* path_list = std::getenv("PATH");
    return FindServerExecutableIn(HostExecutableDirectory(), path_list != nullptr ? path_list : "");
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool StartServerProcess(std::u16string_view executable_path, int* system_error) noexcept {
  int unused = 0;
  int& error = system_error != nullptr ? *system_error : unused;
  error = 0;
  std::string path;
  std::string dir;
  try {
    path = Utf16ToUtf8(executable_path);
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
      error = EINVAL;
      return false;
    }
    const std::size_t slash = path.rfind('/');
    dir = slash == 0 ? std::string("/") : path.substr(0, slash);
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
    return false;
  }
  char* const argv[] = {path.data(), nullptr};

  // The grandchild writes its errno here when it cannot exec; a successful exec closes the
  // write end (close-on-exec), so end of file means the server is running.
  int status_pipe[2];
  if (pipe2(status_pipe, O_CLOEXEC) != 0) {
    error = errno;
    return false;
  }
  const pid_t child = fork();
  if (child < 0) {
    error = errno;
    close(status_pipe[0]);
    close(status_pipe[1]);
    return false;
  }
  if (child == 0) {
    // The intermediate child: a new session, then a grandchild that init will adopt.
    close(status_pipe[0]);
    setsid();
    const pid_t grandchild = fork();
    if (grandchild < 0) FailChild(status_pipe[1], errno);
    if (grandchild > 0) _exit(0);
    ExecServer(path.c_str(), dir.c_str(), argv, status_pipe[1]);
  }

  close(status_pipe[1]);
  // ECHILD means a SIGCHLD handler or SIG_IGN of the host's reaped it already; either is fine.
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  int child_error = 0;
  ssize_t got;
  do {
    got = read(status_pipe[0], &child_error, sizeof child_error);
  } while (got < 0 && errno == EINTR);
  close(status_pipe[0]);
  if (got == 0) return true;
  error = got == static_cast<ssize_t>(sizeof child_error) ? child_error : EIO;
  return false;
}

std::string StartErrorText(int system_error) {
  return std::strerror(system_error);
}

}  // namespace qv::platform
