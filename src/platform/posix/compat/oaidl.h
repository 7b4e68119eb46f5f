#pragma once
// The generated interface header includes <oaidl.h>; on POSIX it gets our automation subset.
#include "platform/automation.h"
#include "platform/posix/idl_compat.h"
