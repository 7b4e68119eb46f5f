#pragma once
// CKXVENameValuePair: one named value of a set that a method returns (a target's information,
// the server's summary of a host). It holds its name and value and asks the server nothing.

#include <string>

#include "api/automation_object.h"
#include "vekxapi/vekxapi.h"

namespace qv {

class CKXVENameValuePair final : public AutomationObject<CKXVENameValuePair, INameValuePair> {
 public:
  CKXVENameValuePair(std::u16string name, std::u16string value) noexcept;

  static bool IsFamily(REFIID iid);
  static const IID& DispatchIid() { return IID_INameValuePair; }

  HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE get_Value(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE get_ValueString(BSTR* value) override;

 private:
  const std::u16string name_;
  const std::u16string value_;
};

}  // namespace qv
