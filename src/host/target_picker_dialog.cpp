#include "host/target_picker_dialog.h"

#include <commctrl.h>

#include <cwchar>
#include <iterator>
#include <utility>
#include <vector>

#include "api/target_picker.h"
#include "host/target_picker_resources.h"
#include "host/this_module.h"
#include "vekxapi/arrays.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/vekxapi.h"

namespace qv::host {
namespace {

using vekx::ComPtr;

// What the second column shows: the target's name, or its host name when it has no name or the
// name cannot be read (a kit that does not answer).
vekx::Bstr DisplayText(ITarget& target) {
  vekx::Bstr name;
  if (SUCCEEDED(target.get_Name(name.Put())) && !name.View().empty()) return name;
  target.get_HostName(name.Put());
  return name;
}

// Texts go into fixed buffers, so that no allocation can throw inside the dialog's message
// handling (the target lists are read without throwing).
using Text = wchar_t[256];

void LoadText(HMODULE module, UINT id, Text& text) {
  if (LoadStringW(module, id, text, static_cast<int>(std::size(text))) <= 0) text[0] = L'\0';
}

// The failure text of the string table `id`, followed by the description that the failed call
// left in the thread's error object.
void FailureText(HMODULE module, UINT id, wchar_t* text, size_t size) {
  Text first;
  LoadText(module, id, first);
  BSTR description = nullptr;
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) == S_OK && info != nullptr) {
    if (FAILED(info->GetDescription(&description))) description = nullptr;
    info->Release();
  }
  swprintf(text, size, L"%ls\n\n%ls", first, description != nullptr ? description : L"");
  SysFreeString(description);
}

}  // namespace

CKXVETargetPickerDlg::CKXVETargetPickerDlg(const VARIANT& targets) noexcept {
  // A copy that fails leaves the list empty: nothing to choose, Cancel still ends the dialog.
  VariantCopy(targets_.Put(), const_cast<VARIANT*>(&targets));
}

