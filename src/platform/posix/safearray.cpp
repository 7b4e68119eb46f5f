#include "vekxapi/posix/safearray.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "platform/byte_array.h"
#include "platform/posix/vartype_size.h"

namespace {

// See the layout drawn in safearray.h.
constexpr std::size_t kHiddenBytes = 16;
constexpr std::size_t kVartypeOffset = 12;  // From the start of the allocation.
// Windows keeps array sizes in ULONG arithmetic; anything larger is refused.
constexpr std::uint64_t kMaxDataBytes = 0xFFFFFFFFu;
constexpr ULONG kMaxLocks = 0xFFFF;
// Features a copy does not inherit: they describe where the source's memory came from.
constexpr USHORT kNotCopiedFeatures =
    FADF_AUTO | FADF_STATIC | FADF_EMBEDDED | FADF_FIXEDSIZE | FADF_CREATEVECTOR | FADF_DATADELETED;

std::byte* AllocationOf(SAFEARRAY* psa) {
  return reinterpret_cast<std::byte*>(psa) - kHiddenBytes;
}

// Element size for the types an array can hold; 0 for the others.
ULONG ElementSize(VARTYPE vt) {
  if (const std::size_t size = qv::platform::posix::ScalarSize(vt); size != 0) {
    return static_cast<ULONG>(size);
  }
  switch (vt) {
    case VT_BSTR:
    case VT_UNKNOWN:
    case VT_DISPATCH:
      return sizeof(void*);
    case VT_DECIMAL:
      return sizeof(DECIMAL);
    case VT_VARIANT:
      return sizeof(VARIANT);
    case VT_RECORD:
      // Known, but the true size comes from an IRecordInfo this build never receives.
      return 32;
    default:
      return 0;
  }
}

void SetHiddenVartype(SAFEARRAY* psa, VARTYPE vt) {
  const DWORD value = vt;
  std::memcpy(AllocationOf(psa) + kVartypeOffset, &value, sizeof value);
}

VARTYPE HiddenVartype(SAFEARRAY* psa) {
  DWORD value;
  std::memcpy(&value, AllocationOf(psa) + kVartypeOffset, sizeof value);
  return static_cast<VARTYPE>(value);
}

// Records `vt` in the hidden bytes and sets the flags that tell the element functions how to
// own an element: strings are freed, interfaces released, variants cleared.
void SetElementType(SAFEARRAY* psa, VARTYPE vt) {
  if (vt == VT_UNKNOWN || vt == VT_DISPATCH) {
    psa->fFeatures = FADF_HAVEIID | (vt == VT_UNKNOWN ? FADF_UNKNOWN : FADF_DISPATCH);
    const GUID& iid = vt == VT_UNKNOWN ? IID_IUnknown : IID_IDispatch;
    std::memcpy(AllocationOf(psa), &iid, sizeof iid);
  } else if (vt == VT_RECORD) {
    psa->fFeatures = FADF_RECORD;
  } else {
    psa->fFeatures = FADF_HAVEVARTYPE;
    if (vt == VT_BSTR) psa->fFeatures |= FADF_BSTR;
    if (vt == VT_VARIANT) psa->fFeatures |= FADF_VARIANT;
    SetHiddenVartype(psa, vt);
  }
}

// Allocates a zeroed descriptor for `dims` dimensions followed by `data_bytes` of data, zeroed
// too unless `zero_data` is false.
SAFEARRAY* AllocateDescriptor(UINT dims, std::size_t data_bytes, bool zero_data = true) {
  const std::size_t descriptor_bytes = sizeof(SAFEARRAY) + sizeof(SAFEARRAYBOUND) * (dims - 1);
  const std::size_t bytes = kHiddenBytes + descriptor_bytes + data_bytes;
  auto* block = static_cast<std::byte*>(zero_data ? std::calloc(1, bytes) : std::malloc(bytes));
  if (block == nullptr) return nullptr;
  if (!zero_data) std::memset(block, 0, kHiddenBytes + descriptor_bytes);
  auto* psa = reinterpret_cast<SAFEARRAY*>(block + kHiddenBytes);
  psa->cDims = static_cast<USHORT>(dims);
  return psa;
}

// Number of elements, or false when the array would not fit in kMaxDataBytes.
bool CountCells(const SAFEARRAY* psa, std::uint64_t* cells) {
  std::uint64_t count = 1;
  for (USHORT i = 0; i < psa->cDims; ++i) {
    // count <= 2^32 here, so the product cannot wrap.
    count *= psa->rgsabound[i].cElements;
    if (count == 0) break;
    if (count > kMaxDataBytes) return false;
    if (psa->cbElements != 0 && count > kMaxDataBytes / psa->cbElements) return false;
  }
  *cells = count;
  return true;
}

std::uint64_t CellCount(const SAFEARRAY* psa) {
  std::uint64_t cells = 0;
  return CountCells(psa, &cells) ? cells : 0;
}

// A vector's data sits right after its descriptor, in the same allocation.
bool DataIsEmbedded(SAFEARRAY* psa) {
  return (psa->fFeatures & FADF_CREATEVECTOR) != 0 && psa->pvData == psa + 1;
}

// Releases the elements [first, first + count) according to the array's element type.
void ReleaseElements(SAFEARRAY* psa, std::uint64_t first, std::uint64_t count) {
  if (psa->pvData == nullptr || (psa->fFeatures & FADF_DATADELETED) != 0) return;
  if ((psa->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) != 0) {
    auto* items = static_cast<IUnknown**>(psa->pvData) + first;
    for (std::uint64_t i = 0; i < count; ++i) {
      if (items[i] != nullptr) items[i]->Release();
      items[i] = nullptr;
    }
  } else if ((psa->fFeatures & FADF_BSTR) != 0) {
    auto* items = static_cast<BSTR*>(psa->pvData) + first;
    for (std::uint64_t i = 0; i < count; ++i) {
      SysFreeString(items[i]);
      items[i] = nullptr;
    }
  } else if ((psa->fFeatures & FADF_VARIANT) != 0) {
    auto* items = static_cast<VARIANT*>(psa->pvData) + first;
    for (std::uint64_t i = 0; i < count; ++i)
      VariantClear(&items[i]);
  }
}

// Fills the zeroed data of `target` with copies of the elements of `source`, which has the
// same element size and cell count. On failure the elements already copied stay in `target`
// for its owner to release.
HRESULT CopyElements(SAFEARRAY* source, SAFEARRAY* target) {
  const std::uint64_t cells = CellCount(source);
  if (cells == 0) return S_OK;
  if ((source->fFeatures & FADF_RECORD) != 0) return E_NOTIMPL;
  if ((source->fFeatures & FADF_VARIANT) != 0) {
    auto* from = static_cast<VARIANT*>(source->pvData);
    auto* to = static_cast<VARIANT*>(target->pvData);
    for (std::uint64_t i = 0; i < cells; ++i) {
      const HRESULT hr = VariantCopy(&to[i], &from[i]);
      if (FAILED(hr)) return hr;
    }
  } else if ((source->fFeatures & FADF_BSTR) != 0) {
    auto* from = static_cast<BSTR*>(source->pvData);
    auto* to = static_cast<BSTR*>(target->pvData);
    for (std::uint64_t i = 0; i < cells; ++i) {
      if (from[i] == nullptr) continue;
      to[i] = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(from[i]), SysStringByteLen(from[i]));
      if (to[i] == nullptr) return E_OUTOFMEMORY;
    }
  } else {
    std::memcpy(target->pvData, source->pvData, cells * source->cbElements);
    if ((source->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) != 0) {
      auto* items = static_cast<IUnknown**>(target->pvData);
      for (std::uint64_t i = 0; i < cells; ++i) {
        if (items[i] != nullptr) items[i]->AddRef();
      }
    }
  }
  return S_OK;
}

