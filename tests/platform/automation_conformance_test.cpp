// BSTR, VARIANT, SAFEARRAY and per-thread error information behaviour that the library relies
// on. The same tests run against
// real OLE Automation (the Windows build, under Wine) and against our POSIX implementation;
// where the two are allowed to differ the test says so.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/automation.h"
#include "platform/wide_string.h"
#include "test_support.h"
#include "vekxapi/com_ptr.h"

namespace qv::platform {
namespace {

using test_support::CountedErrorInfo;
using test_support::CountedObject;
using test_support::MakeBstr;
using test_support::MutableOle;
using test_support::ScopedVariant;
using test_support::UniqueBstr;
using test_support::UniqueSafeArray;
using vekx::ComPtr;

std::ptrdiff_t OffsetIn(const void* base, const void* field) {
  return static_cast<const char*>(field) - static_cast<const char*>(base);
}

// ---------------------------------------------------------------------------------------------
// Layouts and constants. Under Wine these tables are checked against the Windows headers, on
// Linux against ours.

TEST(AutomationLayout, VariantAndSafeArrayAreTheWindowsX64Layout) {
  static_assert(sizeof(VARIANT) == 24);
  static_assert(sizeof(DECIMAL) == 16);
  static_assert(sizeof(CY) == 8);
  VARIANT v{};
  EXPECT_EQ(OffsetIn(&v, &V_VT(&v)), 0);
  EXPECT_EQ(OffsetIn(&v, &V_I4(&v)), 8);
  EXPECT_EQ(OffsetIn(&v, &V_I8(&v)), 8);
  EXPECT_EQ(OffsetIn(&v, &V_BSTR(&v)), 8);
  EXPECT_EQ(OffsetIn(&v, &V_UNKNOWN(&v)), 8);
  EXPECT_EQ(OffsetIn(&v, &V_RECORDINFO(&v)), 16);
  EXPECT_EQ(OffsetIn(&v, &V_DECIMAL(&v)), 0);
  static_assert(sizeof(SAFEARRAYBOUND) == 8);
  static_assert(sizeof(SAFEARRAY) == 32);
  EXPECT_EQ(offsetof(SAFEARRAY, cbElements), 4u);
  EXPECT_EQ(offsetof(SAFEARRAY, cLocks), 8u);
  EXPECT_EQ(offsetof(SAFEARRAY, pvData), 16u);
  EXPECT_EQ(offsetof(SAFEARRAY, rgsabound), 24u);
}

std::string FormatGuid(const GUID& g) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return text;
}

TEST(AutomationLayout, InterfaceIdsHaveTheirWindowsValues) {
  const struct {
    const IID* iid;
    const char* text;
  } kCases[] = {
      {&IID_NULL, "00000000-0000-0000-0000-000000000000"},
      {&GUID_NULL, "00000000-0000-0000-0000-000000000000"},
      {&IID_IUnknown, "00000000-0000-0000-C000-000000000046"},
      {&IID_IClassFactory, "00000001-0000-0000-C000-000000000046"},
      {&IID_IDispatch, "00020400-0000-0000-C000-000000000046"},
      {&IID_ITypeInfo, "00020401-0000-0000-C000-000000000046"},
      {&IID_IEnumVARIANT, "00020404-0000-0000-C000-000000000046"},
      {&IID_IRecordInfo, "0000002F-0000-0000-C000-000000000046"},
      {&IID_IErrorInfo, "1CF2B120-547D-101B-8E65-08002B2BD119"},
      {&IID_ICreateErrorInfo, "22F03340-547D-101B-8E65-08002B2BD119"},
      {&IID_ISupportErrorInfo, "DF0B3D60-548F-101B-8E65-08002B2BD119"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(FormatGuid(*c.iid), c.text);
  EXPECT_FALSE(IsEqualGUID(IID_IUnknown, IID_IDispatch));
  EXPECT_TRUE(IsEqualGUID(IID_NULL, GUID_NULL));
}

TEST(AutomationLayout, ResultCodesHaveTheirWindowsValues) {
  const struct {
    HRESULT code;
    std::uint32_t value;
  } kCases[] = {
      {S_FALSE, 0x00000001},
      {E_UNEXPECTED, 0x8000FFFF},
      {E_NOTIMPL, 0x80004001},
      {E_NOINTERFACE, 0x80004002},
      {E_POINTER, 0x80004003},
      {E_ABORT, 0x80004004},
      {E_FAIL, 0x80004005},
      {E_ACCESSDENIED, 0x80070005},
      {E_HANDLE, 0x80070006},
      {E_OUTOFMEMORY, 0x8007000E},
      {E_INVALIDARG, 0x80070057},
      {DISP_E_MEMBERNOTFOUND, 0x80020003},
      {DISP_E_PARAMNOTFOUND, 0x80020004},
      {DISP_E_TYPEMISMATCH, 0x80020005},
      {DISP_E_UNKNOWNNAME, 0x80020006},
      {DISP_E_BADVARTYPE, 0x80020008},
      {DISP_E_EXCEPTION, 0x80020009},
      {DISP_E_OVERFLOW, 0x8002000A},
      {DISP_E_BADINDEX, 0x8002000B},
      {DISP_E_ARRAYISLOCKED, 0x8002000D},
      {DISP_E_BADPARAMCOUNT, 0x8002000E},
      {CLASS_E_NOAGGREGATION, 0x80040110},
      {CLASS_E_CLASSNOTAVAILABLE, 0x80040111},
      {TYPE_E_ELEMENTNOTFOUND, 0x8002802B},
      {HRESULT_FROM_WIN32(ERROR_BROKEN_PIPE), 0x8007006D},
      {HRESULT_FROM_WIN32(ERROR_PIPE_NOT_CONNECTED), 0x800700E9},
      {MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0201), 0x80040201},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(static_cast<std::uint32_t>(c.code), c.value);
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_SUCCESS), S_OK);
  EXPECT_EQ(HRESULT_CODE(E_INVALIDARG), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(HRESULT_FACILITY(E_INVALIDARG), FACILITY_WIN32);
  EXPECT_EQ(HRESULT_SEVERITY(E_INVALIDARG), SEVERITY_ERROR);
  EXPECT_TRUE(SUCCEEDED(S_FALSE));
  EXPECT_TRUE(FAILED(E_FAIL));
}

// ---------------------------------------------------------------------------------------------
// BSTR.

std::uint32_t PrefixOf(BSTR bstr) {
  std::uint32_t prefix;
  std::memcpy(&prefix, reinterpret_cast<const char*>(bstr) - 4, sizeof prefix);
  return prefix;
}

TEST(Bstr, LengthIsThePrefixNotAScan) {
  const std::u16string kCases[] = {
      std::u16string(),
      std::u16string(u"a"),
      std::u16string(u"a\0b", 3),
      std::u16string(u"\0\0\0", 3),
      std::u16string(u"trailing zero\0", 14),
      std::u16string(300, u'x'),
  };
  for (const std::u16string& text : kCases) {
    SCOPED_TRACE(::testing::PrintToString(text.size()));
    UniqueBstr b(SysAllocStringLen(ToOleChars(text.data()), static_cast<UINT>(text.size())));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(SysStringLen(b.get()), text.size());
    EXPECT_EQ(SysStringByteLen(b.get()), 2 * text.size());
    EXPECT_EQ(PrefixOf(b.get()), 2 * text.size());
    EXPECT_EQ(b.get()[text.size()], 0) << "terminator";
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.get()) % 8, 0u);
    EXPECT_EQ(BstrView(b.get()), text);
  }
}