HRESULT CKXVETargetPickerDlg::DoModal(HMODULE module, HWND parent, INT_PTR& end) noexcept {
  module_ = module;
  chosen_ = -1;
  const INITCOMMONCONTROLSEX controls = {sizeof controls, ICC_LISTVIEW_CLASSES};
  if (!InitCommonControlsEx(&controls)) return E_FAIL;
  SetLastError(ERROR_SUCCESS);
  end = DialogBoxParamW(module, MAKEINTRESOURCEW(IDD_TARGET_PICKER), parent, &DialogProc,
                        reinterpret_cast<LPARAM>(this));
  if (end == IDOK || end == IDCANCEL) return S_OK;
  // 0 (a bad owner window) or -1 (no such resource, out of memory): the system says why.
  const DWORD error = GetLastError();
  return error != ERROR_SUCCESS ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

INT_PTR CALLBACK CKXVETargetPickerDlg::DialogProc(HWND dialog, UINT message, WPARAM wparam,
                                                  LPARAM lparam) {
  if (message == WM_INITDIALOG) {
    auto* self = reinterpret_cast<CKXVETargetPickerDlg*>(lparam);
    SetWindowLongPtrW(dialog, DWLP_USER, lparam);
    self->dialog_ = dialog;
    self->OnInitDialog();
    return FALSE;  // the focus is set: on the list
  }
  auto* self = reinterpret_cast<CKXVETargetPickerDlg*>(GetWindowLongPtrW(dialog, DWLP_USER));
  // Messages before WM_INITDIALOG (WM_GETMINMAXINFO, WM_SETFONT) find no dialog yet.
  return self != nullptr ? self->Handle(message, wparam, lparam) : FALSE;
}

INT_PTR CKXVETargetPickerDlg::Handle(UINT message, WPARAM wparam, LPARAM lparam) {
  switch (message) {
    case WM_COMMAND:
      if (LOWORD(wparam) == IDOK) {
        OnOk();
        return TRUE;
      }
      if (LOWORD(wparam) == IDCANCEL) {
        EndDialog(dialog_, IDCANCEL);
        return TRUE;
      }
      return FALSE;
    case WM_NOTIFY: {
      const auto* header = reinterpret_cast<const NMHDR*>(lparam);
      if (header->idFrom != IDC_TARGET_PICKER_LIST) return FALSE;
      if (header->code == LVN_ITEMCHANGING) {
        SetWindowLongPtrW(dialog_, DWLP_MSGRESULT, RefusesChange(lparam) ? TRUE : FALSE);
        return TRUE;
      }
      if (header->code == NM_DBLCLK) {
        OnOk();
        return TRUE;
      }
      return FALSE;
    }
    case WM_GETMINMAXINFO:
      reinterpret_cast<MINMAXINFO*>(lparam)->ptMinTrackSize = {min_size_.cx, min_size_.cy};
      return TRUE;
    case WM_SIZE:
      OnSize(LOWORD(lparam), HIWORD(lparam));
      return TRUE;
    default:
      return FALSE;
  }
}

void CKXVETargetPickerDlg::OnInitDialog() {
  list_ = GetDlgItem(dialog_, IDC_TARGET_PICKER_LIST);
  set_default_ = GetDlgItem(dialog_, IDC_TARGET_PICKER_SET_DEFAULT);
  SetUpResizing();
  SendMessageW(list_, LVM_SETEXTENDEDLISTVIEWSTYLE, LVS_EX_CHECKBOXES | LVS_EX_FULLROWSELECT,
               LVS_EX_CHECKBOXES | LVS_EX_FULLROWSELECT);
  SetUpColumns();
  Fill();
  SetFocus(list_);
}

// Remembers where every control sits, so that a new size moves them from there, and adds the
// gripper in the bottom-right corner.
void CKXVETargetPickerDlg::SetUpResizing() {
  SetWindowLongPtrW(dialog_, GWL_STYLE, GetWindowLongPtrW(dialog_, GWL_STYLE) | WS_CLIPCHILDREN);
  RECT window;
  GetWindowRect(dialog_, &window);
  min_size_ = {window.right - window.left, window.bottom - window.top};
  RECT client;
  GetClientRect(dialog_, &client);
  initial_client_ = {client.right, client.bottom};
  CreateWindowExW(
      0, L"SCROLLBAR", nullptr,
      WS_CHILD | WS_VISIBLE | WS_CLIPSIBLINGS | SBS_SIZEGRIP | SBS_SIZEBOXBOTTOMRIGHTALIGN, 0, 0,
      client.right, client.bottom, dialog_,
      reinterpret_cast<HMENU>(static_cast<INT_PTR>(IDC_TARGET_PICKER_GRIPPER)), module_, nullptr);
  static constexpr struct {
    int id;
    unsigned follow;
  } kLayout[] = {
      {IDC_TARGET_PICKER_PROMPT, kGrowX},
      {IDC_TARGET_PICKER_LIST, kGrowX | kGrowY},
      {IDC_TARGET_PICKER_SET_DEFAULT, kMoveY | kGrowX},
      {IDOK, kMoveX | kMoveY},
      {IDCANCEL, kMoveX | kMoveY},
      {IDC_TARGET_PICKER_GRIPPER, kMoveX | kMoveY},
  };
  static_assert(std::size(kLayout) == kAnchoredControls);
  for (const auto& entry : kLayout) {
    const HWND control = GetDlgItem(dialog_, entry.id);
    if (control == nullptr) continue;
    RECT rect;
    GetWindowRect(control, &rect);
    MapWindowPoints(nullptr, dialog_, reinterpret_cast<POINT*>(&rect), 2);
    layout_[anchored_++] = {control, rect, entry.follow};
  }
}

void CKXVETargetPickerDlg::SetUpColumns() {
  for (const auto& [column, id] : {std::pair{0, IDS_TARGET_PICKER_DEFAULT_COLUMN},
                                   std::pair{1, IDS_TARGET_PICKER_TARGET_COLUMN}}) {
    Text text;
    LoadText(module_, id, text);
    LVCOLUMNW header = {};
    header.mask = LVCF_TEXT | LVCF_WIDTH;
    header.pszText = text;
    header.cx = static_cast<int>(
                    SendMessageW(list_, LVM_GETSTRINGWIDTHW, 0, reinterpret_cast<LPARAM>(text))) +
                15;
    SendMessageW(list_, LVM_INSERTCOLUMNW, column, reinterpret_cast<LPARAM>(&header));
  }
  RECT client;
  GetClientRect(list_, &client);
  SendMessageW(list_, LVM_SETCOLUMNWIDTH, 0, 50);
  SendMessageW(list_, LVM_SETCOLUMNWIDTH, 1, client.right - GetSystemMetrics(SM_CXVSCROLL) - 50);
}

void CKXVETargetPickerDlg::Fill() {
  filling_ = true;
  SendMessageW(list_, WM_SETREDRAW, FALSE, 0);
  SendMessageW(list_, LVM_DELETEALLITEMS, 0, 0);
  std::vector<ComPtr<ITarget>> targets;
  vekx::ArrayObjects<ITarget>(targets_.Get(), IID_ITarget,
                              targets);  // a list that cannot be read shows no rows
  for (size_t index = 0; index < targets.size(); ++index) {
    wchar_t empty[] = L"";
    LVITEMW row = {};
    row.mask = LVIF_TEXT;
    row.iItem = static_cast<int>(index);
    row.pszText = empty;
    const int at =
        static_cast<int>(SendMessageW(list_, LVM_INSERTITEMW, 0, reinterpret_cast<LPARAM>(&row)));
    if (at < 0) continue;
    vekx::Bstr text = DisplayText(*targets[index].Get());
    row.iSubItem = 1;
    row.pszText = text.IsNull() ? empty : text.Get();
    SendMessageW(list_, LVM_SETITEMTEXTW, at, reinterpret_cast<LPARAM>(&row));
    VARIANT_BOOL is_default = VARIANT_FALSE;
    targets[index]->get_Default(&is_default);
    LVITEMW check = {};
    check.stateMask = LVIS_STATEIMAGEMASK;
    check.state = INDEXTOSTATEIMAGEMASK(is_default != VARIANT_FALSE ? 2 : 1);
    SendMessageW(list_, LVM_SETITEMSTATE, at, reinterpret_cast<LPARAM>(&check));
  }
  SendMessageW(list_, WM_SETREDRAW, TRUE, 0);
  InvalidateRect(list_, nullptr, TRUE);
  filling_ = false;
}

// The check boxes only show which target is the default: a change of a row's state image (a
// click on its box, the space bar) is refused unless the dialog makes it; selecting is not.
bool CKXVETargetPickerDlg::RefusesChange(LPARAM notification) const {
  const auto* change = reinterpret_cast<const NMLISTVIEW*>(notification);
  return !filling_ && (change->uChanged & LVIF_STATE) != 0 &&
         ((change->uNewState ^ change->uOldState) & LVIS_STATEIMAGEMASK) != 0;
}

void CKXVETargetPickerDlg::OnOk() {
  const int row = static_cast<int>(
      SendMessageW(list_, LVM_GETNEXTITEM, static_cast<WPARAM>(-1), LVNI_SELECTED));
  if (row < 0) return;  // nothing chosen yet: the dialog stays
  if (SendMessageW(set_default_, BM_GETCHECK, 0, 0) == BST_CHECKED) {
    std::vector<ComPtr<ITarget>> targets;
    if (FAILED(vekx::ArrayObjects<ITarget>(targets_.Get(), IID_ITarget, targets)) ||
        static_cast<size_t>(row) >= targets.size()) {
      return;
    }
    if (FAILED(targets[static_cast<size_t>(row)]->put_Default(VARIANT_TRUE))) {
      // The user asked for it: say why it did not happen, and let them choose again.
      wchar_t text[1024];
      FailureText(module_, IDS_TARGET_PICKER_SET_DEFAULT_FAILED, text, std::size(text));
      Text caption = {};
      GetWindowTextW(dialog_, caption, static_cast<int>(std::size(caption)));
      MessageBoxW(dialog_, text, caption, MB_OK | MB_ICONERROR);
      return;
    }
  }
  chosen_ = row;
  EndDialog(dialog_, IDOK);
}

void CKXVETargetPickerDlg::OnSize(int width, int height) {
  const int grow_x = width - initial_client_.cx;
  const int grow_y = height - initial_client_.cy;
  HDWP positions = BeginDeferWindowPos(static_cast<int>(anchored_));
  for (size_t index = 0; index < anchored_; ++index) {
    const Anchored& item = layout_[index];
    RECT rect = item.initial;
    if (item.follow & kMoveX) OffsetRect(&rect, grow_x, 0);
    if (item.follow & kMoveY) OffsetRect(&rect, 0, grow_y);
    if (item.follow & kGrowX) rect.right += grow_x;
    if (item.follow & kGrowY) rect.bottom += grow_y;
    if (positions != nullptr) {
      positions = DeferWindowPos(positions, item.control, nullptr, rect.left, rect.top,
                                 rect.right - rect.left, rect.bottom - rect.top,
                                 SWP_NOZORDER | SWP_NOACTIVATE | SWP_NOCOPYBITS);
    }
  }
  if (positions != nullptr) EndDeferWindowPos(positions);
  // The parent clips its children, so they are repainted in their new places explicitly.
  RedrawWindow(dialog_, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN);
}

}  // namespace qv::host

namespace qv {

bool HasTargetPicker() noexcept {
  return true;
}

HRESULT RunTargetPicker(LONGLONG parent, const VARIANT& targets, PickerOutcome& outcome) noexcept {
  host::CKXVETargetPickerDlg dialog(targets);
  INT_PTR end = 0;
  // The dialog's resources are in the module that holds this code: the DLL.
  if (HRESULT hr = dialog.DoModal(host::ThisModule(), reinterpret_cast<HWND>(parent), end);
      FAILED(hr)) {
    return hr;
  }
  outcome = {};
  if (end != IDOK) {
    outcome.end = PickerOutcome::End::kCancelled;
  } else if (dialog.chosen() < 0) {
    outcome.end = PickerOutcome::End::kNothingChosen;
  } else {
    outcome.end = PickerOutcome::End::kChosen;
    outcome.index = static_cast<size_t>(dialog.chosen());
  }
  return S_OK;
}

}  // namespace qv
