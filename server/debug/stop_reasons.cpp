#include "server/debug/stop_reasons.h"

#include <iterator>

namespace qv::server {
namespace {

struct SignalRow {
  int signal;  // Linux x86-64 numbering, on every host: cores come from Linux
  const char* name;
  uint32_t code;  // eStopNotificationReason
  bool stops;
};

// Every Linux signal the target has a name for. SIGEMT, SIGINFO and SIGTHR have no Linux
// counterpart; SIGPWR, SIGSTKFLT and the real-time signals none here.
constexpr SignalRow kSignals[] = {
    {1, "SIGHUP", 1, true},       {2, "SIGINT", 2, true},     {3, "SIGQUIT", 3, true},
    {4, "SIGILL", 4, true},       {5, "SIGTRAP", 5, true},    {6, "SIGABRT", 6, true},
    {8, "SIGFPE", 8, true},       {9, "SIGKILL", 9, true},    {7, "SIGBUS", 10, true},
    {11, "SIGSEGV", 11, true},    {31, "SIGSYS", 12, true},   {13, "SIGPIPE", 13, true},
    {14, "SIGALRM", 14, false},   {15, "SIGTERM", 15, true},  {23, "SIGURG", 16, false},
    {19, "SIGSTOP", 17, true},    {20, "SIGTSTP", 18, true},  {18, "SIGCONT", 19, false},
    {17, "SIGCHLD", 20, false},   {21, "SIGTTIN", 21, true},  {22, "SIGTTOU", 22, true},
    {29, "SIGIO", 23, false},     {24, "SIGXCPU", 24, true},  {25, "SIGXFSZ", 25, true},
    {26, "SIGVTALRM", 26, false}, {27, "SIGPROF", 27, false}, {28, "SIGWINCH", 28, false},
    {10, "SIGUSR1", 30, true},    {12, "SIGUSR2", 31, true},
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
