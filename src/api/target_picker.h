#pragma once
// The target picker: a modal list of targets from which the user chooses one, behind
// IVEKXAPI::ShowTargetPicker. On Windows it is a dialog (src/host/target_picker_dialog.cpp);
// other builds have none and say so (target_picker.cpp) rather than pretending to choose.

#include <cstddef>

#include "platform/automation.h"

namespace qv {

struct PickerOutcome {
  enum class End { kChosen, kNothingChosen, kCancelled };
  End end = End::kCancelled;
  size_t index = 0;  // into the targets shown, when kChosen
};

// Whether this build can show the picker at all.
bool HasTargetPicker() noexcept;

// Shows the picker modally over the window `parent`, listing `targets` (VT_ARRAY | VT_VARIANT of
// ITarget dispatch pointers, as Targets returns them), and waits for the user. S_OK with the
// outcome; E_NOTIMPL where HasTargetPicker is false.
HRESULT RunTargetPicker(LONGLONG parent, const VARIANT& targets, PickerOutcome& outcome) noexcept;

}  // namespace qv