// Locks `psa` for the lifetime of the guard, so that an element's Release cannot destroy the
// array under the operation that released it.
class ScopedLock {
 public:
  explicit ScopedLock(SAFEARRAY* psa) : psa_(psa), hr_(SafeArrayLock(psa)) {}
  ~ScopedLock() {
    if (SUCCEEDED(hr_)) SafeArrayUnlock(psa_);
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;
  HRESULT status() const { return hr_; }

 private:
  SAFEARRAY* psa_;
  HRESULT hr_;
};

}  // namespace

HRESULT SafeArrayAllocDescriptor(UINT cDims, SAFEARRAY** ppsaOut) {
  if (cDims == 0 || cDims > 0xFFFF) return E_INVALIDARG;
  if (ppsaOut == nullptr) return E_POINTER;
  *ppsaOut = AllocateDescriptor(cDims, 0);
  return *ppsaOut != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT SafeArrayAllocDescriptorEx(VARTYPE vt, UINT cDims, SAFEARRAY** ppsaOut) {
  const HRESULT hr = SafeArrayAllocDescriptor(cDims, ppsaOut);
  if (FAILED(hr)) return hr;
  SetElementType(*ppsaOut, vt);
  (*ppsaOut)->cbElements = ElementSize(vt);
  return S_OK;
}

HRESULT SafeArrayAllocData(SAFEARRAY* psa) {
  if (psa == nullptr) return E_INVALIDARG;
  std::uint64_t cells = 0;
  if (!CountCells(psa, &cells)) return E_OUTOFMEMORY;
  // At least one byte, so that an empty array still has data to point at.
  const std::size_t bytes = cells * psa->cbElements;
  psa->pvData = std::calloc(bytes != 0 ? bytes : 1, 1);
  return psa->pvData != nullptr ? S_OK : E_OUTOFMEMORY;
}

SAFEARRAY* SafeArrayCreate(VARTYPE vt, UINT cDims, SAFEARRAYBOUND* rgsabound) {
  if (rgsabound == nullptr || vt == VT_RECORD || ElementSize(vt) == 0) return nullptr;
  SAFEARRAY* psa = nullptr;
  if (FAILED(SafeArrayAllocDescriptorEx(vt, cDims, &psa))) return nullptr;
  // Stored in reverse: the caller lists dimension 1 first, the descriptor last.
  for (UINT i = 0; i < cDims; ++i)
    psa->rgsabound[i] = rgsabound[cDims - 1 - i];
  if (FAILED(SafeArrayAllocData(psa))) {
    SafeArrayDestroyDescriptor(psa);
    return nullptr;
  }
  return psa;
}

namespace {

SAFEARRAY* CreateVector(VARTYPE vt, LONG lLbound, ULONG cElements, bool zero_data) {
  const ULONG element_size = ElementSize(vt);
  if (vt == VT_RECORD || element_size == 0) return nullptr;
  const std::uint64_t bytes = std::uint64_t{cElements} * element_size;
  if (bytes > kMaxDataBytes) return nullptr;
  SAFEARRAY* psa = AllocateDescriptor(1, bytes, zero_data);
  if (psa == nullptr) return nullptr;
  SetElementType(psa, vt);
  psa->fFeatures |= FADF_CREATEVECTOR;
  psa->cbElements = element_size;
  psa->pvData = psa + 1;
  psa->rgsabound[0].cElements = cElements;
  psa->rgsabound[0].lLbound = lLbound;
  return psa;
}

}  // namespace

SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, LONG lLbound, ULONG cElements) {
  return CreateVector(vt, lLbound, cElements, true);
}

