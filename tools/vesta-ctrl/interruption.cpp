#include "interruption.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <csignal>

#include <unistd.h>
#endif

#include "answer_deadline.h"

namespace vesta_ctrl {
namespace {

// Set from a signal handler (POSIX) or the console's handler thread (Windows): a lock-free flag is
// all either may touch.
std::atomic<bool> g_stop_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

#ifdef _WIN32
BOOL WINAPI OnConsoleControl(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
      g_stop_requested = true;
      return TRUE;
    default:
      return FALSE;
  }
}
#else
extern "C" void OnStopSignal(int) {
  g_stop_requested = true;
}
#endif

}  // namespace

Interruption::Interruption() {
  g_stop_requested = false;
#ifdef _WIN32
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
#else
  std::signal(SIGINT, OnStopSignal);
  std::signal(SIGTERM, OnStopSignal);
#endif
}

Interruption::~Interruption() {
#ifdef _WIN32
  SetConsoleCtrlHandler(OnConsoleControl, FALSE);
#else
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
#endif
}

void Interruption::Wait(const std::function<bool()>& done) const {
  const AnswerDeadlinePause waiting_for_the_user;
  // Polled: neither a signal handler nor the console's handler may take a lock to wake a waiter.
  while (!g_stop_requested && !(done && done())) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

bool StandardErrorIsTerminal() {
#ifdef _WIN32
  return _isatty(_fileno(stderr)) != 0;
#else
  return isatty(STDERR_FILENO) == 1;
#endif
}

}  // namespace vesta_ctrl
