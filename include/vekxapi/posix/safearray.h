// SAFEARRAY, the self-describing automation array, for the POSIX build.
//
// Memory layout (identical to Windows x64). A descriptor is allocated with 16 hidden bytes in
// front of it:
//
//   -16  GUID      the element interface's IID          (when FADF_HAVEIID)
//   -8   pointer   IRecordInfo*                         (when FADF_RECORD)
//   -4   DWORD     the element VARTYPE                  (when FADF_HAVEVARTYPE)
//    0   USHORT cDims, USHORT fFeatures, ULONG cbElements, ULONG cLocks, 4 bytes padding
//   +16  PVOID pvData
//   +24  SAFEARRAYBOUND rgsabound[cDims]   {ULONG cElements; LONG lLbound;}
//
// rgsabound is stored in reverse: rgsabound[0] is the last (slowest-varying) dimension, and
// rgsabound[cDims - 1] is dimension 1, which SafeArrayCreate reads from its argument's first
// entry and SafeArrayGetLBound(psa, 1) reports. Index arrays passed to the element functions
// list dimension 1 first, and dimension 1 varies fastest in memory.
//
// A vector from SafeArrayCreateVector keeps its data in the same block as its descriptor
// (FADF_CREATEVECTOR).
//
// Include "vekxapi/automation.h" rather than this file.
#ifndef VEKX_POSIX_SAFEARRAY_H_
#define VEKX_POSIX_SAFEARRAY_H_

#include "vekxapi/posix/base_types.h"
#include "vekxapi/posix/interfaces.h"
#include "vekxapi/posix/variant.h"

typedef struct tagSAFEARRAYBOUND {
  ULONG cElements;
  LONG lLbound;
} SAFEARRAYBOUND;
typedef SAFEARRAYBOUND* LPSAFEARRAYBOUND;

struct tagSAFEARRAY {
  USHORT cDims;
  USHORT fFeatures;
  ULONG cbElements;
  ULONG cLocks;
  PVOID pvData;
  SAFEARRAYBOUND rgsabound[1];
};
typedef SAFEARRAY* LPSAFEARRAY;

static_assert(sizeof(SAFEARRAYBOUND) == 8, "SAFEARRAYBOUND is 8 bytes");
static_assert(offsetof(SAFEARRAY, fFeatures) == 2, "SAFEARRAY layout is the Windows x64 layout");
static_assert(offsetof(SAFEARRAY, cbElements) == 4, "SAFEARRAY layout is the Windows x64 layout");
static_assert(offsetof(SAFEARRAY, cLocks) == 8, "SAFEARRAY layout is the Windows x64 layout");
static_assert(offsetof(SAFEARRAY, pvData) == 16, "SAFEARRAY layout is the Windows x64 layout");
static_assert(offsetof(SAFEARRAY, rgsabound) == 24, "SAFEARRAY layout is the Windows x64 layout");
static_assert(sizeof(SAFEARRAY) == 32, "SAFEARRAY is 32 bytes with one bound");

#define FADF_AUTO 0x0001
#define FADF_STATIC 0x0002
#define FADF_EMBEDDED 0x0004
#define FADF_FIXEDSIZE 0x0010
#define FADF_RECORD 0x0020
#define FADF_HAVEIID 0x0040
#define FADF_HAVEVARTYPE 0x0080
#define FADF_BSTR 0x0100
#define FADF_UNKNOWN 0x0200
#define FADF_DISPATCH 0x0400
#define FADF_VARIANT 0x0800
#define FADF_RESERVED 0xF008
// Not in the public headers, but set and honoured by OLE Automation itself.
#define FADF_DATADELETED 0x1000
#define FADF_CREATEVECTOR 0x2000

/// Creates an array of `cDims` dimensions (bounds listed dimension 1 first) whose elements are
/// zero. Returns nullptr for an element type an array cannot hold (VT_RECORD included), a zero
/// dimension count, a size that does not fit in 32 bits, or when memory runs out.
SAFEARRAY* SafeArrayCreate(VARTYPE vt, UINT cDims, SAFEARRAYBOUND* rgsabound);

