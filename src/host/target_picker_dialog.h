#pragma once
// CKXVETargetPickerDlg, the modal dialog behind IVEKXAPI::ShowTargetPicker: it lists the targets
// it is given with the default one ticked, lets the user choose one and, with its check box, make
// the chosen one the server's default target. Resizable: the list takes the growth.

#include <windows.h>

#include <array>
#include <cstddef>

#include "vekxapi/variant.h"

namespace qv::host {

class CKXVETargetPickerDlg {
 public:
  // `targets`: a VT_ARRAY of ITarget dispatch pointers, as the root object's Targets returns
  // them; the dialog keeps a copy.
  explicit CKXVETargetPickerDlg(const VARIANT& targets) noexcept;
  CKXVETargetPickerDlg(const CKXVETargetPickerDlg&) = delete;
  CKXVETargetPickerDlg& operator=(const CKXVETargetPickerDlg&) = delete;

  // Shows the dialog from `module`'s resources over `parent` (null: no owner) until the user ends
  // it; `end` is then IDOK or IDCANCEL. A dialog that cannot be shown gives the system's reason.
  HRESULT DoModal(HMODULE module, HWND parent, INT_PTR& end) noexcept;

  // The row the user chose with OK, in the order of the targets given; -1 for none.
  int chosen() const noexcept { return chosen_; }

 private:
  // How a control follows the dialog's size: moved right or down, or stretched, by the growth.
  enum Follow : unsigned { kMoveX = 1, kMoveY = 2, kGrowX = 4, kGrowY = 8 };
  struct Anchored {
    HWND control;
    RECT initial;  // in the dialog's client coordinates
    unsigned follow;
  };

  static INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM wparam, LPARAM lparam);
  INT_PTR Handle(UINT message, WPARAM wparam, LPARAM lparam);
  void OnInitDialog();
  void SetUpResizing();
  void SetUpColumns();
  void Fill();
  bool RefusesChange(LPARAM notification) const;
  void OnOk();
  void OnSize(int width, int height);

  vekx::Variant targets_;
  HMODULE module_ = nullptr;
  HWND dialog_ = nullptr;
  HWND list_ = nullptr;
  HWND set_default_ = nullptr;  // the check box
  bool filling_ = false;        // set while the dialog itself changes the list's rows
  int chosen_ = -1;
  SIZE min_size_ = {};  // the window's size when it opened: it cannot become smaller
  SIZE initial_client_ = {};
  static constexpr size_t kAnchoredControls = 6;  // the entries of the .cpp's kLayout
  std::array<Anchored, kAnchoredControls> layout_ = {};
  size_t anchored_ = 0;
};

}  // namespace qv::host
