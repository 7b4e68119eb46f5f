#include "platform/termination.h"

#include <windows.h>

#include <atomic>
#include <string>

namespace qv::platform {
namespace {

std::atomic<HANDLE> g_stop_event{nullptr};

BOOL WINAPI OnConsoleControl(DWORD) {
  const HANDLE event = g_stop_event.load();
  if (event == nullptr) return FALSE;
  SetEvent(event);
  return TRUE;
}

void CALLBACK OnStopRequest(void*, BOOLEAN) {
  if (const HANDLE event = g_stop_event.load()) SetEvent(event);
}

// The named event RequestServerStop sets, and the wait that passes it on to the stop signal.
// Both live as long as the process.
bool ListenForStopRequests() {
  const std::wstring name = L"Local\\vesta-kx-stop-" + std::to_wstring(GetCurrentProcessId());
  static const HANDLE request = CreateEventW(nullptr, FALSE, FALSE, name.c_str());
  if (request == nullptr) return false;
  static HANDLE wait = nullptr;
  return wait != nullptr || RegisterWaitForSingleObject(&wait, request, &OnStopRequest, nullptr,
                                                        INFINITE, WT_EXECUTEDEFAULT) != FALSE;
}

}  // namespace

bool StopOnTermination(StopSignal& stop) noexcept {
  if (!stop.IsValid()) return false;
  g_stop_event.store(static_cast<HANDLE>(stop.native_handle()));
  try {
    if (!ListenForStopRequests()) return false;
  } catch (...) {
    return false;
  }
  return SetConsoleCtrlHandler(&OnConsoleControl, TRUE) != FALSE;
}

}  // namespace qv::platform
