// The automation types, for the library's own code: the same header host tools include as
// "vekxapi/automation.h".
#pragma once

#include "vekxapi/automation.h"
