// The owning wrappers that users of the library hold its objects, strings and lists in.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/error_reporting.h"
#include "platform/automation.h"
#include "platform/test_support.h"
#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/result_codes.h"
#include "vekxapi/status.h"
#include "vekxapi/variant.h"

namespace vekx {
namespace {

using qv::platform::test_support::CountedObject;

TEST(ComPtr, HoldsExactlyOneReference) {
  CountedObject object;
  {
    ComPtr<IDispatch> first(&object);
    EXPECT_EQ(object.refs(), 2u);
    ComPtr<IDispatch> copy = first;
    ComPtr<IDispatch> moved = std::move(copy);
    EXPECT_EQ(object.refs(), 3u);
    EXPECT_FALSE(copy);

    ComPtr<IUnknown> unknown;
    ASSERT_EQ(first.QueryInto(IID_IUnknown, unknown), S_OK);
    EXPECT_EQ(object.refs(), 4u);
    ComPtr<IErrorInfo> absent;
    EXPECT_EQ(first.QueryInto(IID_IErrorInfo, absent), E_NOINTERFACE);
    EXPECT_FALSE(absent);

    // Put releases what was held before the out-argument is filled.
    object.AddRef();
    *unknown.Put() = &object;
    EXPECT_EQ(object.refs(), 4u);
    IDispatch* detached = moved.Detach();
    EXPECT_EQ(object.refs(), 4u);
    auto adopted = ComPtr<IDispatch>::Adopt(detached);
    EXPECT_EQ(object.refs(), 4u);
  }
  EXPECT_EQ(object.refs(), 1u);
}

TEST(Bstr, KeepsItsTextAndFreesWhatItHeld) {
  const std::u16string text(u"kit\0one \u00e9\U0001F50C", 12);
  Bstr name(text);
  EXPECT_EQ(name.View(), text);
  EXPECT_EQ(SysStringLen(name.Get()), text.size());
  Bstr copy = name;
  EXPECT_NE(copy.Get(), name.Get());
  EXPECT_EQ(copy.View(), text);

  *copy.Put() = qv::platform::AllocBstr(u"other");  // the copy's old string is freed (ASan checks)
  EXPECT_EQ(copy.Utf8(), "other");
  EXPECT_EQ(Bstr::FromUtf8("h\xC3\xA9").View(), u"h\u00e9");
  Bstr empty;
  EXPECT_TRUE(empty.IsNull());
  EXPECT_EQ(empty.View(), u"");
  BSTR owned = name.Detach();
  EXPECT_TRUE(name.IsNull());
  Bstr adopted = Bstr::Adopt(owned);
  EXPECT_EQ(adopted.View(), text);
}

// A VARIANT holding a new array of `type` with `count` elements from `lower` in each of its
// `dimensions` (one or two).
Variant MakeArray(VARTYPE type, ULONG count, LONG lower = 0, UINT dimensions = 1) {
  Variant array;
  SAFEARRAYBOUND bounds[2] = {{count, lower}, {count, lower}};
  VARIANT* slot = array.Put();
  slot->vt = static_cast<VARTYPE>(VT_ARRAY | type);
  slot->parray = SafeArrayCreate(type, dimensions, bounds);
  return array;
}

TEST(ArrayElements, CopiesEachElementAsAVariantOfItsTypeAndRefusesWhatIsNotAList) {
  CountedObject object;
  {
    Variant objects = MakeArray(VT_VARIANT, 2, 1);
    for (LONG index = 1; index <= 2; ++index) {
      VARIANT element;
      element.vt = VT_DISPATCH;
      element.pdispVal = &object;  // SafeArrayPutElement copies, taking a reference
      ASSERT_EQ(SafeArrayPutElement(objects.Get().parray, &index, &element), S_OK);
    }
    std::vector<Variant> elements;
    ASSERT_EQ(ArrayElements(objects.Get(), elements), S_OK);
    ASSERT_EQ(elements.size(), 2u);
    EXPECT_EQ(elements[1].Type(), VT_DISPATCH);
    EXPECT_EQ(elements[1].Get().pdispVal, &object);
    EXPECT_EQ(object.refs(), 5u);  // two in the array, two in the copies
  }
  EXPECT_EQ(object.refs(), 1u);

  Variant strings = MakeArray(VT_BSTR, 1);
  LONG first = 0;
  Bstr address(u"10.0.0.7");
  ASSERT_EQ(SafeArrayPutElement(strings.Get().parray, &first, address.Get()), S_OK);
  std::vector<Variant> elements;
  ASSERT_EQ(ArrayElements(strings.Get(), elements), S_OK);
  ASSERT_EQ(elements.size(), 1u);
  EXPECT_EQ(elements[0].Type(), VT_BSTR);
  EXPECT_EQ(qv::platform::BstrView(elements[0].Get().bstrVal), u"10.0.0.7");
  EXPECT_NE(elements[0].Get().bstrVal, address.Get());

  ASSERT_EQ(ArrayElements(MakeArray(VT_VARIANT, 0).Get(), elements), S_OK);
  EXPECT_TRUE(elements.empty());

  // What is not a one-dimensional list of a type it can read is refused.
  EXPECT_EQ(ArrayElements(Variant().Get(), elements), DISP_E_TYPEMISMATCH);
  EXPECT_EQ(ArrayElements(MakeArray(VT_R8, 1).Get(), elements), DISP_E_TYPEMISMATCH);
  EXPECT_EQ(ArrayElements(MakeArray(VT_VARIANT, 2, 0, 2).Get(), elements), DISP_E_TYPEMISMATCH);
}

TEST(Status, CarriesTheDescriptionTheLibraryLeft) {
  EXPECT_TRUE(Status::Of(S_FALSE).ok());
  const Status failed =
      Status::Of(qv::ReportError(KXAPI_COMMS_ERR_NO_ENTRY, u"no kit named \u00e9"));
  EXPECT_FALSE(failed.ok());
  EXPECT_EQ(failed.code(), KXAPI_COMMS_ERR_NO_ENTRY);
  EXPECT_EQ(failed.message(), "Target error - The entry does not exist. no kit named \xC3\xA9");
  // The error object was taken: a failure without one shows its code.
  EXPECT_EQ(Status::Of(E_FAIL).message(), "error 0x80004005");
}

}  // namespace
}  // namespace vekx
