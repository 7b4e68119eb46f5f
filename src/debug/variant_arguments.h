#pragma once
// The VARIANT arguments of the debug methods, turned into what their requests carry. Each returns
// S_OK or the reason the argument does not convert (E_INVALIDARG for a wrong type or shape,
// E_OUTOFMEMORY), and in that case the method sends nothing.

#include "platform/automation.h"
#include "requests/debug_records.h"
#include "requests/wire_types.h"

namespace qv {

// Bytes to write: VT_ARRAY | VT_UI1 or VT_I1, or an array of VARIANT numbers from 0 to 255 (what
// script arrays are). With `empty_allowed`, VT_EMPTY and VT_NULL are no bytes.
HRESULT BytesArgument(const VARIANT& value, bool empty_allowed, Bytes& bytes) noexcept;

// Bytes from element `offset` of what BytesArgument accepts, at most `limit` of them. A negative
// offset or one past the end is E_INVALIDARG; an offset at the end is no bytes. A byte array is
// copied only in the range taken, so a caller walking a large array pays once for each byte.
HRESULT ByteRangeArgument(const VARIANT& value, int32_t offset, size_t limit,
                          Bytes& bytes) noexcept;

// Threads to step: VT_EMPTY or VT_NULL for none, otherwise exactly a VT_ARRAY | VT_UI4 with data.
HRESULT ThreadIdsArgument(const VARIANT& value, U32List& ids) noexcept;

// Register ids: exactly a one-dimensional VT_ARRAY | VT_I4.
HRESULT RegisterIdsArgument(const VARIANT& value, U32List& ids) noexcept;
// Register values: exactly a one-dimensional VT_ARRAY | VT_UI8.
HRESULT RegisterValuesArgument(const VARIANT& value, U64List& values) noexcept;

// Regions to read: a one-dimensional array of numbers (VT_UI8, VT_I8, VT_UI4, VT_I4 or VARIANT
// elements holding integers), address and length for each region.
HRESULT ScatteredReadArgument(const VARIANT& value, ScatteredReadRegionList& regions) noexcept;
// Regions to write: a one-dimensional VT_ARRAY | VT_VARIANT, address and bytes for each region.
HRESULT ScatteredWriteArgument(const VARIANT& value, ScatteredDataList& regions) noexcept;

// Network emulation parameters: a one-dimensional array of four numbers.
HRESULT NetworkParamsArgument(const VARIANT& value, U32List& params) noexcept;

}  // namespace qv
