// For the picker's tests under Wine: reads the open target picker dialog of another process as
// Windows sees it and prints it as one JSON line per line read on standard input ("null" while
// there is none). Wine's controls are no X windows, so only this side can see them. Rectangles
// are screen coordinates, which under Wine are the X screen's.
#include <windows.h>

#include <commctrl.h>

#include <cstdio>
#include <string>

namespace {

std::string Json(const wchar_t* text) {  // the tests' texts hold no quotes or backslashes
  char utf8[1024] = {};
  WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8, sizeof utf8 - 1, nullptr, nullptr);
  return std::string("\"") + utf8 + "\"";
}

std::string Json(RECT r, HWND from = nullptr) {
  if (from != nullptr) MapWindowPoints(from, nullptr, reinterpret_cast<POINT*>(&r), 2);
  return "[" + std::to_string(r.left) + "," + std::to_string(r.top) + "," +
         std::to_string(r.right) + "," + std::to_string(r.bottom) + "]";
}

// List view and header messages carry pointers: their structure, and a text buffer after it, go
// to memory in the dialog's process and are read back after the message.
template <class T>
std::wstring SendRemote(HWND window, UINT message, WPARAM wparam, T& data, LPWSTR* text) {
  DWORD pid = 0;
  GetWindowThreadProcessId(window, &pid);
  const HANDLE process =
      OpenProcess(PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE, FALSE, pid);
  auto* memory = static_cast<char*>(
      VirtualAllocEx(process, nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
  if (text != nullptr) *text = reinterpret_cast<LPWSTR>(memory + 512);
  WriteProcessMemory(process, memory, &data, sizeof data, nullptr);
  SendMessageW(window, message, wparam, reinterpret_cast<LPARAM>(memory));
  wchar_t buffer[256] = {};
  ReadProcessMemory(process, memory, &data, sizeof data, nullptr);
  ReadProcessMemory(process, memory + 512, buffer, sizeof buffer - 2, nullptr);
  VirtualFreeEx(process, memory, 0, MEM_RELEASE);
  CloseHandle(process);
  return buffer;
}

std::string ListJson(HWND list) {
  const auto header = reinterpret_cast<HWND>(SendMessageW(list, LVM_GETHEADER, 0, 0));
  std::string out = ",\"columns\":[";
  for (int column = 0; column < 2; ++column) {
    HDITEMW item = {HDI_TEXT};
    item.cchTextMax = 255;
    out += (column ? "," : "") +
           Json(SendRemote(header, HDM_GETITEMW, column, item, &item.pszText).c_str());
  }
  out += "],\"rows\":[";
  for (int row = 0; row < SendMessageW(list, LVM_GETITEMCOUNT, 0, 0); ++row) {
    LVITEMW item = {};
    item.iSubItem = 1;
    item.cchTextMax = 255;
    const std::wstring text = SendRemote(list, LVM_GETITEMTEXTW, row, item, &item.pszText);
    RECT bounds = {LVIR_BOUNDS};
    SendRemote(list, LVM_GETITEMRECT, row, bounds, nullptr);
    const auto state =
        SendMessageW(list, LVM_GETITEMSTATE, row, LVIS_STATEIMAGEMASK | LVIS_SELECTED);
    out += std::string(row ? "," : "") + "{\"text\":" + Json(text.c_str()) + ",\"checked\":" +
           ((state & LVIS_STATEIMAGEMASK) == INDEXTOSTATEIMAGEMASK(2) ? "true" : "false") +
           ",\"selected\":" + (state & LVIS_SELECTED ? "true" : "false") +
           ",\"rect\":" + Json(bounds, list) + "}";
  }
  return out + "]";
}

std::string DialogJson(HWND dialog) {
  wchar_t text[256] = {};
  GetWindowTextW(dialog, text, 256);
  RECT rect;
  GetClientRect(dialog, &rect);
  // A sizing loop under way (a drag of the gripper) holds the mouse until it ends.
  GUITHREADINFO thread = {sizeof thread};
  GetGUIThreadInfo(GetWindowThreadProcessId(dialog, nullptr), &thread);
  std::string out = "{\"caption\":" + Json(text) + ",\"client\":" + Json(rect, dialog) +
                    ",\"sizing\":" + (thread.flags & GUI_INMOVESIZE ? "true" : "false") +
                    ",\"controls\":{";
  for (HWND child = GetWindow(dialog, GW_CHILD); child != nullptr;
       child = GetWindow(child, GW_HWNDNEXT)) {
    GetWindowTextW(child, text, 256);
    GetWindowRect(child, &rect);
    out += "\"" + std::to_string(GetDlgCtrlID(child)) + "\":{\"text\":" + Json(text) +
           ",\"rect\":" + Json(rect) +
           ",\"checked\":" + std::to_string(SendMessageW(child, BM_GETCHECK, 0, 0)) + "},";
  }
  out.back() = '}';
  return out + ListJson(GetDlgItem(dialog, 202)) + "}";
}

}  // namespace

int main() {
  for (int c = std::getchar(); c != EOF; c = std::getchar()) {
    if (c != '\n') continue;
    HWND dialog = nullptr;  // the dialog box that holds the picker's list
    do {
      dialog = FindWindowExW(nullptr, dialog, L"#32770", nullptr);
    } while (dialog != nullptr && GetDlgItem(dialog, 202) == nullptr);
    const bool shown = dialog != nullptr && IsWindowVisible(dialog);
    std::printf("%s\n", shown ? DialogJson(dialog).c_str() : "null");
    std::fflush(stdout);
  }
  return 0;
}
