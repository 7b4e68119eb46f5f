#include "api/name_value_pair.h"

#include <utility>

#include "api/error_reporting.h"
#include "api/result_values.h"

namespace qv {

CKXVENameValuePair::CKXVENameValuePair(std::u16string name, std::u16string value) noexcept
    : name_(std::move(name)), value_(std::move(value)) {}

bool CKXVENameValuePair::IsFamily(REFIID iid) {
  return IsEqualIID(iid, IID_INameValuePair);
}

HRESULT CKXVENameValuePair::get_Name(BSTR* name) {
  if (name == nullptr) return ReportError(E_POINTER);
  return ReportError(OutString(name_, name));
}

// The server sends every value as text, so the VARIANT holds a string.
HRESULT CKXVENameValuePair::get_Value(VARIANT* value) {
  if (value == nullptr) return ReportError(E_POINTER);
  BSTR text = nullptr;
  if (const HRESULT hr = OutString(value_, &text); FAILED(hr)) return ReportError(hr);
  VariantInit(value);
  value->vt = VT_BSTR;
  value->bstrVal = text;
  return S_OK;
}

HRESULT CKXVENameValuePair::get_ValueString(BSTR* value) {
  if (value == nullptr) return ReportError(E_POINTER);
  return ReportError(OutString(value_, value));
}

}  // namespace qv
