#include "values.h"

#include "vekxapi/wide_string.h"

namespace vekx_python {
namespace {

namespace py = pybind11;

SAFEARRAY* ArrayOf(const VARIANT& value, VARTYPE a, VARTYPE b) {
  if (value.vt == VT_EMPTY || value.vt == VT_NULL) return nullptr;
  if ((value.vt != (VT_ARRAY | a) && value.vt != (VT_ARRAY | b)) || value.parray == nullptr ||
      SafeArrayGetDim(value.parray) != 1) {
    Check(DISP_E_TYPEMISMATCH);
  }
  return value.parray;
}

template <class T>
std::vector<T> ElementsOf(SAFEARRAY* array) {
  if (array == nullptr) return {};
  LONG lower = 0;
  LONG upper = -1;
  Check(SafeArrayGetLBound(array, 1, &lower));
  Check(SafeArrayGetUBound(array, 1, &upper));
  void* data = nullptr;
  Check(SafeArrayAccessData(array, &data));
  const auto* first = static_cast<const T*>(data);
  std::vector<T> elements(first, first + (upper >= lower ? upper - lower + 1 : 0));
  SafeArrayUnaccessData(array);
  return elements;
}

template <class T>
vekx::Variant ArrayOfValues(VARTYPE type, const T* values, size_t count) {
  vekx::Variant result;
  SAFEARRAY* array = SafeArrayCreateVector(type, 0, static_cast<ULONG>(count));
  if (array == nullptr) Check(E_OUTOFMEMORY);
  VARIANT* slot = result.Put();
  slot->vt = static_cast<VARTYPE>(VT_ARRAY | type);
  slot->parray = array;  // owned by `result` from here
  void* data = nullptr;
  Check(SafeArrayAccessData(array, &data));
  if (count != 0) std::memcpy(data, values, count * sizeof(T));
  SafeArrayUnaccessData(array);
  return result;
}

}  // namespace

py::object ValueOf(const VARIANT& value) {
  if ((value.vt & VT_ARRAY) != 0 && (value.vt & VT_BYREF) == 0 && value.parray != nullptr) {
    if ((value.vt & ~VT_ARRAY) == VT_UI1) {
      const std::vector<std::uint8_t> bytes = BytesOf(value);
      return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    std::vector<vekx::Variant> elements;
    if (FAILED(vekx::ArrayElements(value, elements))) return py::none();
    py::list list;
    for (const vekx::Variant& element : elements)
      list.append(ValueOf(element.Get()));
    return std::move(list);
  }
  switch (value.vt) {
    case VT_BSTR:
      return py::str(qv::platform::Utf16ToUtf8(qv::platform::BstrView(value.bstrVal)));
    case VT_BOOL:
      return py::bool_(value.boolVal != VARIANT_FALSE);
    case VT_I1:
      return py::int_(value.cVal);
    case VT_UI1:
      return py::int_(value.bVal);
    case VT_I2:
      return py::int_(value.iVal);
    case VT_UI2:
      return py::int_(value.uiVal);
    case VT_I4:
    case VT_INT:
      return py::int_(value.lVal);
    case VT_UI4:
    case VT_UINT:
      return py::int_(value.ulVal);
    case VT_I8:
      return py::int_(value.llVal);
    case VT_UI8:
      return py::int_(value.ullVal);
    default:
      return py::none();
  }
}

std::vector<std::uint8_t> BytesOf(const VARIANT& value) {
  return ElementsOf<std::uint8_t>(ArrayOf(value, VT_UI1, VT_I1));
}

std::vector<std::uint64_t> WordsOf(const VARIANT& value) {
  return ElementsOf<std::uint64_t>(ArrayOf(value, VT_UI8, VT_I8));
}

std::vector<std::uint32_t> NumbersOf(const VARIANT& value) {
  return ElementsOf<std::uint32_t>(ArrayOf(value, VT_UI4, VT_I4));
}

vekx::Variant ByteArray(const std::uint8_t* bytes, size_t count) {
  return ArrayOfValues(VT_UI1, bytes, count);
}

vekx::Variant I32Array(const std::vector<std::uint32_t>& values) {
  return ArrayOfValues(VT_I4, values.data(), values.size());
}

vekx::Variant U64Array(const std::vector<std::uint64_t>& values) {
  return ArrayOfValues(VT_UI8, values.data(), values.size());
}

vekx::Variant BstrArray(const std::vector<std::string>& texts) {
  vekx::Variant result;
  SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
  if (array == nullptr) Check(E_OUTOFMEMORY);
  VARIANT* slot = result.Put();
  slot->vt = VT_ARRAY | VT_BSTR;
  slot->parray = array;  // owned by `result` from here
  for (LONG index = 0; index < static_cast<LONG>(texts.size()); ++index) {
    const vekx::Bstr text = vekx::Bstr::FromUtf8(texts[static_cast<size_t>(index)]);
    if (text.IsNull()) Check(E_OUTOFMEMORY);
    // Stores a copy of the string.
    Check(SafeArrayPutElement(array, &index, text.Get()));
  }
  return result;
}

}  // namespace vekx_python
