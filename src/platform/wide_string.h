// UTF-16 strings and BSTR conversions, for the library's own code: the same header host tools
// include as "vekxapi/wide_string.h".
#pragma once

#include "vekxapi/wide_string.h"
