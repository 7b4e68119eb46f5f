#include "api/target_picker.h"

namespace qv {

// TODO(feature): the Windows dialog (src/host) replaces these two on Windows.
bool HasTargetPicker() noexcept {
  return false;
}

HRESULT RunTargetPicker(LONGLONG, const VARIANT&, PickerOutcome&) noexcept {
  return E_NOTIMPL;
}

}  // namespace qv
