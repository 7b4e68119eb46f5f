#include "vekxapi/posix/variant.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "platform/posix/vartype_size.h"
#include "vekxapi/posix/safearray.h"

namespace {

// Whether a VARIANT may hold `vt` at all: the base types up to VT_UINT (15 is unassigned),
// VT_RECORD and VT_CLSID, optionally VT_BYREF and/or VT_ARRAY of them, but never a reference
// to or an array of VT_EMPTY/VT_NULL, and never VT_VECTOR or VT_RESERVED.
bool IsVariantType(VARTYPE vt) {
  if ((vt & (VT_VECTOR | VT_RESERVED)) != 0) return false;
  const VARTYPE base = vt & VT_TYPEMASK;
  const bool wrapped = (vt & (VT_BYREF | VT_ARRAY)) != 0;
  if (base == VT_RECORD || base == VT_CLSID) return true;
  if (base >= VT_VOID || base == 15) return false;
  return !(wrapped && base <= VT_NULL);
}

// Copies the value of a non-reference `src` into the empty `out`, deep.
HRESULT CopyValue(VARIANT* out, const VARIANT* src) {
  const VARTYPE vt = V_VT(src);
  if ((vt & VT_BYREF) != 0) {
    *out = *src;
    return S_OK;
  }
  if ((vt & VT_ARRAY) != 0) {
    SAFEARRAY* copy = nullptr;
    const HRESULT hr = SafeArrayCopy(V_ARRAY(src), &copy);
    if (FAILED(hr)) return hr;
    V_VT(out) = vt;
    V_ARRAY(out) = copy;
    return S_OK;
  }
  switch (vt) {
    case VT_BSTR: {
      BSTR copy = nullptr;
      if (V_BSTR(src) != nullptr) {
        copy = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(V_BSTR(src)),
                                     SysStringByteLen(V_BSTR(src)));
        if (copy == nullptr) return E_OUTOFMEMORY;
      }
      V_VT(out) = VT_BSTR;
      V_BSTR(out) = copy;
      return S_OK;
    }
    case VT_UNKNOWN:
    case VT_DISPATCH:
      if (V_UNKNOWN(src) != nullptr) V_UNKNOWN(src)->AddRef();
      *out = *src;
      return S_OK;
    case VT_RECORD:
      // Nothing in this build creates records, so copying one is not supported.
      return E_NOTIMPL;
    default:
      *out = *src;
      return S_OK;
  }
}

// Copies what the VT_BYREF `src` points to into the empty `out`.
HRESULT CopyReferencedValue(VARIANT* out, const VARIANT* src) {
  const VARTYPE target = V_VT(src) & ~VT_BYREF;
  if (V_BYREF(src) == nullptr) return E_INVALIDARG;
  if (target == VT_VARIANT) {
    const VARIANT* inner = V_VARIANTREF(src);
    // A reference to a reference to a variant is one indirection too many.
    if (V_VT(inner) == (VT_VARIANT | VT_BYREF)) return E_INVALIDARG;
    return CopyValue(out, inner);
  }
  VARIANT value;
  V_VT(&value) = target;
  if ((target & VT_ARRAY) != 0) {
    V_ARRAY(&value) = *V_ARRAYREF(src);
  } else if (target == VT_BSTR) {
    V_BSTR(&value) = *V_BSTRREF(src);
  } else if (target == VT_UNKNOWN || target == VT_DISPATCH) {
    V_UNKNOWN(&value) = *V_UNKNOWNREF(src);
  } else if (target == VT_DECIMAL) {
    V_DECIMAL(&value) = *V_DECIMALREF(src);
    V_VT(&value) = VT_DECIMAL;  // The DECIMAL overwrote vt.
  } else if (const std::size_t size = qv::platform::posix::ScalarSize(target); size != 0) {
    V_UI8(&value) = 0;
    std::memcpy(&V_UI8(&value), V_BYREF(src), size);
  } else {
    return E_INVALIDARG;
  }
  return CopyValue(out, &value);
}

// ---------------------------------------------------------------------------------------------
// VariantChangeType. A value is read into a Number, then written as the target type.

struct Number {
  enum class Kind { kSigned, kUnsigned, kReal } kind = Kind::kSigned;
  std::int64_t s = 0;
  std::uint64_t u = 0;
  double d = 0;
};

