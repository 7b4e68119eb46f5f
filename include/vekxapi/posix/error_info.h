// Per-thread automation error information for the POSIX build.
//
// Each thread has one slot that holds at most one IErrorInfo, with a reference. A method that
// fails sets it just before returning; its caller takes it with GetErrorInfo. A thread that
// exits releases what its slot still holds.
//
// Include "vekxapi/automation.h" rather than this file.
#ifndef VEKX_POSIX_ERROR_INFO_H_
#define VEKX_POSIX_ERROR_INFO_H_

#include "vekxapi/posix/base_types.h"
#include "vekxapi/posix/interfaces.h"

/// Creates an empty error object (no GUID, source, description or help) that implements both
/// ICreateErrorInfo and IErrorInfo. The caller owns the one reference in `*pperrinfo`.
/// E_INVALIDARG for a null `pperrinfo`, E_OUTOFMEMORY when memory runs out.
HRESULT CreateErrorInfo(ICreateErrorInfo** pperrinfo);

/// Stores `perrinfo` (AddRef'd) in the calling thread's slot, releasing what was there; a null
/// `perrinfo` clears the slot. `dwReserved` must be 0 (E_INVALIDARG otherwise).
HRESULT SetErrorInfo(ULONG dwReserved, IErrorInfo* perrinfo);

/// Moves the calling thread's error object to `*pperrinfo` (the caller now owns that reference)
/// and clears the slot. S_FALSE with a null `*pperrinfo` when there is none.
HRESULT GetErrorInfo(ULONG dwReserved, IErrorInfo** pperrinfo);

#endif  // VEKX_POSIX_ERROR_INFO_H_
