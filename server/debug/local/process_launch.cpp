#include "server/debug/local/process_launch.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/wide_string.h"
#include "server/debug/local/tracer_thread.h"
#include "server/debug/reporting.h"

extern char** environ;

namespace qv::server {
namespace {

Status CannotRun(const std::string& path, int error) {
  const eErrorCode code =
      error == ENOENT ? KXAPI_COMMS_ERR_FILE_DOES_NOT_EXIST : KXAPI_COMMS_ERR_PROCESS_CREATE;
  return Status::Fail(code, u"\"" + platform::Utf8ToUtf16(path) + u"\" cannot be run (" +
                                platform::Utf8ToUtf16(std::strerror(error)) + u")");
}

void CloseAll(std::initializer_list<int> fds) {
  for (int fd : fds) {
    if (fd >= 0) close(fd);
  }
}

// What the child does between fork and exec: only async-signal-safe calls. `report` is the
// close-on-exec pipe that carries errno back when the exec fails.
[[noreturn]] void RunChild(pid_t parent, const char* path, char* const* argv, const char* directory,
                           int in, int out, int err, int report) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);  // the server went already
  setpgid(0, 0);  // the terminal's signals are for the server, not for its debuggee
  dup2(in, 0);
  dup2(out, 1);
  dup2(err, 2);
  // Every other descriptor of the server's goes; the report pipe closes with the exec.
  for (int fd = 3; fd < 65536; ++fd) {
    if (fd != report && close(fd) != 0 && errno == EBADF && fd > 1024) break;
  }
  int error = 0;
  if (directory[0] != '\0' && chdir(directory) != 0) error = errno;
  if (error == 0 && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) error = errno;
  if (error == 0) {
    raise(SIGSTOP);
    execve(path, argv, environ);
    error = errno;
  }
  [[maybe_unused]] ssize_t ignored = write(report, &error, sizeof error);
  _exit(127);
}

}  // namespace

long TraceOptions(bool kill_with_tracer) {
  long options = PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_TRACEEXIT |
                 PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEVFORKDONE;
  if (kill_with_tracer) options |= PTRACE_O_EXITKILL;
  return options;
}

Status LaunchTraced(const LaunchPlan& plan, Launched& launched) {
  std::string path = plan.path;
  if (!path.empty() && path[0] != '/' && !plan.directory.empty()) {
    path = plan.directory + "/" + path;
  }
  if (access(path.c_str(), X_OK) != 0) return CannotRun(path, errno);
  std::vector<std::string> args{path};
  args.insert(args.end(), plan.args.begin(), plan.args.end());
  std::vector<char*> argv;
  for (std::string& arg : args)
    argv.push_back(arg.data());
  argv.push_back(nullptr);

  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1}, report[2] = {-1, -1};
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 ||
      pipe2(report, O_CLOEXEC) != 0) {
    const int error = errno;
    CloseAll({in[0], in[1], out[0], out[1], err[0], err[1], report[0], report[1]});
    return CannotRun(path, error);
  }
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0)
    RunChild(parent, path.c_str(), argv.data(), plan.directory.c_str(), in[0], out[1], err[1],
             report[1]);
  const int fork_error = errno;
  CloseAll({in[0], out[1], err[1], report[1]});
  if (child < 0) {
    CloseAll({in[1], out[0], err[0], report[0]});
    return CannotRun(path, fork_error);
  }
  // Its stop before the exec; then its exec, or its end when the exec failed.
  int status = 0;
  bool execed = false;
  bool ended = false;
  if (TracerThread::Wait(child, status, __WALL) == child && WIFSTOPPED(status) &&
      ptrace(PTRACE_SETOPTIONS, child, nullptr, reinterpret_cast<void*>(TraceOptions(true))) == 0 &&
      ptrace(PTRACE_CONT, child, nullptr, nullptr) == 0) {
    while (TracerThread::Wait(child, status, __WALL) == child) {
      if (WIFSTOPPED(status) && (status >> 16) == PTRACE_EVENT_EXEC) {
        execed = true;
        break;
      }
      if (!WIFSTOPPED(status)) {
        ended = true;
        break;
      }
      // The exit event of a failed exec's _exit, or a signal before the exec: on it goes.
      const int signal = (status >> 16) == 0 ? WSTOPSIG(status) : 0;
      ptrace(PTRACE_CONT, child, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
    }
  }
  if (execed) {
    close(report[0]);
    fcntl(in[1], F_SETFL, O_NONBLOCK);  // console input never waits for the program to read
    launched = {child, out[0], err[0], in[1]};
    return Status::Ok();
  }
  if (!ended) {
    kill(child, SIGKILL);
    while (TracerThread::Wait(child, status, __WALL) == child && !WIFEXITED(status) &&
           !WIFSIGNALED(status)) {
    }
  }
  // The child is gone, so its end of the report pipe is closed: the read cannot block.
  int error = 0;
  if (read(report[0], &error, sizeof error) != sizeof error) error = ECHILD;
  CloseAll({in[1], out[0], err[0], report[0]});
  return CannotRun(path, error);
}

}  // namespace qv::server
