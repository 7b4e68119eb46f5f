#include "values.h"

#include "vekxapi/wide_string.h"

namespace vekx_python {
namespace {

namespace py = pybind11;

}  // namespace

py::object ValueOf(const VARIANT& value) {
  if ((value.vt & VT_ARRAY) != 0 && (value.vt & VT_BYREF) == 0 && value.parray != nullptr) {
    if ((value.vt & ~VT_ARRAY) == VT_UI1) {
      const std::vector<std::uint8_t> bytes = Library::Values<std::uint8_t>(value);
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

}  // namespace vekx_python
