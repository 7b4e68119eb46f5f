#pragma once
// The library's own result codes, eErrorCode.
//
// Every name and value comes from result_codes.def, the one source of the codes: the library's
// description table is expanded from the same rows, and so must be any other declaration of
// eErrorCode, the type library's included. Add or change a code there, never here.

#include <cstdint>

// The rows give the codes as they are written in hex (0x8004xxxx); as an int32_t result they are
// negative, so each one is converted explicitly rather than narrowed.
enum eErrorCode : int32_t {
#define VEKX_RESULT(NAME, VALUE, TEXT) NAME = static_cast<int32_t>(UINT32_C(VALUE)),
#define VEKX_RESULT_ALIAS(NAME, VALUE) NAME = static_cast<int32_t>(UINT32_C(VALUE)),
#include "vekxapi/result_codes.def"
};
