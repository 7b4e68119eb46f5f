#pragma once
// The generated interface header includes <rpc.h>; on POSIX it gets our automation subset.
#include "vekxapi/automation.h"
#include "vekxapi/posix/idl_compat.h"
