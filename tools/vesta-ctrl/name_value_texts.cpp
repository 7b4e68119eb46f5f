#include "name_value_texts.h"

#include "failure.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/variant.h"

namespace vesta_ctrl {

NameValueTexts ReadNameValueTexts(const VARIANT& list) {
  std::vector<vekx::Variant> elements;
  Check(vekx::ArrayElements(list, elements));
  NameValueTexts pairs;
  for (const vekx::Variant& element : elements) {
    if (element.Type() != VT_DISPATCH || element.Get().pdispVal == nullptr) {
      Check(DISP_E_TYPEMISMATCH);
    }
    vekx::ComPtr<INameValuePair> pair;
    Check(element.Get().pdispVal->QueryInterface(IID_INameValuePair,
                                                 reinterpret_cast<void**>(pair.Put())));
    vekx::Bstr name;
    vekx::Bstr value;
    Check(pair->get_Name(name.Put()));
    Check(pair->get_ValueString(value.Put()));
    pairs.emplace_back(name.Utf8(), value.Utf8());
  }
  return pairs;
}

std::string ValueOf(const NameValueTexts& pairs, const std::string& name) {
  for (const auto& [key, value] : pairs) {
    if (key == name) return value;
  }
  return {};
}

}  // namespace vesta_ctrl