/// Creates a one-dimensional array whose data shares the descriptor's allocation.
SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, LONG lLbound, ULONG cElements);

/// Releases every element by type (strings freed, variants cleared, interfaces Released) and
/// frees the array. nullptr is S_OK; DISP_E_ARRAYISLOCKED, changing nothing, while locked.
HRESULT SafeArrayDestroy(SAFEARRAY* psa);

/// Allocates a zeroed descriptor for `cDims` dimensions without data or element type.
HRESULT SafeArrayAllocDescriptor(UINT cDims, SAFEARRAY** ppsaOut);
/// As SafeArrayAllocDescriptor, and records `vt` as the element type with its size and flags.
HRESULT SafeArrayAllocDescriptorEx(VARTYPE vt, UINT cDims, SAFEARRAY** ppsaOut);
/// Allocates zeroed data for a descriptor whose bounds and element size are set.
HRESULT SafeArrayAllocData(SAFEARRAY* psa);
/// Frees a descriptor (and a vector's data); DISP_E_ARRAYISLOCKED while locked.
HRESULT SafeArrayDestroyDescriptor(SAFEARRAY* psa);
/// Releases every element and frees the data, keeping the descriptor.
HRESULT SafeArrayDestroyData(SAFEARRAY* psa);

UINT SafeArrayGetDim(SAFEARRAY* psa);
UINT SafeArrayGetElemsize(SAFEARRAY* psa);

/// Bounds of dimension `nDim` (1-based). DISP_E_BADINDEX for a dimension the array lacks.
HRESULT SafeArrayGetLBound(SAFEARRAY* psa, UINT nDim, LONG* plLbound);
HRESULT SafeArrayGetUBound(SAFEARRAY* psa, UINT nDim, LONG* plUbound);

/// Element type: VT_UNKNOWN/VT_DISPATCH from the stored IID, VT_RECORD for records, otherwise
/// the stored VARTYPE. E_INVALIDARG when the array records none.
HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt);
HRESULT SafeArrayGetIID(SAFEARRAY* psa, GUID* pguid);
HRESULT SafeArraySetIID(SAFEARRAY* psa, REFGUID guid);

/// A lock pins the data: destroy and redim fail while any lock is held. E_UNEXPECTED when
/// unlocking an array that is not locked, or past 65535 locks.
HRESULT SafeArrayLock(SAFEARRAY* psa);
HRESULT SafeArrayUnlock(SAFEARRAY* psa);

/// Locks the array and returns its data; pair with SafeArrayUnaccessData.
HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData);
HRESULT SafeArrayUnaccessData(SAFEARRAY* psa);

/// Address of the element at `rgIndices` (one index per dimension, dimension 1 first), without
/// locking. DISP_E_BADINDEX outside the bounds.
HRESULT SafeArrayPtrOfIndex(SAFEARRAY* psa, LONG* rgIndices, void** ppvData);

/// Copies the element at `rgIndices` out to `pv`: a BSTR is duplicated, a VARIANT deep-copied
/// (whatever `pv` held is overwritten, not cleared), an interface AddRef'd.
HRESULT SafeArrayGetElement(SAFEARRAY* psa, LONG* rgIndices, void* pv);

/// Stores a copy of `pv` at `rgIndices`, releasing the element it replaces. For a BSTR array
/// `pv` is the BSTR itself; for an interface array, the interface pointer itself; otherwise
/// the address of the value.
HRESULT SafeArrayPutElement(SAFEARRAY* psa, LONG* rgIndices, void* pv);

/// Deep copy of `psa` (nullptr copies to nullptr).
HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut);

/// Replaces the elements of `psaTarget` with copies of those of `psaSource`; both must have the
/// same shape and element size.
HRESULT SafeArrayCopyData(SAFEARRAY* psaSource, SAFEARRAY* psaTarget);

/// Changes the bounds of the last dimension (the only one, for a vector). Elements cut off are
/// released, new elements are zero. DISP_E_ARRAYISLOCKED while locked or for a fixed-size
/// array.
HRESULT SafeArrayRedim(SAFEARRAY* psa, SAFEARRAYBOUND* psaboundNew);

#endif  // VEKX_POSIX_SAFEARRAY_H_