bool IsConvertibleType(VARTYPE vt) {
  switch (vt) {
    case VT_EMPTY:
    case VT_NULL:
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_I4:
    case VT_UI4:
    case VT_I8:
    case VT_UI8:
    case VT_INT:
    case VT_UINT:
    case VT_BOOL:
    case VT_R4:
    case VT_R8:
    case VT_BSTR:
      return true;
    default:
      return false;
  }
}

bool IsSpace(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}

std::u16string_view Trim(std::u16string_view text) {
  while (!text.empty() && IsSpace(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && IsSpace(text.back()))
    text.remove_suffix(1);
  return text;
}

bool EqualsIgnoringAsciiCase(std::u16string_view text, std::string_view ascii) {
  if (text.size() != ascii.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char16_t c = text[i];
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
    if (c != static_cast<char16_t>(ascii[i])) return false;
  }
  return true;
}

// Parses decimal text: optional sign, digits (optionally grouped with commas) with an optional
// fraction, optional exponent, surrounded by optional white space. Integers that fit in 64 bits
// stay exact. Windows also reads "&H" hex, currency symbols and "(5)" for -5; we do not.
HRESULT ParseNumber(std::u16string_view text, Number* out) {
  text = Trim(text);
  std::string ascii;
  ascii.reserve(text.size());
  bool negative = false;
  std::size_t i = 0;
  if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
    negative = text[i] == u'-';
    ++i;
  }
  std::size_t mantissa_digits = 0;
  bool integral = true;
  // Thousands separators may group the integer digits.
  for (; i < text.size(); ++i) {
    if (text[i] >= u'0' && text[i] <= u'9') {
      ascii.push_back(static_cast<char>(text[i]));
      ++mantissa_digits;
    } else if (text[i] != u',' || mantissa_digits == 0) {
      break;
    }
  }
  if (i < text.size() && text[i] == u'.') {
    integral = false;
    ascii.push_back('.');
    for (++i; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i, ++mantissa_digits) {
      ascii.push_back(static_cast<char>(text[i]));
    }
  }
  if (mantissa_digits == 0) return DISP_E_TYPEMISMATCH;
  if (i < text.size() && (text[i] == u'e' || text[i] == u'E')) {
    integral = false;
    ascii.push_back('e');
    ++i;
    if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
      ascii.push_back(static_cast<char>(text[i]));
      ++i;
    }
    std::size_t exponent_digits = 0;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i, ++exponent_digits) {
      ascii.push_back(static_cast<char>(text[i]));
    }
    if (exponent_digits == 0) return DISP_E_TYPEMISMATCH;
  }
  if (i != text.size()) return DISP_E_TYPEMISMATCH;

  const char* first = ascii.data();
  const char* last = ascii.data() + ascii.size();
  if (integral) {
    std::uint64_t magnitude = 0;
    const auto [end, error] = std::from_chars(first, last, magnitude);
    if (error == std::errc{} && end == last) {
      constexpr std::uint64_t kMinMagnitude = std::uint64_t{1} << 63;
      if (!negative) {
        out->kind = Number::Kind::kUnsigned;
        out->u = magnitude;
        return S_OK;
      }
      if (magnitude <= kMinMagnitude) {
        out->kind = Number::Kind::kSigned;
        out->s = magnitude == kMinMagnitude ? std::numeric_limits<std::int64_t>::min()
                                            : -static_cast<std::int64_t>(magnitude);
        return S_OK;
      }
    }
    // Too large for 64 bits: carry on as a real, which fails any integer target by range.
  }
  double value = 0;
  const auto [end, error] = std::from_chars(first, last, value);
  if (error == std::errc::result_out_of_range) return DISP_E_OVERFLOW;
  if (error != std::errc{} || end != last) return DISP_E_TYPEMISMATCH;
  out->kind = Number::Kind::kReal;
  out->d = negative ? -value : value;
  return S_OK;
}