TEST(Bstr, NullSourcesAndStringsAndOddByteLengths) {
  UniqueBstr b(SysAllocStringByteLen("abc", 3));
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringByteLen(b.get()), 3u);
  EXPECT_EQ(SysStringLen(b.get()), 1u);
  EXPECT_EQ(PrefixOf(b.get()), 3u);
  const char* bytes = reinterpret_cast<const char*>(b.get());
  EXPECT_EQ(std::string(bytes, 3), "abc");
  EXPECT_EQ(bytes[3], 0);
  EXPECT_EQ(bytes[4], 0);

  // A null source gives a buffer of the requested length.
  UniqueBstr buffer(SysAllocStringLen(nullptr, 5));
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(SysStringLen(buffer.get()), 5u);
  EXPECT_EQ(buffer.get()[5], 0);
#ifndef _WIN32
  // Our guarantee, not OLE's: Windows leaves the characters uninitialised.
  EXPECT_EQ(BstrView(buffer.get()), std::u16string(5, u'\0'));
#endif

  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  EXPECT_EQ(SysStringByteLen(nullptr), 0u);
  EXPECT_TRUE(BstrView(nullptr).empty());
  SysFreeString(nullptr);
  UniqueBstr empty(SysAllocStringLen(nullptr, 0));
  ASSERT_NE(empty, nullptr) << "an empty string is not a null string";
  EXPECT_EQ(SysStringLen(empty.get()), 0u);
  EXPECT_NE(MakeBstr(u""), nullptr);

  // SysAllocString stops at the first zero.
  EXPECT_EQ(BstrView(UniqueBstr(SysAllocString(ToOleChars(u"ab\0cd"))).get()), u"ab");
}

TEST(Bstr, ReallocMayReadFromTheStringItReplaces) {
  BSTR b = AllocBstr(u"hello world");
  ASSERT_NE(b, nullptr);
  ASSERT_TRUE(SysReAllocStringLen(&b, b + 6, 5));
  EXPECT_EQ(BstrView(b), u"world");
  ASSERT_TRUE(SysReAllocString(&b, ToOleChars(u"another, longer string")));
  EXPECT_EQ(BstrView(b), u"another, longer string");
  SysFreeString(b);
}

// ---------------------------------------------------------------------------------------------
// VARIANT.

using Range = std::pair<LONG, LONG>;

// The lower and upper bound of dimension `dim`.
Range Bounds(SAFEARRAY* array, UINT dim) {
  Range bounds = {-999, -999};
  EXPECT_EQ(SafeArrayGetLBound(array, dim, &bounds.first), S_OK);
  EXPECT_EQ(SafeArrayGetUBound(array, dim, &bounds.second), S_OK);
  return bounds;
}

SAFEARRAY* VectorHolding(VARTYPE vt, CountedObject* object) {
  SAFEARRAY* array = SafeArrayCreateVector(vt, 0, 1);
  LONG index = 0;
  if (vt == VT_VARIANT) {
    VARIANT item;
    V_VT(&item) = VT_DISPATCH;
    V_DISPATCH(&item) = object;
    SafeArrayPutElement(array, &index, &item);  // Copies: AddRef.
  } else {
    SafeArrayPutElement(array, &index, static_cast<IDispatch*>(object));
  }
  return array;
}

