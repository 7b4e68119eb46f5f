#include "platform/termination.h"

#include <windows.h>

#include <atomic>

namespace qv::platform {
namespace {

std::atomic<HANDLE> g_stop_event{nullptr};

BOOL WINAPI OnConsoleControl(DWORD) {
  const HANDLE event = g_stop_event.load();
  if (event == nullptr) return FALSE;
  SetEvent(event);
  return TRUE;
}

}  // namespace

bool StopOnTermination(StopSignal& stop) noexcept {
  if (!stop.IsValid()) return false;
  g_stop_event.store(static_cast<HANDLE>(stop.native_handle()));
  return SetConsoleCtrlHandler(&OnConsoleControl, TRUE) != FALSE;
}

}  // namespace qv::platform
