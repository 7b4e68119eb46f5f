// The automation types every other file uses: HRESULT and its codes, GUID, BSTR, VARIANT,
// SAFEARRAY, IUnknown, IDispatch and the error-info interfaces and functions.
//
// On Windows these are the real OLE Automation declarations. On POSIX they are our own
// implementation of the subset the library uses, with the same names, signatures, memory
// layouts and semantics as on Windows x64, so that objects, strings and arrays look alike to
// any code built against either.
//
// The public headers include it; the library's code includes it (as platform/automation.h) rather
// than any OS header.
#ifndef VEKX_AUTOMATION_H_
#define VEKX_AUTOMATION_H_

#ifdef _WIN32
#include <windows.h>
// windows.h must come first.
#include <oaidl.h>
#include <oleauto.h>
#if defined(__GNUC__) && !defined(__clang__)
// COM interfaces have public non-virtual destructors by design (a virtual one would add vtable
// slots), and GCC flags every class that implements one. The POSIX declarations give the
// interfaces protected destructors, so the POSIX build still checks our own classes.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif
#else
#include "vekxapi/posix/base_types.h"
#include "vekxapi/posix/bstr.h"
#include "vekxapi/posix/error_info.h"
#include "vekxapi/posix/interfaces.h"
#include "vekxapi/posix/safearray.h"
#include "vekxapi/posix/variant.h"
#endif

#endif  // VEKX_AUTOMATION_H_
