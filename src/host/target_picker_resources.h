#pragma once
// Resource ids of the target picker, shared by its resource script and its code; macros, since
// the resource compiler reads this file too.

#define IDD_TARGET_PICKER 201
#define IDC_TARGET_PICKER_LIST 202
#define IDC_TARGET_PICKER_PROMPT 203
#define IDC_TARGET_PICKER_SET_DEFAULT 204
// The size gripper, which the dialog makes itself.
#define IDC_TARGET_PICKER_GRIPPER 205

#define IDS_MODULE_NAME 100
#define IDS_TARGET_PICKER_DEFAULT_COLUMN 101
#define IDS_TARGET_PICKER_TARGET_COLUMN 102
#define IDS_TARGET_PICKER_SET_DEFAULT_FAILED 103
