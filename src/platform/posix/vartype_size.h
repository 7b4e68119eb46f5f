#pragma once
// Sizes of the automation scalar types, shared by VARIANT and SAFEARRAY.

#include <cstddef>

#include "vekxapi/posix/variant.h"

namespace qv::platform::posix {

// Size of a value of `vt` that is copied bit for bit; 0 for the types that own something
// (strings, interfaces, arrays, records) or are not scalars.
inline std::size_t ScalarSize(VARTYPE vt) {
  switch (vt) {
    case VT_I1:
    case VT_UI1:
      return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
      return 2;
    case VT_I4:
    case VT_UI4:
    case VT_R4:
    case VT_ERROR:
    case VT_INT:
    case VT_UINT:
      return 4;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_INT_PTR:
    case VT_UINT_PTR:
      return 8;
    default:
      return 0;
  }
}

}  // namespace qv::platform::posix