namespace qv::platform {

SAFEARRAY* CreateByteArrayForOverwrite(ULONG count) noexcept {
  return CreateVector(VT_UI1, 0, count, false);
}

}  // namespace qv::platform

HRESULT SafeArrayDestroyData(SAFEARRAY* psa) {
  if (psa == nullptr) return E_INVALIDARG;
  if (psa->cLocks != 0) return DISP_E_ARRAYISLOCKED;
  if (psa->pvData == nullptr || (psa->fFeatures & FADF_DATADELETED) != 0) return S_OK;
  ReleaseElements(psa, 0, CellCount(psa));
  if ((psa->fFeatures & FADF_STATIC) != 0) {
    // The caller owns static data; only its contents go.
    std::memset(psa->pvData, 0, CellCount(psa) * psa->cbElements);
  } else if (DataIsEmbedded(psa)) {
    psa->fFeatures |= FADF_DATADELETED;
  } else {
    std::free(psa->pvData);
    psa->pvData = nullptr;
  }
  return S_OK;
}

HRESULT SafeArrayDestroyDescriptor(SAFEARRAY* psa) {
  if (psa == nullptr) return S_OK;
  if (psa->cLocks != 0) return DISP_E_ARRAYISLOCKED;
  if (DataIsEmbedded(psa)) ReleaseElements(psa, 0, CellCount(psa));
  std::free(AllocationOf(psa));
  return S_OK;
}

