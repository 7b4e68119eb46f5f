#include "debug/variant_arguments.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

namespace qv {
namespace {

// The elements of a one-dimensional safe array, accessed for the life of the view.
class ArrayView {
 public:
  explicit ArrayView(SAFEARRAY* array) noexcept : array_(array) {
    if (array_ == nullptr || SafeArrayGetDim(array_) != 1) return;
    LONG lower = 0;
    LONG upper = -1;
    if (FAILED(SafeArrayGetLBound(array_, 1, &lower)) ||
        FAILED(SafeArrayGetUBound(array_, 1, &upper))) {
      return;
    }
    if (FAILED(SafeArrayAccessData(array_, &data_))) return;
    count_ = upper >= lower ? static_cast<size_t>(upper - lower) + 1 : 0;
    valid_ = true;
  }
  ~ArrayView() {
    if (valid_) SafeArrayUnaccessData(array_);
  }
  ArrayView(const ArrayView&) = delete;
  ArrayView& operator=(const ArrayView&) = delete;

  bool valid() const { return valid_; }
  size_t size() const { return count_; }
  template <class T>
  const T* As() const {
    return static_cast<const T*>(data_);
  }

 private:
  SAFEARRAY* array_;
  void* data_ = nullptr;
  size_t count_ = 0;
  bool valid_ = false;
};

bool IsArrayOf(const VARIANT& value, VARTYPE element) {
  return value.vt == (VT_ARRAY | element) && value.parray != nullptr;
}

// The integer a script number or typed integer holds; false for anything else (fractions and
// values out of 64-bit range included).
bool IntegerOf(const VARIANT& value, uint64_t& integer) {
  switch (value.vt) {
    case VT_I1:
      integer = static_cast<uint64_t>(static_cast<int64_t>(value.cVal));
      return true;
    case VT_UI1:
      integer = value.bVal;
      return true;
    case VT_I2:
      integer = static_cast<uint64_t>(static_cast<int64_t>(value.iVal));
      return true;
    case VT_UI2:
      integer = value.uiVal;
      return true;
    case VT_I4:
    case VT_INT:
      integer = static_cast<uint64_t>(static_cast<int64_t>(value.lVal));
      return true;
    case VT_UI4:
    case VT_UINT:
      integer = value.ulVal;
      return true;
    case VT_I8:
      integer = static_cast<uint64_t>(value.llVal);
      return true;
    case VT_UI8:
      integer = value.ullVal;
      return true;
    case VT_R8: {
      const double d = value.dblVal;
      if (!(d >= -9223372036854775808.0 && d < 18446744073709551616.0) || std::trunc(d) != d)
        return false;
      integer = d < 0 ? static_cast<uint64_t>(static_cast<int64_t>(d)) : static_cast<uint64_t>(d);
      return true;
    }
    default:
      return false;
  }
}

// Every element of a one-dimensional numeric array as a u64; E_INVALIDARG for another shape.
HRESULT NumbersOf(const VARIANT& value, U64List& numbers) {
  const VARTYPE element = static_cast<VARTYPE>(value.vt & ~VT_ARRAY);
  if ((value.vt & VT_ARRAY) == 0 || value.parray == nullptr) return E_INVALIDARG;
  ArrayView view(value.parray);
  if (!view.valid()) return E_INVALIDARG;
  numbers.resize(view.size());
  for (size_t i = 0; i < view.size(); ++i) {
    switch (element) {
      case VT_UI8:
      case VT_I8:
        numbers[i] = view.As<uint64_t>()[i];
        break;
      case VT_UI4:
        numbers[i] = view.As<uint32_t>()[i];
        break;
      case VT_I4:
        numbers[i] = static_cast<uint64_t>(static_cast<int64_t>(view.As<int32_t>()[i]));
        break;
      case VT_VARIANT:
        if (!IntegerOf(view.As<VARIANT>()[i], numbers[i])) return E_INVALIDARG;
        break;
      default:
        return E_INVALIDARG;
    }
  }
  return S_OK;
}

template <class Body>
HRESULT Converting(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (const std::length_error&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace

HRESULT BytesArgument(const VARIANT& value, bool empty_allowed, Bytes& bytes) noexcept {
  return Converting([&]() -> HRESULT {
    bytes.clear();
    if (value.vt == VT_EMPTY || value.vt == VT_NULL) return empty_allowed ? S_OK : E_INVALIDARG;
    if (IsArrayOf(value, VT_UI1) || IsArrayOf(value, VT_I1)) {
      ArrayView view(value.parray);
      if (!view.valid()) return E_INVALIDARG;
      bytes.resize(view.size());
      if (!bytes.empty()) std::memcpy(bytes.data(), view.As<uint8_t>(), bytes.size());
      return S_OK;
    }
    if (!IsArrayOf(value, VT_VARIANT)) return E_INVALIDARG;
    U64List numbers;
    if (HRESULT hr = NumbersOf(value, numbers); FAILED(hr)) return hr;
    bytes.resize(numbers.size());
    for (size_t i = 0; i < numbers.size(); ++i) {
      if (numbers[i] > 0xFF) return E_INVALIDARG;
      bytes[i] = static_cast<uint8_t>(numbers[i]);
    }
    return S_OK;
  });
}

HRESULT ByteRangeArgument(const VARIANT& value, int32_t offset, size_t limit,
                          Bytes& bytes) noexcept {
  if (offset < 0) return E_INVALIDARG;
  const auto start = static_cast<size_t>(offset);
  if (!IsArrayOf(value, VT_UI1) && !IsArrayOf(value, VT_I1)) {
    if (HRESULT hr = BytesArgument(value, false, bytes); FAILED(hr)) return hr;
    if (start > bytes.size()) return E_INVALIDARG;
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(start));
    if (bytes.size() > limit) bytes.resize(limit);
    return S_OK;
  }
  return Converting([&]() -> HRESULT {
    bytes.clear();
    ArrayView view(value.parray);
    if (!view.valid() || start > view.size()) return E_INVALIDARG;
    const size_t count = std::min(view.size() - start, limit);
    bytes.resize(count);
    if (count != 0) std::memcpy(bytes.data(), view.As<uint8_t>() + start, count);
    return S_OK;
  });
}

HRESULT ThreadIdsArgument(const VARIANT& value, U32List& ids) noexcept {
  return Converting([&]() -> HRESULT {
    ids.clear();
    if (value.vt == VT_EMPTY || value.vt == VT_NULL) return S_OK;
    if (!IsArrayOf(value, VT_UI4) || value.parray->pvData == nullptr) return E_INVALIDARG;
    ArrayView view(value.parray);
    if (!view.valid()) return E_INVALIDARG;
    ids.assign(view.As<uint32_t>(), view.As<uint32_t>() + view.size());
    return S_OK;
  });
}

HRESULT RegisterIdsArgument(const VARIANT& value, U32List& ids) noexcept {
  return Converting([&]() -> HRESULT {
    ids.clear();
    if (!IsArrayOf(value, VT_I4)) return E_INVALIDARG;
    ArrayView view(value.parray);
    if (!view.valid()) return E_INVALIDARG;
    const auto* data = view.As<int32_t>();
    ids.resize(view.size());
    for (size_t i = 0; i < view.size(); ++i)
      ids[i] = static_cast<uint32_t>(data[i]);
    return S_OK;
  });
}

HRESULT RegisterValuesArgument(const VARIANT& value, U64List& values) noexcept {
  return Converting([&]() -> HRESULT {
    values.clear();
    if (!IsArrayOf(value, VT_UI8)) return E_INVALIDARG;
    ArrayView view(value.parray);
    if (!view.valid()) return E_INVALIDARG;
    values.assign(view.As<uint64_t>(), view.As<uint64_t>() + view.size());
    return S_OK;
  });
}

HRESULT ScatteredReadArgument(const VARIANT& value, ScatteredReadRegionList& regions) noexcept {
  return Converting([&]() -> HRESULT {
    regions.clear();
    U64List numbers;
    if (HRESULT hr = NumbersOf(value, numbers); FAILED(hr)) return hr;
    if (numbers.size() % 2 != 0) return E_INVALIDARG;
    for (size_t i = 0; i < numbers.size(); i += 2) {
      if (numbers[i + 1] > std::numeric_limits<uint32_t>::max()) return E_INVALIDARG;
      regions.push_back({numbers[i], static_cast<uint32_t>(numbers[i + 1]), 0});
    }
    return S_OK;
  });
}

HRESULT ScatteredWriteArgument(const VARIANT& value, ScatteredDataList& regions) noexcept {
  return Converting([&]() -> HRESULT {
    regions.clear();
    if (!IsArrayOf(value, VT_VARIANT)) return E_INVALIDARG;
    ArrayView view(value.parray);
    if (!view.valid() || view.size() % 2 != 0) return E_INVALIDARG;
    const VARIANT* elements = view.As<VARIANT>();
    for (size_t i = 0; i < view.size(); i += 2) {
      ScatteredDataElement region;
      if (!IntegerOf(elements[i], region.BaseAddress)) return E_INVALIDARG;
      if (HRESULT hr = BytesArgument(elements[i + 1], false, region.Data); FAILED(hr)) return hr;
      regions.push_back(std::move(region));
    }
    return S_OK;
  });
}

HRESULT NetworkParamsArgument(const VARIANT& value, U32List& params) noexcept {
  return Converting([&]() -> HRESULT {
    U64List numbers;
    if (HRESULT hr = NumbersOf(value, numbers); FAILED(hr)) return hr;
    if (numbers.size() != 4) return E_INVALIDARG;
    params.clear();
    for (uint64_t number : numbers) {
      if (number > std::numeric_limits<uint32_t>::max()) return E_INVALIDARG;
      params.push_back(static_cast<uint32_t>(number));
    }
    return S_OK;
  });
}

}  // namespace qv
