// vesta-pick: lets the user choose a target in the library's target picker, shown over a window
// of this program's own, and prints the chosen target's host name. A host tool's use of
// ShowTargetPicker in small, for trying the dialog and for driving it in tests.
//
// Exit codes: 0 a target was chosen (its host name on standard output), 1 the library failed
// (its description on standard error), 2 the user cancelled, 3 the command line was wrong.
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/library.h"
#include "vekxapi/status.h"
#include "vekxapi/vekxapi.h"

namespace {

constexpr int kExitChosen = 0;
constexpr int kExitFailed = 1;
constexpr int kExitCancelled = 2;
constexpr int kExitUsage = 3;

// The interface generation this program is written against.
constexpr ULONG kInterfaceGeneration = 21;

int Failed(const char* what, HRESULT result) {
  std::fprintf(stderr, "vesta-pick: %s: %s\n", what, vekx::Status::Of(result).message().c_str());
  return kExitFailed;
}

// The window the picker is shown over, as a host tool's main window would be.
HWND MakeOwnerWindow(HINSTANCE instance) {
  WNDCLASSEXW window_class = {};
  window_class.cbSize = sizeof window_class;
  window_class.lpfnWndProc = DefWindowProcW;
  window_class.hInstance = instance;
  window_class.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  window_class.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
  window_class.lpszClassName = L"vesta-pick";
  if (RegisterClassExW(&window_class) == 0) return nullptr;
  const HWND window =
      CreateWindowExW(0, L"vesta-pick", L"vesta-pick", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                      CW_USEDEFAULT, 480, 320, nullptr, nullptr, instance, nullptr);
  if (window != nullptr) ShowWindow(window, SW_SHOWNORMAL);
  return window;
}

int Pick(HWND owner) {
  vekx::ComPtr<IVEKXAPI> api;
  if (HRESULT hr = VekxCreateRoot(IID_IVEKXAPI, reinterpret_cast<void**>(api.Put())); FAILED(hr)) {
    return Failed("cannot load the library", hr);
  }
  if (HRESULT hr = api->CheckCompatibility(kInterfaceGeneration); FAILED(hr)) {
    return Failed("the library does not fit", hr);
  }
  vekx::ComPtr<ITarget> chosen;
  const HRESULT picked = api->ShowTargetPicker(reinterpret_cast<LONGLONG>(owner), chosen.Put());
  int exit_code = kExitChosen;
  if (picked == S_FALSE) {
    std::fprintf(stderr, "vesta-pick: cancelled; no target was chosen\n");
    exit_code = kExitCancelled;
  } else if (FAILED(picked)) {
    exit_code = Failed("no target", picked);
  } else {
    vekx::Bstr host;
    if (HRESULT hr = chosen->get_HostName(host.Put()); FAILED(hr)) {
      exit_code = Failed("the chosen target's host name", hr);
    } else {
      std::printf("%s\n", host.Utf8().c_str());
    }
  }
  chosen.Reset();
  api->Dispose();
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
    std::fprintf(help ? stdout : stderr,
                 "usage: vesta-pick\n"
                 "Shows the target picker and prints the host name of the target chosen.\n"
                 "Exit codes: 0 chosen, 1 failed, 2 cancelled, 3 wrong command line.\n");
    return help ? kExitChosen : kExitUsage;
  }
  // A window's thread: a single-threaded apartment, as host tools' user interfaces have.
  const HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  const HWND owner = MakeOwnerWindow(GetModuleHandleW(nullptr));
  int exit_code = kExitFailed;
  if (owner == nullptr) {
    std::fprintf(stderr, "vesta-pick: cannot make a window (error %lu)\n", GetLastError());
  } else {
    exit_code = Pick(owner);
    DestroyWindow(owner);
  }
  std::fflush(stdout);
  if (SUCCEEDED(com)) CoUninitialize();
  return exit_code;
}