HRESULT SafeArrayDestroy(SAFEARRAY* psa) {
  if (psa == nullptr) return S_OK;
  if (psa->cLocks != 0) return DISP_E_ARRAYISLOCKED;
  SafeArrayDestroyData(psa);
  return SafeArrayDestroyDescriptor(psa);
}

UINT SafeArrayGetDim(SAFEARRAY* psa) {
  return psa != nullptr ? psa->cDims : 0;
}

UINT SafeArrayGetElemsize(SAFEARRAY* psa) {
  return psa != nullptr ? psa->cbElements : 0;
}

HRESULT SafeArrayGetLBound(SAFEARRAY* psa, UINT nDim, LONG* plLbound) {
  if (psa == nullptr || plLbound == nullptr) return E_INVALIDARG;
  if (nDim == 0 || nDim > psa->cDims) return DISP_E_BADINDEX;
  *plLbound = psa->rgsabound[psa->cDims - nDim].lLbound;
  return S_OK;
}

HRESULT SafeArrayGetUBound(SAFEARRAY* psa, UINT nDim, LONG* plUbound) {
  if (psa == nullptr || plUbound == nullptr) return E_INVALIDARG;
  if (nDim == 0 || nDim > psa->cDims) return DISP_E_BADINDEX;
  const SAFEARRAYBOUND& bound = psa->rgsabound[psa->cDims - nDim];
  // Wraps like the Windows arithmetic for the (legal) empty dimension at LONG_MIN.
  *plUbound = static_cast<LONG>(static_cast<ULONG>(bound.lLbound) + bound.cElements - 1);
  return S_OK;
}

HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt) {
  if (psa == nullptr || pvt == nullptr) return E_INVALIDARG;
  if ((psa->fFeatures & FADF_RECORD) != 0) {
    *pvt = VT_RECORD;
  } else if ((psa->fFeatures & FADF_HAVEIID) != 0) {
    *pvt = (psa->fFeatures & FADF_DISPATCH) != 0 ? VT_DISPATCH : VT_UNKNOWN;
  } else if ((psa->fFeatures & FADF_HAVEVARTYPE) != 0) {
    *pvt = HiddenVartype(psa);
  } else {
    return E_INVALIDARG;
  }
  return S_OK;
}

HRESULT SafeArrayGetIID(SAFEARRAY* psa, GUID* pguid) {
  if (psa == nullptr || pguid == nullptr || (psa->fFeatures & FADF_HAVEIID) == 0) {
    return E_INVALIDARG;
  }
  std::memcpy(pguid, AllocationOf(psa), sizeof *pguid);
  return S_OK;
}

HRESULT SafeArraySetIID(SAFEARRAY* psa, REFGUID guid) {
  if (psa == nullptr || (psa->fFeatures & FADF_HAVEIID) == 0) return E_INVALIDARG;
  std::memcpy(AllocationOf(psa), &guid, sizeof guid);
  return S_OK;
}

HRESULT SafeArrayLock(SAFEARRAY* psa) {
  if (psa == nullptr) return E_INVALIDARG;
  std::atomic_ref<ULONG> locks(psa->cLocks);
  if (locks.fetch_add(1) + 1 > kMaxLocks) {
    locks.fetch_sub(1);
    return E_UNEXPECTED;
  }
  return S_OK;
}

HRESULT SafeArrayUnlock(SAFEARRAY* psa) {
  if (psa == nullptr) return E_INVALIDARG;
  std::atomic_ref<ULONG> locks(psa->cLocks);
  ULONG current = locks.load();
  do {
    if (current == 0) return E_UNEXPECTED;
  } while (!locks.compare_exchange_weak(current, current - 1));
  return S_OK;
}

HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData) {
  if (psa == nullptr || ppvData == nullptr) return E_INVALIDARG;
  const HRESULT hr = SafeArrayLock(psa);
  *ppvData = SUCCEEDED(hr) ? psa->pvData : nullptr;
  return hr;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* psa) {
  return SafeArrayUnlock(psa);
}

