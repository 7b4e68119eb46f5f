#include "api/target_picker.h"

namespace qv {

// Builds without a window system to show a dialog on; Windows builds the dialog of src/host
// instead of this file.
bool HasTargetPicker() noexcept {
  return false;
}

HRESULT RunTargetPicker(LONGLONG, const VARIANT&, PickerOutcome&) noexcept {
  return E_NOTIMPL;
}

}  // namespace qv