// VariantClear (and through it SafeArrayDestroy, per element type) releases what the variant
// owns; a reference through VT_BYREF is borrowed. Each way of holding adds one reference.
TEST(Variant, ClearReleasesWhatItOwnsAndNothingElse) {
  const struct {
    VARTYPE vt;
    ULONG refs_after_clear;  // CountedObject starts at 1.
  } kCases[] = {{VT_UNKNOWN, 1},
                {VT_DISPATCH, 1},
                {VT_UNKNOWN | VT_BYREF, 2},
                {VT_ARRAY | VT_UNKNOWN, 1},
                {VT_ARRAY | VT_DISPATCH, 1},
                {VT_ARRAY | VT_VARIANT, 1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.vt);
    CountedObject object;
    IUnknown* slot = nullptr;  // Owns the reference a VT_BYREF variant borrows.
    VARIANT v;
    V_VT(&v) = c.vt;
    if ((c.vt & VT_ARRAY) != 0) {
      V_ARRAY(&v) = VectorHolding(static_cast<VARTYPE>(c.vt & VT_TYPEMASK), &object);
    } else {
      object.AddRef();
      slot = &object;
      V_UNKNOWN(&v) = slot;  // Where VT_DISPATCH keeps the same pointer.
      if ((c.vt & VT_BYREF) != 0) V_UNKNOWNREF(&v) = &slot;
    }
    ASSERT_EQ(object.refs(), 2u);
    EXPECT_EQ(VariantClear(&v), S_OK);
    EXPECT_EQ(V_VT(&v), VT_EMPTY);
    EXPECT_EQ(object.refs(), c.refs_after_clear);
  }
}

TEST(Variant, ClearRejectsTypesAVariantCannotHold) {
  const VARTYPE kCases[] = {
      15, VT_VOID, VT_HRESULT, VT_VECTOR | VT_I4, VT_BYREF | VT_EMPTY, VT_ARRAY | VT_NULL};
  for (VARTYPE vt : kCases) {
    SCOPED_TRACE(vt);
    VARIANT v;
    V_VT(&v) = vt;
    EXPECT_EQ(VariantClear(&v), DISP_E_BADVARTYPE);
    EXPECT_EQ(V_VT(&v), vt) << "left untouched";
  }
}

TEST(Variant, CopyDuplicatesStringsWithTheirZerosAndArraysElementByElement) {
  const std::u16string text(u"a\0b", 3);
  ScopedVariant source;
  V_VT(&source) = VT_BSTR;
  V_BSTR(&source) = AllocBstr(text);
  ScopedVariant copy;
  ASSERT_EQ(VariantCopy(&copy, &source), S_OK);
  EXPECT_EQ(V_VT(&copy), VT_BSTR);
  EXPECT_NE(V_BSTR(&copy), V_BSTR(&source));
  EXPECT_EQ(BstrView(V_BSTR(&copy)), text);

  // An array keeps its bounds, and an element that holds no string stays without one.
  SAFEARRAYBOUND bound = {2, 5};
  SAFEARRAY* array = SafeArrayCreate(VT_BSTR, 1, &bound);
  LONG index = 6;
  ASSERT_EQ(SafeArrayPutElement(array, &index, V_BSTR(&source)), S_OK);
  VariantClear(&source);
  V_VT(&source) = VT_ARRAY | VT_BSTR;
  V_ARRAY(&source) = array;
  ASSERT_EQ(VariantCopy(&copy, &source), S_OK);
  ASSERT_EQ(V_VT(&copy), VT_ARRAY | VT_BSTR);
  ASSERT_NE(V_ARRAY(&copy), array);
  EXPECT_EQ(Bounds(V_ARRAY(&copy), 1), Range(5, 6));
  BSTR* copy_items = static_cast<BSTR*>(V_ARRAY(&copy)->pvData);
  EXPECT_EQ(copy_items[0], nullptr);
  EXPECT_NE(copy_items[1], static_cast<BSTR*>(array->pvData)[1]);
  EXPECT_EQ(BstrView(copy_items[1]), text);
}

TEST(Variant, CopyAddRefsInterfacesAndReleasesTheOldDestination) {
  CountedObject kept;
  CountedObject replaced;
  ScopedVariant source;
  kept.AddRef();
  V_VT(&source) = VT_DISPATCH;
  V_DISPATCH(&source) = &kept;
  ScopedVariant dest;
  replaced.AddRef();
  V_VT(&dest) = VT_UNKNOWN;
  V_UNKNOWN(&dest) = &replaced;

  ASSERT_EQ(VariantCopy(&dest, &source), S_OK);
  EXPECT_EQ(V_DISPATCH(&dest), &kept);
  EXPECT_EQ(kept.refs(), 3u);
  EXPECT_EQ(replaced.refs(), 1u);
  VariantClear(&dest);
  VariantClear(&source);
  EXPECT_EQ(kept.refs(), 1u);
}