HRESULT SafeArrayPtrOfIndex(SAFEARRAY* psa, LONG* rgIndices, void** ppvData) {
  if (psa == nullptr || rgIndices == nullptr || ppvData == nullptr) return E_INVALIDARG;
  if (psa->pvData == nullptr || (psa->fFeatures & FADF_DATADELETED) != 0) return E_UNEXPECTED;
  // rgIndices[0] is dimension 1, stored last and varying fastest.
  std::uint64_t cell = 0;
  std::uint64_t stride = 1;
  for (USHORT dim = 0; dim < psa->cDims; ++dim) {
    const SAFEARRAYBOUND& bound = psa->rgsabound[psa->cDims - 1 - dim];
    const std::int64_t offset = std::int64_t{rgIndices[dim]} - bound.lLbound;
    if (offset < 0 || offset >= std::int64_t{bound.cElements}) return DISP_E_BADINDEX;
    cell += static_cast<std::uint64_t>(offset) * stride;
    stride *= bound.cElements;
  }
  *ppvData = static_cast<std::byte*>(psa->pvData) + cell * psa->cbElements;
  return S_OK;
}

HRESULT SafeArrayGetElement(SAFEARRAY* psa, LONG* rgIndices, void* pv) {
  if (psa == nullptr || rgIndices == nullptr || pv == nullptr) return E_INVALIDARG;
  ScopedLock lock(psa);
  if (FAILED(lock.status())) return lock.status();
  void* element = nullptr;
  const HRESULT hr = SafeArrayPtrOfIndex(psa, rgIndices, &element);
  if (FAILED(hr)) return hr;
  if ((psa->fFeatures & FADF_VARIANT) != 0) {
    // Whatever `pv` held is not ours to clear.
    auto* out = static_cast<VARIANT*>(pv);
    VariantInit(out);
    return VariantCopy(out, static_cast<VARIANT*>(element));
  }
  if ((psa->fFeatures & FADF_BSTR) != 0) {
    BSTR source = *static_cast<BSTR*>(element);
    BSTR copy = nullptr;
    if (source != nullptr) {
      copy = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(source), SysStringByteLen(source));
      if (copy == nullptr) return E_OUTOFMEMORY;
    }
    *static_cast<BSTR*>(pv) = copy;
    return S_OK;
  }
  if ((psa->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) != 0) {
    IUnknown* item = *static_cast<IUnknown**>(element);
    if (item != nullptr) item->AddRef();
    *static_cast<IUnknown**>(pv) = item;
    return S_OK;
  }
  if ((psa->fFeatures & FADF_RECORD) != 0) return E_NOTIMPL;
  std::memcpy(pv, element, psa->cbElements);
  return S_OK;
}

HRESULT SafeArrayPutElement(SAFEARRAY* psa, LONG* rgIndices, void* pv) {
  if (psa == nullptr || rgIndices == nullptr) return E_INVALIDARG;
  ScopedLock lock(psa);
  if (FAILED(lock.status())) return lock.status();
  void* element = nullptr;
  const HRESULT hr = SafeArrayPtrOfIndex(psa, rgIndices, &element);
  if (FAILED(hr)) return hr;
  if ((psa->fFeatures & FADF_VARIANT) != 0) {
    if (pv == nullptr) return E_INVALIDARG;
    return VariantCopy(static_cast<VARIANT*>(element), static_cast<VARIANT*>(pv));
  }
  if ((psa->fFeatures & FADF_BSTR) != 0) {
    // The new string is copied before the old one goes: they may be the same string.
    auto source = static_cast<BSTR>(pv);
    BSTR copy = nullptr;
    if (source != nullptr) {
      copy = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(source), SysStringByteLen(source));
      if (copy == nullptr) return E_OUTOFMEMORY;
    }
    SysFreeString(*static_cast<BSTR*>(element));
    *static_cast<BSTR*>(element) = copy;
    return S_OK;
  }
  if ((psa->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) != 0) {
    auto* item = static_cast<IUnknown*>(pv);
    if (item != nullptr) item->AddRef();
    IUnknown* old = *static_cast<IUnknown**>(element);
    *static_cast<IUnknown**>(element) = item;
    if (old != nullptr) old->Release();
    return S_OK;
  }
  if ((psa->fFeatures & FADF_RECORD) != 0) return E_NOTIMPL;
  if (pv == nullptr) return E_INVALIDARG;
  std::memcpy(element, pv, psa->cbElements);
  return S_OK;
}

HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut) {
  if (ppsaOut == nullptr) return E_INVALIDARG;
  *ppsaOut = nullptr;
  if (psa == nullptr) return S_OK;
  if (psa->cbElements == 0) return E_INVALIDARG;
  if ((psa->fFeatures & FADF_RECORD) != 0) return E_NOTIMPL;

  SAFEARRAY* copy = nullptr;
  HRESULT hr = SafeArrayAllocDescriptor(psa->cDims, &copy);
  if (FAILED(hr)) return hr;
  // The hidden bytes carry the element IID or VARTYPE.
  std::memcpy(AllocationOf(copy), AllocationOf(psa), kHiddenBytes);
  copy->fFeatures = psa->fFeatures & ~kNotCopiedFeatures;
  copy->cbElements = psa->cbElements;
  std::memcpy(copy->rgsabound, psa->rgsabound, sizeof(SAFEARRAYBOUND) * psa->cDims);
  hr = SafeArrayAllocData(copy);
  if (SUCCEEDED(hr) && psa->pvData != nullptr && (psa->fFeatures & FADF_DATADELETED) == 0) {
    hr = CopyElements(psa, copy);
  }
  if (FAILED(hr)) {
    SafeArrayDestroy(copy);
    return hr;
  }
  *ppsaOut = copy;
  return S_OK;
}

HRESULT SafeArrayCopyData(SAFEARRAY* psaSource, SAFEARRAY* psaTarget) {
  if (psaSource == nullptr || psaTarget == nullptr || psaSource->cDims != psaTarget->cDims ||
      psaSource->cbElements != psaTarget->cbElements) {
    return E_INVALIDARG;
  }
  for (USHORT i = 0; i < psaSource->cDims; ++i) {
    if (psaSource->rgsabound[i].cElements != psaTarget->rgsabound[i].cElements) {
      return E_INVALIDARG;
    }
  }
  if (psaSource == psaTarget) return S_OK;
  if (psaTarget->pvData == nullptr || (psaTarget->fFeatures & FADF_DATADELETED) != 0) {
    return E_INVALIDARG;
  }
  const std::uint64_t cells = CellCount(psaTarget);
  ReleaseElements(psaTarget, 0, cells);
  std::memset(psaTarget->pvData, 0, cells * psaTarget->cbElements);
  if (psaSource->pvData == nullptr || (psaSource->fFeatures & FADF_DATADELETED) != 0) {
    return S_OK;
  }
  return CopyElements(psaSource, psaTarget);
}

HRESULT SafeArrayRedim(SAFEARRAY* psa, SAFEARRAYBOUND* psaboundNew) {
  if (psa == nullptr || psaboundNew == nullptr) return E_INVALIDARG;
  if ((psa->fFeatures & FADF_FIXEDSIZE) != 0 || psa->cLocks != 0) return DISP_E_ARRAYISLOCKED;

  // rgsabound[0] is the last dimension: it varies slowest, so resizing it keeps or cuts the
  // tail of the data.
  SAFEARRAYBOUND& last = psa->rgsabound[0];
  const bool has_data = psa->pvData != nullptr && (psa->fFeatures & FADF_DATADELETED) == 0;
  const std::uint64_t old_cells = has_data ? CellCount(psa) : 0;
  const ULONG old_count = last.cElements;
  last.cElements = psaboundNew->cElements;
  std::uint64_t new_cells = 0;
  const bool fits = CountCells(psa, &new_cells);
  last.cElements = old_count;
  if (!fits) return E_OUTOFMEMORY;

  if (new_cells < old_cells) {
    ReleaseElements(psa, new_cells, old_cells - new_cells);
    std::memset(static_cast<std::byte*>(psa->pvData) + new_cells * psa->cbElements, 0,
                (old_cells - new_cells) * psa->cbElements);
  } else if (new_cells > old_cells || !has_data) {
    const std::size_t new_bytes = new_cells * psa->cbElements;
    void* data = std::calloc(new_bytes != 0 ? new_bytes : 1, 1);
    if (data == nullptr) return E_OUTOFMEMORY;
    if (old_cells != 0) std::memcpy(data, psa->pvData, old_cells * psa->cbElements);
    if (has_data && !DataIsEmbedded(psa)) std::free(psa->pvData);
    psa->pvData = data;
    psa->fFeatures &= ~FADF_DATADELETED;
  }
  last = *psaboundNew;
  return S_OK;
}
