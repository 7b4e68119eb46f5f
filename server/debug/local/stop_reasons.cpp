#include "server/debug/local/stop_reasons.h"

#include <csignal>
#include <iterator>

namespace qv::server {
namespace {

struct SignalRow {
  int signal;  // Linux
  const char* name;
  uint32_t code;  // eStopNotificationReason
  bool stops;
};

// Every Linux signal the target has a name for. SIGEMT, SIGINFO and SIGTHR have no Linux
// counterpart; SIGPWR, SIGSTKFLT and the real-time signals none here.
constexpr SignalRow kSignals[] = {
    {SIGHUP, "SIGHUP", 1, true},         {SIGINT, "SIGINT", 2, true},
    {SIGQUIT, "SIGQUIT", 3, true},       {SIGILL, "SIGILL", 4, true},
    {SIGTRAP, "SIGTRAP", 5, true},       {SIGABRT, "SIGABRT", 6, true},
    {SIGFPE, "SIGFPE", 8, true},         {SIGKILL, "SIGKILL", 9, true},
    {SIGBUS, "SIGBUS", 10, true},        {SIGSEGV, "SIGSEGV", 11, true},
    {SIGSYS, "SIGSYS", 12, true},        {SIGPIPE, "SIGPIPE", 13, true},
    {SIGALRM, "SIGALRM", 14, false},     {SIGTERM, "SIGTERM", 15, true},
    {SIGURG, "SIGURG", 16, false},       {SIGSTOP, "SIGSTOP", 17, true},
    {SIGTSTP, "SIGTSTP", 18, true},      {SIGCONT, "SIGCONT", 19, false},
    {SIGCHLD, "SIGCHLD", 20, false},     {SIGTTIN, "SIGTTIN", 21, true},
    {SIGTTOU, "SIGTTOU", 22, true},      {SIGIO, "SIGIO", 23, false},
    {SIGXCPU, "SIGXCPU", 24, true},      {SIGXFSZ, "SIGXFSZ", 25, true},
    {SIGVTALRM, "SIGVTALRM", 26, false}, {SIGPROF, "SIGPROF", 27, false},
    {SIGWINCH, "SIGWINCH", 28, false},   {SIGUSR1, "SIGUSR1", 30, true},
    {SIGUSR2, "SIGUSR2", 31, true},
};

const SignalRow* Row(int signal) {
  for (const SignalRow& row : kSignals) {
    if (row.signal == signal) return &row;
  }
  return nullptr;
}

}  // namespace

uint32_t StopReasonOfSignal(int signal) {
  const SignalRow* row = Row(signal);
  return row != nullptr ? row->code : kStopNoSignal;
}

bool SignalStops(int signal) {
  const SignalRow* row = Row(signal);
  return row == nullptr || row->stops;
}

std::string SignalName(int signal) {
  const SignalRow* row = Row(signal);
  return row != nullptr ? row->name : "signal " + std::to_string(signal);
}

uint32_t StopReasonOfDr6(uint64_t dr6) {
  constexpr uint64_t kHitSlots = 0xF;  // B0..B3; BS (bit 14) and the rest are a step or a trap
  return (dr6 & kHitSlots) != 0 ? kStopHardwareBreakpoint : kStopTrap;
}

}  // namespace qv::server