TEST(Variant, CopyKeepsReferencesAndCopyIndFollowsThem) {
  LONG number = 42;
  BSTR text = AllocBstr(u"referenced");
  const struct {
    VARTYPE vt;
    void* target;
  } kCases[] = {{VT_I4 | VT_BYREF, &number}, {VT_BSTR | VT_BYREF, &text}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.vt);
    VARIANT source;
    V_VT(&source) = c.vt;
    V_BYREF(&source) = c.target;

    ScopedVariant shallow;
    ASSERT_EQ(VariantCopy(&shallow, &source), S_OK);
    EXPECT_EQ(V_VT(&shallow), c.vt);
    EXPECT_EQ(V_BYREF(&shallow), c.target);

    ScopedVariant deep;
    ASSERT_EQ(VariantCopyInd(&deep, &source), S_OK);
    EXPECT_EQ(V_VT(&deep), c.vt & ~VT_BYREF);
    if (V_VT(&deep) == VT_I4) {
      EXPECT_EQ(V_I4(&deep), 42);
    }
    if (V_VT(&deep) == VT_BSTR) {
      EXPECT_NE(V_BSTR(&deep), text);
      EXPECT_EQ(BstrView(V_BSTR(&deep)), u"referenced");
    }
  }
  SysFreeString(text);
}

// A value to convert: an integer (or boolean) of type `vt`, a real, or text.
struct Source {
  VARTYPE vt;
  std::int64_t integer = 0;
  double real = 0;
  const char16_t* text = nullptr;
};

Source Text(const char16_t* text) {
  return {.vt = VT_BSTR, .text = text};
}
Source Real(VARTYPE vt, double real) {
  return {.vt = vt, .real = real};
}

// The width in bytes of an integer (or boolean) type; 0 for any other type.
std::size_t IntegerWidth(VARTYPE vt) {
  constexpr std::pair<VARTYPE, std::size_t> kWidths[] = {
      {VT_I1, 1},  {VT_UI1, 1}, {VT_I2, 2},   {VT_UI2, 2},   {VT_BOOL, 2}, {VT_I4, 4},
      {VT_UI4, 4}, {VT_INT, 4}, {VT_UINT, 4}, {VT_ERROR, 4}, {VT_I8, 8},   {VT_UI8, 8}};
  for (const auto& [type, width] : kWidths) {
    if (type == vt) return width;
  }
  return 0;
}

// Integers go into the value at their own width, the low bytes first as the layout has them.
void Fill(const Source& source, VARIANT* v) {
  V_VT(v) = source.vt;
  if (const std::size_t width = IntegerWidth(source.vt)) {
    std::memcpy(&V_UI8(v), &source.integer, width);
  } else if (source.vt == VT_R4) {
    V_R4(v) = static_cast<float>(source.real);
  } else if (source.vt == VT_R8) {
    V_R8(v) = source.real;
  } else if (source.vt == VT_BSTR) {
    V_BSTR(v) = AllocBstr(source.text);
  }
}

// One conversion, and what it gives: text for VT_BSTR, `real` for VT_R8, otherwise `integer`.
struct ChangeCase {
  const char* name;
  Source from;
  VARTYPE to;
  USHORT flags;
  HRESULT hr;
  const char16_t* text = nullptr;
  std::int64_t integer = 0;
  double real = 0;
};

