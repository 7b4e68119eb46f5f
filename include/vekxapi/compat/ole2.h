#pragma once
// The generated interface header includes <ole2.h>; on POSIX it gets our automation subset.
#include "vekxapi/automation.h"
#include "vekxapi/posix/idl_compat.h"
