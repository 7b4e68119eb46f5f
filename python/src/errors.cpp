#include "errors.h"

#include <cstdio>
#include <string_view>

#include "vekxapi/result_codes.h"
#include "vekxapi/status.h"

namespace vekx_python {
namespace {

namespace py = pybind11;

struct Row {
  HRESULT code;
  std::string_view name;
  std::u16string_view text;
};

// The library's codes and their texts, from the table they are defined in, and the standard
// codes the library returns for a caller's mistakes.
constexpr Row kRows[] = {
#define VEKX_RESULT(NAME, VALUE, TEXT) {static_cast<HRESULT>(NAME), #NAME, TEXT},
#include "vekxapi/result_codes.def"
    {E_FAIL, "E_FAIL", u""},
    {E_INVALIDARG, "E_INVALIDARG", u""},
    {E_POINTER, "E_POINTER", u""},
    {E_NOTIMPL, "E_NOTIMPL", u""},
    {E_OUTOFMEMORY, "E_OUTOFMEMORY", u""},
    {E_NOINTERFACE, "E_NOINTERFACE", u""},
    {E_UNEXPECTED, "E_UNEXPECTED", u""},
    {E_ACCESSDENIED, "E_ACCESSDENIED", u""},
    {DISP_E_TYPEMISMATCH, "DISP_E_TYPEMISMATCH", u""},
};

const Row* Find(HRESULT code) {
  for (const Row& row : kRows) {
    if (row.code == code) return &row;
  }
  return nullptr;
}

// The class a code's failure belongs to: the caller's mistakes and missing operations by code,
// the target's and the link's by the table's own wording and naming.
Kind KindOf(HRESULT code, const Row* row) {
  switch (code) {
    case E_INVALIDARG:
    case E_POINTER:
    case DISP_E_TYPEMISMATCH:
    case KXAPI_SERVER_INVALID_ARG:
      return Kind::kInvalidArgument;
    case E_NOTIMPL:
    case KXAPI_SERVER_NOT_IMPLEMENTED:
      return Kind::kNotSupported;
    case KXAPI_NO_TARGET:
    case KXAPI_SERVER_INVALID_TARGET:
      return Kind::kNotFound;
    case KXAPI_TIMEOUT:
      return Kind::kTimeout;
    default:
      break;
  }
  if (row == nullptr) return Kind::kError;
  if (row->text.starts_with(u"Target failed to reply")) return Kind::kTimeout;
  if (row->text.starts_with(u"Target error") || row->text.starts_with(u"System error"))
    return Kind::kTarget;
  // The link's own failures sit at the start of the table, before the target's.
  if (row->name.starts_with("KXAPI_SERVER_") ||
      (code >= KXAPI_NOT_CONNECTED && code <= KXAPI_INVALID_RESPONSE_TYPE))
    return Kind::kServer;
  return Kind::kError;
}

[[noreturn]] void RaiseAs(Kind kind, HRESULT code, const std::string& description) {
  const py::object make = py::module_::import("vekxapi._errors").attr("_make");
  const py::object error =
      make(static_cast<int>(kind), static_cast<uint32_t>(code), ResultName(code), description);
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
  throw py::error_already_set();
}

}  // namespace

std::string ResultName(HRESULT code) {
  if (const Row* row = Find(code)) return std::string(row->name);
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
  return text;
}

void Raise(HRESULT code, const std::string& description) {
  // The thread's error object first: anything below may call into the library.
  std::string text = description.empty() ? vekx::Status::Of(code).message() : description;
  RaiseAs(KindOf(code, Find(code)), code, text);
}

void Raise(Kind kind, HRESULT code, const std::string& description) {
  RaiseAs(kind, code, description);
}

}  // namespace vekx_python