// Reads `in` as a number. Text may also be a truth value when `for_bool` is set.
HRESULT ReadNumber(const VARIANT* in, bool for_bool, Number* out) {
  switch (V_VT(in)) {
    case VT_EMPTY:
      *out = Number{};
      return S_OK;
    case VT_I1:
      out->s = static_cast<signed char>(V_I1(in));
      return S_OK;
    case VT_I2:
      out->s = V_I2(in);
      return S_OK;
    case VT_I4:
      out->s = V_I4(in);
      return S_OK;
    case VT_INT:
      out->s = V_INT(in);
      return S_OK;
    case VT_I8:
      out->s = V_I8(in);
      return S_OK;
    case VT_BOOL:
      out->s = V_BOOL(in) != VARIANT_FALSE ? -1 : 0;
      return S_OK;
    case VT_UI1:
      out->kind = Number::Kind::kUnsigned;
      out->u = V_UI1(in);
      return S_OK;
    case VT_UI2:
      out->kind = Number::Kind::kUnsigned;
      out->u = V_UI2(in);
      return S_OK;
    case VT_UI4:
      out->kind = Number::Kind::kUnsigned;
      out->u = V_UI4(in);
      return S_OK;
    case VT_UINT:
      out->kind = Number::Kind::kUnsigned;
      out->u = V_UINT(in);
      return S_OK;
    case VT_UI8:
      out->kind = Number::Kind::kUnsigned;
      out->u = V_UI8(in);
      return S_OK;
    case VT_R4:
      out->kind = Number::Kind::kReal;
      out->d = V_R4(in);
      return S_OK;
    case VT_R8:
      out->kind = Number::Kind::kReal;
      out->d = V_R8(in);
      return S_OK;
    case VT_BSTR: {
      const std::u16string_view text(V_BSTR(in) != nullptr ? V_BSTR(in) : u"",
                                     SysStringLen(V_BSTR(in)));
      if (for_bool) {
        const std::u16string_view word = Trim(text);
        if (EqualsIgnoringAsciiCase(word, "true") || EqualsIgnoringAsciiCase(word, "#true#")) {
          out->s = -1;
          return S_OK;
        }
        if (EqualsIgnoringAsciiCase(word, "false") || EqualsIgnoringAsciiCase(word, "#false#")) {
          out->s = 0;
          return S_OK;
        }
      }
      return ParseNumber(text, out);
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

// Rounds half to even, as automation does when a real becomes an integer.
double RoundHalfEven(double value) {
  const double floor = std::floor(value);
  const double fraction = value - floor;
  if (fraction > 0.5) return floor + 1;
  if (fraction < 0.5) return floor;
  return std::fmod(floor, 2.0) == 0 ? floor : floor + 1;
}

// Converts `n` to an integer in [min, max]; DISP_E_OVERFLOW outside it.
HRESULT ToInteger(const Number& n, std::int64_t min, std::uint64_t max, std::int64_t* s_out,
                  std::uint64_t* u_out) {
  switch (n.kind) {
    case Number::Kind::kSigned:
      if (n.s < min) return DISP_E_OVERFLOW;
      if (n.s >= 0 && static_cast<std::uint64_t>(n.s) > max) return DISP_E_OVERFLOW;
      *s_out = n.s;
      *u_out = static_cast<std::uint64_t>(n.s);
      return S_OK;
    case Number::Kind::kUnsigned:
      if (n.u > max) return DISP_E_OVERFLOW;
      *s_out = static_cast<std::int64_t>(n.u);
      *u_out = n.u;
      return S_OK;
    case Number::Kind::kReal: {
      if (std::isnan(n.d)) return DISP_E_OVERFLOW;
      const double r = RoundHalfEven(n.d);
      // 2^64 and -2^63 are exact doubles; the casts below are only reached in range.
      if (r < static_cast<double>(min) || r >= 18446744073709551616.0) return DISP_E_OVERFLOW;
      if (r < 0) {
        *s_out = static_cast<std::int64_t>(r);
        *u_out = static_cast<std::uint64_t>(*s_out);
        return S_OK;
      }
      const auto magnitude = static_cast<std::uint64_t>(r);
      if (magnitude > max) return DISP_E_OVERFLOW;
      *s_out = static_cast<std::int64_t>(magnitude);
      *u_out = magnitude;
      return S_OK;
    }
  }
  return DISP_E_TYPEMISMATCH;
}

double ToReal(const Number& n) {
  switch (n.kind) {
    case Number::Kind::kSigned:
      return static_cast<double>(n.s);
    case Number::Kind::kUnsigned:
      return static_cast<double>(n.u);
    case Number::Kind::kReal:
      return n.d;
  }
  return 0;
}

bool IsNonZero(const Number& n) {
  switch (n.kind) {
    case Number::Kind::kSigned:
      return n.s != 0;
    case Number::Kind::kUnsigned:
      return n.u != 0;
    case Number::Kind::kReal:
      return n.d != 0;
  }
  return false;
}

// "%.<precision>G" in the C locale, the way automation formats reals, without negative zero.
std::string FormatReal(double value, int precision) {
  if (value == 0) return "0";
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, precision);
  std::string text(buffer, result.ptr);
  for (char& c : text) {
    if (c == 'e') c = 'E';
  }
  return text;
}

std::string FormatNumber(const Number& n, VARTYPE from) {
  switch (n.kind) {
    case Number::Kind::kSigned:
      return std::to_string(n.s);
    case Number::Kind::kUnsigned:
      return std::to_string(n.u);
    case Number::Kind::kReal:
      return FormatReal(n.d, from == VT_R4 ? 7 : 15);
  }
  return {};
}

HRESULT MakeBstr(std::string_view ascii, VARIANT* out) {
  BSTR text = SysAllocStringLen(nullptr, static_cast<UINT>(ascii.size()));
  if (text == nullptr) return E_OUTOFMEMORY;
  for (std::size_t i = 0; i < ascii.size(); ++i)
    text[i] = static_cast<OLECHAR>(ascii[i]);
  V_VT(out) = VT_BSTR;
  V_BSTR(out) = text;
  return S_OK;
}

// Width in bytes of an integer type; 0 for the others.
std::size_t IntegerWidth(VARTYPE vt) {
  switch (vt) {
    case VT_I1:
    case VT_UI1:
      return 1;
    case VT_I2:
    case VT_UI2:
      return 2;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
      return 4;
    case VT_I8:
    case VT_UI8:
      return 8;
    default:
      return 0;
  }
}

// The value of an integer or boolean `in`, sign- or zero-extended to 64 bits.
std::uint64_t IntegerBits(const VARIANT* in) {
  switch (V_VT(in)) {
    case VT_I1:
      return static_cast<std::uint64_t>(std::int64_t{static_cast<signed char>(V_I1(in))});
    case VT_UI1:
      return V_UI1(in);
    case VT_I2:
      return static_cast<std::uint64_t>(std::int64_t{V_I2(in)});
    case VT_BOOL:
      return static_cast<std::uint64_t>(std::int64_t{V_BOOL(in)});
    case VT_UI2:
      return V_UI2(in);
    case VT_I4:
      return static_cast<std::uint64_t>(std::int64_t{V_I4(in)});
    case VT_INT:
      return static_cast<std::uint64_t>(std::int64_t{V_INT(in)});
    case VT_UI4:
      return V_UI4(in);
    case VT_UINT:
      return V_UINT(in);
    case VT_I8:
      return static_cast<std::uint64_t>(V_I8(in));
    case VT_UI8:
      return V_UI8(in);
    default:
      return 0;
  }
}

// Stores the low bits of `bits` as the integer type `vt`.
void StoreIntegerBits(std::uint64_t bits, VARTYPE vt, VARIANT* out) {
  switch (vt) {
    case VT_I1:
      V_I1(out) = static_cast<CHAR>(bits);
      break;
    case VT_UI1:
      V_UI1(out) = static_cast<BYTE>(bits);
      break;
    case VT_I2:
      V_I2(out) = static_cast<SHORT>(bits);
      break;
    case VT_UI2:
      V_UI2(out) = static_cast<USHORT>(bits);
      break;
    case VT_I4:
    case VT_INT:
      V_I4(out) = static_cast<LONG>(bits);
      break;
    case VT_UI4:
    case VT_UINT:
      V_UI4(out) = static_cast<ULONG>(bits);
      break;
    case VT_I8:
      V_I8(out) = static_cast<LONGLONG>(bits);
      break;
    case VT_UI8:
      V_UI8(out) = bits;
      break;
    default:
      return;
  }
  V_VT(out) = vt;
}

// Converts the non-reference, non-array `in` to `vt`, both convertible, into the empty `out`.
HRESULT Coerce(const VARIANT* in, VARTYPE vt, USHORT flags, VARIANT* out) {
  const VARTYPE from = V_VT(in);
  if (from == VT_NULL) return DISP_E_TYPEMISMATCH;
  if (vt == VT_BSTR && from == VT_EMPTY) return MakeBstr("", out);
  if (vt == VT_BSTR && from == VT_BOOL && (flags & (VARIANT_ALPHABOOL | VARIANT_LOCALBOOL)) != 0) {
    return MakeBstr(V_BOOL(in) != VARIANT_FALSE ? "True" : "False", out);
  }
  // Automation carries the bits over unchecked between signed and unsigned integers of one
  // width (-1 as VT_I4 is 0xFFFFFFFF as VT_UI4), and from a boolean to any integer (VARIANT_TRUE
  // is 255 as VT_UI1). Only conversions that change the width are range checked.
  const std::size_t width = IntegerWidth(vt);
  if (width != 0 && (IntegerWidth(from) == width || from == VT_BOOL)) {
    StoreIntegerBits(IntegerBits(in), vt, out);
    return S_OK;
  }

  Number n;
  HRESULT hr = ReadNumber(in, vt == VT_BOOL, &n);
  if (FAILED(hr)) return hr;

  std::int64_t s = 0;
  std::uint64_t u = 0;
  switch (vt) {
    case VT_BSTR:
      return MakeBstr(FormatNumber(n, from), out);
    case VT_BOOL:
      V_BOOL(out) = IsNonZero(n) ? VARIANT_TRUE : VARIANT_FALSE;
      break;
    case VT_R8:
      V_R8(out) = ToReal(n);
      break;
    case VT_R4: {
      const double d = ToReal(n);
      if (std::isfinite(d) && std::fabs(d) > std::numeric_limits<float>::max()) {
        return DISP_E_OVERFLOW;
      }
      V_R4(out) = static_cast<float>(d);
      break;
    }
    case VT_I1:
      hr = ToInteger(n, INT8_MIN, INT8_MAX, &s, &u);
      V_I1(out) = static_cast<CHAR>(s);
      break;
    case VT_UI1:
      hr = ToInteger(n, 0, UINT8_MAX, &s, &u);
      V_UI1(out) = static_cast<BYTE>(u);
      break;
    case VT_I2:
      hr = ToInteger(n, INT16_MIN, INT16_MAX, &s, &u);
      V_I2(out) = static_cast<SHORT>(s);
      break;
    case VT_UI2:
      hr = ToInteger(n, 0, UINT16_MAX, &s, &u);
      V_UI2(out) = static_cast<USHORT>(u);
      break;
    case VT_I4:
    case VT_INT:
      hr = ToInteger(n, INT32_MIN, INT32_MAX, &s, &u);
      V_I4(out) = static_cast<LONG>(s);
      break;
    case VT_UI4:
    case VT_UINT:
      hr = ToInteger(n, 0, UINT32_MAX, &s, &u);
      V_UI4(out) = static_cast<ULONG>(u);
      break;
    case VT_I8:
      hr = ToInteger(n, INT64_MIN, INT64_MAX, &s, &u);
      V_I8(out) = s;
      break;
    case VT_UI8:
      hr = ToInteger(n, 0, UINT64_MAX, &s, &u);
      V_UI8(out) = u;
      break;
    default:
      return DISP_E_TYPEMISMATCH;
  }
  if (FAILED(hr)) return hr;
  V_VT(out) = vt;
  return S_OK;
}

}  // namespace

void VariantInit(VARIANTARG* pvarg) {
  if (pvarg != nullptr) V_VT(pvarg) = VT_EMPTY;
}

HRESULT VariantClear(VARIANTARG* pvarg) {
  if (pvarg == nullptr) return E_INVALIDARG;
  const VARTYPE vt = V_VT(pvarg);
  if (!IsVariantType(vt)) return DISP_E_BADVARTYPE;
  if ((vt & VT_BYREF) == 0) {
    if ((vt & VT_ARRAY) != 0) {
      // A locked array stays where it is rather than leaking.
      const HRESULT hr = SafeArrayDestroy(V_ARRAY(pvarg));
      if (FAILED(hr)) return hr;
    } else if (vt == VT_BSTR) {
      SysFreeString(V_BSTR(pvarg));
    } else if (vt == VT_UNKNOWN || vt == VT_DISPATCH) {
      if (V_UNKNOWN(pvarg) != nullptr) V_UNKNOWN(pvarg)->Release();
    } else if (vt == VT_RECORD) {
      if (V_RECORDINFO(pvarg) != nullptr) {
        V_RECORDINFO(pvarg)->RecordClear(V_RECORD(pvarg));
        V_RECORDINFO(pvarg)->Release();
      }
    }
  }
  V_VT(pvarg) = VT_EMPTY;
  return S_OK;
}

HRESULT VariantCopy(VARIANTARG* pvargDest, const VARIANTARG* pvargSrc) {
  if (pvargDest == nullptr || pvargSrc == nullptr) return E_INVALIDARG;
  if (!IsVariantType(V_VT(pvargSrc)) || (V_VT(pvargSrc) & VT_TYPEMASK) == VT_CLSID) {
    return DISP_E_BADVARTYPE;
  }
  if (pvargDest == pvargSrc) return S_OK;
  // Copy first: the source may be owned by the destination (an element of its array, say),
  // and a failed copy must leave the destination as it was.
  VARIANT copy;
  VariantInit(&copy);
  HRESULT hr = CopyValue(&copy, pvargSrc);
  if (FAILED(hr)) return hr;
  hr = VariantClear(pvargDest);
  if (FAILED(hr)) {
    VariantClear(&copy);
    return hr;
  }
  *pvargDest = copy;
  return S_OK;
}

HRESULT VariantCopyInd(VARIANT* pvarDest, const VARIANTARG* pvargSrc) {
  if (pvarDest == nullptr || pvargSrc == nullptr) return E_INVALIDARG;
  if ((V_VT(pvargSrc) & VT_BYREF) == 0) return VariantCopy(pvarDest, pvargSrc);
  if (!IsVariantType(V_VT(pvargSrc))) return DISP_E_BADVARTYPE;
  VARIANT copy;
  VariantInit(&copy);
  HRESULT hr = CopyReferencedValue(&copy, pvargSrc);
  if (FAILED(hr)) return hr;
  hr = VariantClear(pvarDest);
  if (FAILED(hr)) {
    VariantClear(&copy);
    return hr;
  }
  *pvarDest = copy;
  return S_OK;
}

HRESULT VariantChangeType(VARIANTARG* pvargDest, const VARIANTARG* pvarSrc, USHORT wFlags,
                          VARTYPE vt) {
  return VariantChangeTypeEx(pvargDest, pvarSrc, LOCALE_USER_DEFAULT, wFlags, vt);
}

HRESULT VariantChangeTypeEx(VARIANTARG* pvargDest, const VARIANTARG* pvarSrc, LCID /*lcid*/,
                            USHORT wFlags, VARTYPE vt) {
  if (pvargDest == nullptr || pvarSrc == nullptr) return E_INVALIDARG;
  if (!IsVariantType(V_VT(pvarSrc)) || !IsVariantType(vt) || (vt & VT_BYREF) != 0 ||
      (vt & VT_TYPEMASK) == VT_CLSID) {
    return DISP_E_BADVARTYPE;
  }
  if ((V_VT(pvarSrc) & VT_BYREF) != 0 && V_BYREF(pvarSrc) == nullptr) return DISP_E_TYPEMISMATCH;

  VARIANT value;
  VariantInit(&value);
  HRESULT hr = VariantCopyInd(&value, pvarSrc);
  if (FAILED(hr)) return hr;

  VARIANT converted;
  VariantInit(&converted);
  const VARTYPE from = V_VT(&value);
  if (from == vt) {
    converted = value;
    VariantInit(&value);
  } else if (vt == VT_EMPTY || vt == VT_NULL) {
    // Anything can be emptied or nulled, except that null does not become empty.
    if (from == VT_NULL) {
      hr = DISP_E_TYPEMISMATCH;
    } else {
      V_VT(&converted) = vt;
    }
  } else if (IsConvertibleType(from) && IsConvertibleType(vt)) {
    hr = Coerce(&value, vt, wFlags, &converted);
  } else if (from == VT_ERROR || vt == VT_ERROR) {
    hr = DISP_E_TYPEMISMATCH;
  } else {
    // Interfaces (through their value property), VT_CY, VT_DATE, VT_DECIMAL and arrays.
    hr = E_NOTIMPL;
  }
  VariantClear(&value);
  if (FAILED(hr)) return hr;

  hr = VariantClear(pvargDest);
  if (FAILED(hr)) {
    VariantClear(&converted);
    return hr;
  }
  *pvargDest = converted;
  return S_OK;
}
