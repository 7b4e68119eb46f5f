// For the picker's tests under Wine: reads the open target picker dialog of another process as
// Windows sees it and prints it as one JSON line per line read on standard input ("null" while
// there is none). Wine's controls are no X windows, so only this side can see them. Rectangles
// are screen coordinates, which under Wine are the X screen's.
#include <windows.h>

#include <commctrl.h>

#include <cstdio>
#include <string>

namespace {

std::string Json(const wchar_t* text) {
  std::string out = "\"";
  for (const wchar_t* at = text; *at != 0; ++at) {
    char utf8[8] = {};
    WideCharToMultiByte(CP_UTF8, 0, at, 1, utf8, sizeof utf8, nullptr, nullptr);
    out += (*at == L'"' || *at == L'\\') ? std::string("\\") + utf8 : std::string(utf8);
  }
  return out + "\"";
}

std::string Json(const RECT& r) {
  char text[64];
  std::snprintf(text, sizeof text, "[%ld,%ld,%ld,%ld]", r.left, r.top, r.right, r.bottom);
  return text;
}

// List view and header messages carry pointers, so their structures live in the dialog's process.
class Remote {
 public:
  explicit Remote(HWND window) {
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    process_ = OpenProcess(PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE, FALSE, pid);
    memory_ = static_cast<char*>(
        VirtualAllocEx(process_, nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
  }
  ~Remote() {
    VirtualFreeEx(process_, memory_, 0, MEM_RELEASE);
    CloseHandle(process_);
  }
  // Sends `message` with `data` (and a text buffer after it) in the remote memory; reads them back.
  template <class T>
  std::wstring Send(HWND window, UINT message, WPARAM wparam, T& data, wchar_t** text = nullptr) {
    if (text != nullptr) *text = reinterpret_cast<wchar_t*>(memory_ + 512);
    WriteProcessMemory(process_, memory_, &data, sizeof data, nullptr);
    SendMessageW(window, message, wparam, reinterpret_cast<LPARAM>(memory_));
    wchar_t buffer[256] = {};
    ReadProcessMemory(process_, memory_, &data, sizeof data, nullptr);
    ReadProcessMemory(process_, memory_ + 512, buffer, sizeof buffer - 2, nullptr);
    return buffer;
  }

 private:
  HANDLE process_;
  char* memory_;
};

std::string ListJson(HWND list) {
  Remote remote(list);
  const HWND header = reinterpret_cast<HWND>(SendMessageW(list, LVM_GETHEADER, 0, 0));
  std::string out = ",\"columns\":[";
  for (int column = 0; column < 2; ++column) {
    HDITEMW item = {HDI_TEXT};
    item.cchTextMax = 255;
    out += (column ? "," : "") +
           Json(remote.Send(header, HDM_GETITEMW, column, item, &item.pszText).c_str());
  }
  out += "],\"rows\":[";
  const int rows = static_cast<int>(SendMessageW(list, LVM_GETITEMCOUNT, 0, 0));
  for (int row = 0; row < rows; ++row) {
    LVITEMW item = {};
    item.iSubItem = 1;
    item.cchTextMax = 255;
    const std::wstring text = remote.Send(list, LVM_GETITEMTEXTW, row, item, &item.pszText);
    RECT bounds = {LVIR_BOUNDS};
    remote.Send(list, LVM_GETITEMRECT, row, bounds);
    MapWindowPoints(list, nullptr, reinterpret_cast<POINT*>(&bounds), 2);
    const auto state =
        SendMessageW(list, LVM_GETITEMSTATE, row, LVIS_STATEIMAGEMASK | LVIS_SELECTED);
    out += std::string(row ? "," : "") + "{\"text\":" + Json(text.c_str()) + ",\"checked\":" +
           ((state & LVIS_STATEIMAGEMASK) == INDEXTOSTATEIMAGEMASK(2) ? "true" : "false") +
           ",\"selected\":" + (state & LVIS_SELECTED ? "true" : "false") +
           ",\"rect\":" + Json(bounds) + "}";
  }
  return out + "]";
}

BOOL CALLBACK FindPicker(HWND window, LPARAM found) {
  wchar_t name[16] = {};
  GetClassNameW(window, name, 16);
  if (std::wstring(name) != L"#32770" || GetDlgItem(window, 202) == nullptr) return TRUE;
  *reinterpret_cast<HWND*>(found) = window;
  return FALSE;
}

std::string DialogJson(HWND dialog) {
  wchar_t text[256] = {};
  GetWindowTextW(dialog, text, 256);
  RECT rect, client;
  GetWindowRect(dialog, &rect);
  GetClientRect(dialog, &client);
  MapWindowPoints(dialog, nullptr, reinterpret_cast<POINT*>(&client), 2);
  // A sizing loop in progress (a drag of the gripper), which holds the mouse until it ends.
  GUITHREADINFO thread = {sizeof thread};
  GetGUIThreadInfo(GetWindowThreadProcessId(dialog, nullptr), &thread);
  std::string out =
      "{\"caption\":" + Json(text) + ",\"rect\":" + Json(rect) + ",\"client\":" + Json(client) +
      ",\"sizing\":" + (thread.flags & GUI_INMOVESIZE ? "true" : "false") + ",\"controls\":{";
  bool first = true;
  for (HWND child = GetWindow(dialog, GW_CHILD); child != nullptr;
       child = GetWindow(child, GW_HWNDNEXT)) {
    GetWindowTextW(child, text, 256);
    GetWindowRect(child, &rect);
    out += std::string(first ? "" : ",") + "\"" + std::to_string(GetDlgCtrlID(child)) +
           "\":{\"text\":" + Json(text) + ",\"rect\":" + Json(rect) +
           ",\"checked\":" + std::to_string(SendMessageW(child, BM_GETCHECK, 0, 0)) + "}";
    first = false;
  }
  return out + "}" + ListJson(GetDlgItem(dialog, 202)) + "}";
}

}  // namespace

int main() {
  for (int c = std::getchar(); c != EOF; c = std::getchar()) {
    if (c != '\n') continue;
    HWND dialog = nullptr;
    EnumWindows(&FindPicker, reinterpret_cast<LPARAM>(&dialog));
    std::printf("%s\n",
                dialog != nullptr && IsWindowVisible(dialog) ? DialogJson(dialog).c_str() : "null");
    std::fflush(stdout);
  }
  return 0;
}