TEST(Variant, ChangeTypeBetweenIntegersBooleansAndText) {
  constexpr std::int64_t kTrue = VARIANT_TRUE;
  const ChangeCase kCases[] = {
      // Numbers to text: decimal, with the full 64-bit range.
      {"i4 to text", {VT_I4, -7}, VT_BSTR, 0, S_OK, u"-7"},
      {"ui8 max to text", {VT_UI8, -1}, VT_BSTR, 0, S_OK, u"18446744073709551615"},
      {"i8 min to text", {VT_I8, INT64_MIN}, VT_BSTR, 0, S_OK, u"-9223372036854775808"},
      {"ui1 to text", {VT_UI1, 200}, VT_BSTR, 0, S_OK, u"200"},
      {"empty to text", {VT_EMPTY}, VT_BSTR, 0, S_OK, u""},
      // Reals: 15 significant digits (7 for VT_R4), exponent in capitals.
      {"r8 to text", Real(VT_R8, 1.5), VT_BSTR, 0, S_OK, u"1.5"},
      {"r8 exponent", Real(VT_R8, 1e20), VT_BSTR, 0, S_OK, u"1E+20"},
      {"r8 digits", Real(VT_R8, 1.0 / 3), VT_BSTR, 0, S_OK, u"0.333333333333333"},
      {"r4 digits", Real(VT_R4, 0.1), VT_BSTR, 0, S_OK, u"0.1"},
      // Booleans: -1 and 0 as numbers, words only when asked for.
      {"true to text", {VT_BOOL, kTrue}, VT_BSTR, 0, S_OK, u"-1"},
      {"false to text", {VT_BOOL, 0}, VT_BSTR, 0, S_OK, u"0"},
      {"true to words", {VT_BOOL, kTrue}, VT_BSTR, VARIANT_ALPHABOOL, S_OK, u"True"},
      {"true to i4", {VT_BOOL, kTrue}, VT_I4, 0, S_OK, nullptr, -1},
      {"true to ui1", {VT_BOOL, kTrue}, VT_UI1, 0, S_OK, nullptr, 255},
      {"nonzero to bool", {VT_I4, 5}, VT_BOOL, 0, S_OK, nullptr, kTrue},
      {"zero to bool", {VT_I4, 0}, VT_BOOL, 0, S_OK, nullptr, 0},
      {"text word to bool", Text(u"True"), VT_BOOL, 0, S_OK, nullptr, kTrue},
      {"text word to i4", Text(u"True"), VT_I4, 0, DISP_E_TYPEMISMATCH},
      // Integers of another width: range checked.
      {"i4 to ui1", {VT_I4, 255}, VT_UI1, 0, S_OK, nullptr, 255},
      {"i4 to ui1 overflow", {VT_I4, 256}, VT_UI1, 0, DISP_E_OVERFLOW},
      {"i4 to i2 overflow", {VT_I4, 40000}, VT_I2, 0, DISP_E_OVERFLOW},
      {"i4 to i1", {VT_I4, -128}, VT_I1, 0, S_OK, nullptr, -128},
      {"i4 -1 to ui2", {VT_I4, -1}, VT_UI2, 0, DISP_E_OVERFLOW},
      {"i2 -1 to ui4", {VT_I2, -1}, VT_UI4, 0, DISP_E_OVERFLOW},
      // One width, other signedness: the bits carry over unchecked.
      {"i4 -1 to ui4", {VT_I4, -1}, VT_UI4, 0, S_OK, nullptr, 0xFFFFFFFF},
      {"i4 -1 to uint", {VT_I4, -1}, VT_UINT, 0, S_OK, nullptr, 0xFFFFFFFF},
      {"ui1 255 to i1", {VT_UI1, 255}, VT_I1, 0, S_OK, nullptr, -1},
      {"ui8 max to i8", {VT_UI8, -1}, VT_I8, 0, S_OK, nullptr, -1},
      // Text to numbers.
      {"text", Text(u" 123 "), VT_I4, 0, S_OK, nullptr, 123},
      {"text i8 min", Text(u"-9223372036854775808"), VT_I8, 0, S_OK, nullptr, INT64_MIN},
      {"text ui8 max", Text(u"18446744073709551615"), VT_UI8, 0, S_OK, nullptr, -1},
      {"text overflow", Text(u"70000"), VT_I2, 0, DISP_E_OVERFLOW},
      {"text too big", Text(u"99999999999999999999"), VT_I8, 0, DISP_E_OVERFLOW},
      {"text thousands", Text(u"1,000"), VT_I4, 0, S_OK, nullptr, 1000},
      {"text exponent", Text(u"1.5e1"), VT_I4, 0, S_OK, nullptr, 15},
      {"text half to even", Text(u"2.5"), VT_I4, 0, S_OK, nullptr, 2},
      {"text half up to even", Text(u"3.5"), VT_I4, 0, S_OK, nullptr, 4},
      {"text leading point", Text(u".5"), VT_I4, 0, S_OK, nullptr, 0},
      {"text trailing point", Text(u"5."), VT_I4, 0, S_OK, nullptr, 5},
      {"text to r8", Text(u"-0.25"), VT_R8, 0, S_OK, nullptr, 0, -0.25},
      {"not a number", Text(u"12abc"), VT_I4, 0, DISP_E_TYPEMISMATCH},
      {"two numbers", Text(u"1 2"), VT_I4, 0, DISP_E_TYPEMISMATCH},
      {"empty text", Text(u""), VT_I4, 0, DISP_E_TYPEMISMATCH},
      // Reals to integers: half to even, range checked after rounding.
      {"real half to even", Real(VT_R8, -2.5), VT_I4, 0, S_OK, nullptr, -2},
      {"real below zero", Real(VT_R8, -0.6), VT_UI4, 0, DISP_E_OVERFLOW},
      // Empty, null and errors.
      {"empty to i4", {VT_EMPTY}, VT_I4, 0, S_OK, nullptr, 0},
      {"null to i4", {VT_NULL}, VT_I4, 0, DISP_E_TYPEMISMATCH},
      {"null to empty", {VT_NULL}, VT_EMPTY, 0, DISP_E_TYPEMISMATCH},
      {"i4 to null", {VT_I4, 3}, VT_NULL, 0, S_OK},
      {"error to i4", {VT_ERROR, E_FAIL}, VT_I4, 0, DISP_E_TYPEMISMATCH},
  };
  for (const ChangeCase& c : kCases) {
    // Into another variant, and in place, where the result replaces the source.
    for (const bool in_place : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (in_place ? ", in place" : ""));
      ScopedVariant source;
      Fill(c.from, &source);
      ScopedVariant other;
      VARIANT& result = in_place ? source : other;
      const HRESULT hr = VariantChangeType(&result, &source, c.flags, c.to);
      EXPECT_EQ(hr, c.hr);
      if (FAILED(hr) || FAILED(c.hr)) {
        if (!in_place) {
          EXPECT_EQ(V_VT(&result), VT_EMPTY) << "a failed conversion leaves the destination";
        }
        continue;
      }
      ASSERT_EQ(V_VT(&result), c.to);
      if (c.to == VT_BSTR) {
        EXPECT_EQ(BstrView(V_BSTR(&result)), c.text);
      } else if (c.to == VT_R8) {
        EXPECT_EQ(V_R8(&result), c.real);
      } else if (const std::size_t width = IntegerWidth(c.to)) {
        // The result's bytes at its width, against the expected value's low bytes.
        std::uint64_t got = 0;
        std::uint64_t expected = 0;
        std::memcpy(&got, &V_UI8(&result), width);
        std::memcpy(&expected, &c.integer, width);
        EXPECT_EQ(got, expected);
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// SAFEARRAY.

struct ElementCase {
  VARTYPE vt;
  UINT size;
  USHORT features;
};

// Element sizes and the features SafeArrayCreate records, per element type: plain values record
// only their type; strings, variants and interfaces also how an element is freed.
TEST(SafeArray, ElementTypesAreRecordedAsWindowsRecordsThem) {
  std::vector<ElementCase> cases = {{VT_BSTR, 8, FADF_HAVEVARTYPE | FADF_BSTR},
                                    {VT_VARIANT, 24, FADF_HAVEVARTYPE | FADF_VARIANT},
                                    {VT_UNKNOWN, 8, FADF_HAVEIID | FADF_UNKNOWN},
                                    {VT_DISPATCH, 8, FADF_HAVEIID | FADF_DISPATCH}};
  const std::pair<UINT, std::vector<VARTYPE>> kValueSizes[] = {
      {1, {VT_UI1, VT_I1}},
      {2, {VT_I2, VT_UI2, VT_BOOL}},
      {4, {VT_I4, VT_UI4, VT_INT, VT_UINT, VT_R4, VT_ERROR}},
      {8, {VT_I8, VT_UI8, VT_R8, VT_DATE, VT_CY}},
      {16, {VT_DECIMAL}}};
  for (const auto& [size, types] : kValueSizes) {
    for (VARTYPE vt : types)
      cases.push_back({vt, size, FADF_HAVEVARTYPE});
  }
  for (const ElementCase& c : cases) {
    SCOPED_TRACE(c.vt);
    SAFEARRAYBOUND bound = {3, -2};
    UniqueSafeArray array(SafeArrayCreate(c.vt, 1, &bound));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(SafeArrayGetDim(array.get()), 1u);
    EXPECT_EQ(SafeArrayGetElemsize(array.get()), c.size);
    EXPECT_EQ(array->fFeatures, c.features);
    VARTYPE vt = VT_EMPTY;
    ASSERT_EQ(SafeArrayGetVartype(array.get(), &vt), S_OK);
    EXPECT_EQ(vt, c.vt);
    if ((c.features & FADF_HAVEVARTYPE) != 0) {
      // Stored in the four bytes in front of the descriptor.
      std::uint32_t hidden;
      std::memcpy(&hidden, reinterpret_cast<const char*>(array.get()) - 4, sizeof hidden);
      EXPECT_EQ(hidden, c.vt);
    } else {
      GUID iid;
      ASSERT_EQ(SafeArrayGetIID(array.get(), &iid), S_OK);
      EXPECT_TRUE(IsEqualGUID(iid, c.vt == VT_UNKNOWN ? IID_IUnknown : IID_IDispatch));
    }

    UniqueSafeArray vector(SafeArrayCreateVector(c.vt, 0, 2));
    ASSERT_NE(vector, nullptr);
    EXPECT_EQ(SafeArrayGetElemsize(vector.get()), c.size);
    ASSERT_EQ(SafeArrayGetVartype(vector.get(), &vt), S_OK);
    EXPECT_EQ(vt, c.vt);
  }
}

TEST(SafeArray, RefusesWhatItCannotHold) {
  SAFEARRAYBOUND bound = {1, 0};
  const VARTYPE kTypes[] = {VT_EMPTY, VT_NULL, 15, VT_VOID, VT_RECORD};
  for (VARTYPE vt : kTypes) {
    SCOPED_TRACE(vt);
    EXPECT_EQ(SafeArrayCreate(vt, 1, &bound), nullptr);
    EXPECT_EQ(SafeArrayCreateVector(vt, 0, 1), nullptr);
  }
  EXPECT_EQ(SafeArrayCreate(VT_I4, 0, &bound), nullptr);
  EXPECT_EQ(SafeArrayCreate(VT_I4, 1, nullptr), nullptr);
  EXPECT_EQ(SafeArrayDestroy(nullptr), S_OK);
}

TEST(SafeArray, BoundsHonourTheLowerBoundAndTheFirstDimensionVariesFastest) {
  SAFEARRAYBOUND bound = {3, -2};
  UniqueSafeArray array(SafeArrayCreate(VT_I4, 1, &bound));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(Bounds(array.get(), 1), Range(-2, 0));
  LONG lower = 0;
  LONG upper = 0;
  EXPECT_EQ(SafeArrayGetLBound(array.get(), 0, &lower), DISP_E_BADINDEX);
  EXPECT_EQ(SafeArrayGetUBound(array.get(), 2, &upper), DISP_E_BADINDEX);

  const struct {
    LONG index;
    HRESULT hr;
  } kIndexes[] = {{-3, DISP_E_BADINDEX}, {-2, S_OK}, {-1, S_OK}, {0, S_OK}, {1, DISP_E_BADINDEX}};
  for (const auto& c : kIndexes) {
    SCOPED_TRACE(c.index);
    LONG index = c.index;
    LONG value = 100 + c.index;
    EXPECT_EQ(SafeArrayPutElement(array.get(), &index, &value), c.hr);
    LONG read = 0;
    EXPECT_EQ(SafeArrayGetElement(array.get(), &index, &read), c.hr);
    if (SUCCEEDED(c.hr)) {
      EXPECT_EQ(read, value);
      EXPECT_EQ(static_cast<LONG*>(array->pvData)[c.index + 2], value) << "cell index - lbound";
    }
  }

  // Two dimensions: the first varies fastest.
  SAFEARRAYBOUND bounds[2] = {{2, 1}, {3, 0}};  // Dimension 1: 1..2, dimension 2: 0..2.
  UniqueSafeArray square(SafeArrayCreate(VT_I4, 2, bounds));
  ASSERT_NE(square, nullptr);
  EXPECT_EQ(Bounds(square.get(), 1), Range(1, 2));
  EXPECT_EQ(Bounds(square.get(), 2), Range(0, 2));
  LONG at[2] = {2, 2};
  LONG value = 77;
  ASSERT_EQ(SafeArrayPutElement(square.get(), at, &value), S_OK);
  EXPECT_EQ(static_cast<LONG*>(square->pvData)[(2 - 1) + 2 * 2], 77);
  LONG outside[2] = {1, 3};
  EXPECT_EQ(SafeArrayPutElement(square.get(), outside, &value), DISP_E_BADINDEX);
}

TEST(SafeArray, StringAndInterfaceElementsAreCopiedInAndOut) {
  UniqueSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, 1));
  LONG index = 0;
  const std::u16string text(u"x\0y", 3);
  {
    UniqueBstr source = MakeBstr(text);
    ASSERT_EQ(SafeArrayPutElement(array.get(), &index, source.get()), S_OK);
    EXPECT_NE(static_cast<BSTR*>(array->pvData)[0], source.get());
  }
  BSTR out = nullptr;
  ASSERT_EQ(SafeArrayGetElement(array.get(), &index, &out), S_OK);
  EXPECT_NE(out, static_cast<BSTR*>(array->pvData)[0]);
  EXPECT_EQ(BstrView(out), text);
  SysFreeString(out);

  // Interfaces are counted the same way.
  CountedObject object;
  UniqueSafeArray objects(SafeArrayCreateVector(VT_UNKNOWN, 0, 1));
  ASSERT_EQ(SafeArrayPutElement(objects.get(), &index, static_cast<IUnknown*>(&object)), S_OK);
  EXPECT_EQ(object.refs(), 2u);
  IUnknown* item = nullptr;
  ASSERT_EQ(SafeArrayGetElement(objects.get(), &index, &item), S_OK);
  EXPECT_EQ(item, static_cast<IUnknown*>(&object));
  EXPECT_EQ(object.refs(), 3u);
  item->Release();
  ASSERT_EQ(SafeArrayPutElement(objects.get(), &index, nullptr), S_OK);
  EXPECT_EQ(object.refs(), 1u) << "the replaced element is released";
}

TEST(SafeArray, LockedArraysCannotBeDestroyedOrResized) {
  CountedObject object;
  SAFEARRAY* array = VectorHolding(VT_UNKNOWN, &object);
  ASSERT_EQ(SafeArrayLock(array), S_OK);
  EXPECT_EQ(SafeArrayDestroy(array), DISP_E_ARRAYISLOCKED);
  SAFEARRAYBOUND bound = {4, 0};
  EXPECT_EQ(SafeArrayRedim(array, &bound), DISP_E_ARRAYISLOCKED);
  EXPECT_EQ(object.refs(), 2u) << "a refused destroy releases nothing";
  ASSERT_EQ(SafeArrayUnlock(array), S_OK);
  EXPECT_EQ(SafeArrayUnlock(array), E_UNEXPECTED);

  void* data = nullptr;
  ASSERT_EQ(SafeArrayAccessData(array, &data), S_OK);
  EXPECT_EQ(data, array->pvData);
  EXPECT_EQ(SafeArrayDestroy(array), DISP_E_ARRAYISLOCKED);
  ASSERT_EQ(SafeArrayUnaccessData(array), S_OK);
  EXPECT_EQ(SafeArrayDestroy(array), S_OK);
  EXPECT_EQ(object.refs(), 1u);
}

// Strings are copied deeply too: the variant copy test above goes through SafeArrayCopy.
TEST(SafeArray, CopyAddRefsInterfaces) {
  CountedObject object;
  UniqueSafeArray objects(VectorHolding(VT_DISPATCH, &object));
  SAFEARRAY* copy = nullptr;
  ASSERT_EQ(SafeArrayCopy(objects.get(), &copy), S_OK);
  EXPECT_EQ(object.refs(), 3u);
  VARTYPE vt = VT_EMPTY;
  ASSERT_EQ(SafeArrayGetVartype(copy, &vt), S_OK);
  EXPECT_EQ(vt, VT_DISPATCH);
  ASSERT_EQ(SafeArrayDestroy(copy), S_OK);
  EXPECT_EQ(object.refs(), 2u);
}

TEST(SafeArray, RedimKeepsTheHeadAndReleasesTheTail) {
  CountedObject object;
  SAFEARRAYBOUND bound = {2, 0};
  UniqueSafeArray array(SafeArrayCreate(VT_UNKNOWN, 1, &bound));
  LONG last = 1;
  ASSERT_EQ(SafeArrayPutElement(array.get(), &last, static_cast<IUnknown*>(&object)), S_OK);

  SAFEARRAYBOUND grown = {4, 1};
  ASSERT_EQ(SafeArrayRedim(array.get(), &grown), S_OK);
  EXPECT_EQ(Bounds(array.get(), 1), Range(1, 4));
  IUnknown** items = static_cast<IUnknown**>(array->pvData);
  EXPECT_EQ(items[1], static_cast<IUnknown*>(&object)) << "kept, at the same cell";
  EXPECT_EQ(items[2], nullptr);
  EXPECT_EQ(items[3], nullptr);
  EXPECT_EQ(object.refs(), 2u);

  SAFEARRAYBOUND shrunk = {1, 1};
  ASSERT_EQ(SafeArrayRedim(array.get(), &shrunk), S_OK);
  EXPECT_EQ(object.refs(), 1u) << "the cut element is released";
}

// ---------------------------------------------------------------------------------------------
// Per-thread error information.

class ErrorInfoTest : public ::testing::Test {
 protected:
  // Each test starts and ends with an empty slot on the main thread.
  void SetUp() override { SetErrorInfo(0, nullptr); }
  void TearDown() override { SetErrorInfo(0, nullptr); }
};

TEST_F(ErrorInfoTest, WhatIsWrittenIsReadBackThroughTheSameObject) {
  ComPtr<ICreateErrorInfo> writer;
  ASSERT_EQ(CreateErrorInfo(writer.Put()), S_OK);
  ASSERT_TRUE(writer);
  const GUID kGuid = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
  EXPECT_EQ(writer->SetGUID(kGuid), S_OK);
  EXPECT_EQ(writer->SetSource(MutableOle(u"Vesta.Target")), S_OK);
  EXPECT_EQ(writer->SetDescription(MutableOle(u"Kit \u00e9teint \U0001F50C")), S_OK);
  EXPECT_EQ(writer->SetHelpFile(MutableOle(u"vesta.chm")), S_OK);
  EXPECT_EQ(writer->SetHelpContext(42), S_OK);

  // Both interfaces share one identity.
  ComPtr<IErrorInfo> reader;
  ComPtr<ICreateErrorInfo> writer_again;
  ComPtr<IUnknown> identity_from_writer;
  ComPtr<IUnknown> identity_from_reader;
  ASSERT_EQ(writer.QueryInto(IID_IErrorInfo, reader), S_OK);
  ASSERT_EQ(reader.QueryInto(IID_ICreateErrorInfo, writer_again), S_OK);
  EXPECT_EQ(writer_again.Get(), writer.Get());
  ASSERT_EQ(writer.QueryInto(IID_IUnknown, identity_from_writer), S_OK);
  ASSERT_EQ(reader.QueryInto(IID_IUnknown, identity_from_reader), S_OK);
  EXPECT_EQ(identity_from_writer.Get(), identity_from_reader.Get());
  void* other = reinterpret_cast<void*>(1);
  EXPECT_EQ(reader->QueryInterface(IID_IDispatch, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  // The reader alone keeps the object.
  identity_from_reader.Reset();
  identity_from_writer.Reset();
  writer_again.Reset();
  writer.Reset();

  GUID guid{};
  EXPECT_EQ(reader->GetGUID(&guid), S_OK);
  EXPECT_TRUE(IsEqualGUID(guid, kGuid));
  BSTR text = nullptr;
  ASSERT_EQ(reader->GetSource(&text), S_OK);
  EXPECT_EQ(BstrView(UniqueBstr(text).get()), u"Vesta.Target");
  ASSERT_EQ(reader->GetDescription(&text), S_OK);
  EXPECT_EQ(BstrView(UniqueBstr(text).get()), u"Kit \u00e9teint \U0001F50C");
  ASSERT_EQ(reader->GetHelpFile(&text), S_OK);
  EXPECT_EQ(BstrView(UniqueBstr(text).get()), u"vesta.chm");
  DWORD context = 0;
  EXPECT_EQ(reader->GetHelpContext(&context), S_OK);
  EXPECT_EQ(context, 42u);
}

// Get hands the slot's reference over and empties the slot; Set replaces and releases.
TEST_F(ErrorInfoTest, TheSlotHoldsOneReferenceUntilTakenOrReplaced) {
  CountedErrorInfo info;
  CountedErrorInfo replaced;
  IErrorInfo* taken = reinterpret_cast<IErrorInfo*>(1);
  EXPECT_EQ(GetErrorInfo(0, &taken), S_FALSE);
  EXPECT_EQ(taken, nullptr);

  ASSERT_EQ(SetErrorInfo(0, &replaced), S_OK);
  ASSERT_EQ(SetErrorInfo(0, &info), S_OK);
  EXPECT_EQ(replaced.refs(), 1u);
  EXPECT_EQ(info.refs(), 2u) << "the slot holds a reference";
  ASSERT_EQ(GetErrorInfo(0, &taken), S_OK);
  EXPECT_EQ(taken, &info);
  EXPECT_EQ(info.refs(), 2u) << "now held by the caller";
  taken->Release();
  EXPECT_EQ(GetErrorInfo(0, &taken), S_FALSE);
  EXPECT_EQ(taken, nullptr);

  ASSERT_EQ(SetErrorInfo(0, &info), S_OK);
  ASSERT_EQ(SetErrorInfo(0, nullptr), S_OK);
  EXPECT_EQ(info.refs(), 1u);
}

TEST_F(ErrorInfoTest, EachThreadHasItsOwnSlotReleasedWhenTheThreadExits) {
  CountedErrorInfo main_info;
  CountedErrorInfo left_by_other;
  ASSERT_EQ(SetErrorInfo(0, &main_info), S_OK);
  HRESULT seen_by_other = E_FAIL;
  IErrorInfo* other_taken = reinterpret_cast<IErrorInfo*>(1);
  std::thread([&] {
    seen_by_other = GetErrorInfo(0, &other_taken);
    SetErrorInfo(0, &left_by_other);
  }).join();
  EXPECT_EQ(seen_by_other, S_FALSE);
  EXPECT_EQ(other_taken, nullptr);
  EXPECT_EQ(left_by_other.refs(), 1u);

  IErrorInfo* taken = nullptr;
  ASSERT_EQ(GetErrorInfo(0, &taken), S_OK);
  EXPECT_EQ(taken, &main_info);
  taken->Release();
}

}  // namespace
}  // namespace qv::platform
