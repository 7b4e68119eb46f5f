// VARIANT and its value types for the POSIX build.
//
// Memory layout (identical to Windows x64), 24 bytes:
//
//   +0   VARTYPE vt            (overlaid by DECIMAL::wReserved)
//   +2   WORD wReserved1..3
//   +8   16-byte value union   (a pointer, an integer up to 64 bits, a double, or the
//                               {pvRecord, pRecInfo} pair of a VT_RECORD)
//
// A DECIMAL covers all 16 bytes from +0; its first field is where vt lives, so a VT_DECIMAL is
// written value first, type second.
//
// Include "vekxapi/automation.h" rather than this file.
#ifndef VEKX_POSIX_VARIANT_H_
#define VEKX_POSIX_VARIANT_H_

#include "vekxapi/posix/base_types.h"
#include "vekxapi/posix/bstr.h"
#include "vekxapi/posix/interfaces.h"

struct tagSAFEARRAY;
typedef tagSAFEARRAY SAFEARRAY;

typedef unsigned short VARTYPE;
typedef short VARIANT_BOOL;
typedef double DATE;

#define VARIANT_TRUE ((VARIANT_BOOL)-1)
#define VARIANT_FALSE ((VARIANT_BOOL)0)

// Currency: a 64-bit integer scaled by 10,000.
typedef union tagCY {
  struct {
    ULONG Lo;
    LONG Hi;
  };
  LONGLONG int64;
} CY;

// A 96-bit unsigned integer with a sign and a power-of-ten scale (0 to 28).
typedef struct tagDEC {
  USHORT wReserved;
  union {
    struct {
      BYTE scale;
      BYTE sign;
    };
    USHORT signscale;
  };
  ULONG Hi32;
  union {
    struct {
      ULONG Lo32;
      ULONG Mid32;
    };
    ULONGLONG Lo64;
  };
} DECIMAL;

#define DECIMAL_NEG ((BYTE)0x80)

enum VARENUM {
  VT_EMPTY = 0,
  VT_NULL = 1,
  VT_I2 = 2,
  VT_I4 = 3,
  VT_R4 = 4,
  VT_R8 = 5,
  VT_CY = 6,
  VT_DATE = 7,
  VT_BSTR = 8,
  VT_DISPATCH = 9,
  VT_ERROR = 10,
  VT_BOOL = 11,
  VT_VARIANT = 12,
  VT_UNKNOWN = 13,
  VT_DECIMAL = 14,
  VT_I1 = 16,
  VT_UI1 = 17,
  VT_UI2 = 18,
  VT_UI4 = 19,
  VT_I8 = 20,
  VT_UI8 = 21,
  VT_INT = 22,
  VT_UINT = 23,
  VT_VOID = 24,
  VT_HRESULT = 25,
  VT_PTR = 26,
  VT_SAFEARRAY = 27,
  VT_CARRAY = 28,
  VT_USERDEFINED = 29,
  VT_LPSTR = 30,
  VT_LPWSTR = 31,
  VT_RECORD = 36,
  VT_INT_PTR = 37,
  VT_UINT_PTR = 38,
  VT_FILETIME = 64,
  VT_BLOB = 65,
  VT_STREAM = 66,
  VT_STORAGE = 67,
  VT_STREAMED_OBJECT = 68,
  VT_STORED_OBJECT = 69,
  VT_BLOB_OBJECT = 70,
  VT_CF = 71,
  VT_CLSID = 72,
  VT_VERSIONED_STREAM = 73,
  VT_BSTR_BLOB = 0x0fff,
  VT_VECTOR = 0x1000,
  VT_ARRAY = 0x2000,
  VT_BYREF = 0x4000,
  VT_RESERVED = 0x8000,
  VT_ILLEGAL = 0xffff,
  VT_ILLEGALMASKED = 0x0fff,
  VT_TYPEMASK = 0x0fff
};

struct tagVARIANT {
  union {
    struct {
      VARTYPE vt;
      WORD wReserved1;
      WORD wReserved2;
      WORD wReserved3;
      union {
        LONGLONG llVal;
        LONG lVal;
        BYTE bVal;
        SHORT iVal;
        FLOAT fltVal;
        DOUBLE dblVal;
        VARIANT_BOOL boolVal;
        SCODE scode;
        CY cyVal;
        DATE date;
        BSTR bstrVal;
        IUnknown* punkVal;
        IDispatch* pdispVal;
        SAFEARRAY* parray;
        BYTE* pbVal;
        SHORT* piVal;
        LONG* plVal;
        LONGLONG* pllVal;
        FLOAT* pfltVal;
        DOUBLE* pdblVal;
        VARIANT_BOOL* pboolVal;
        SCODE* pscode;
        CY* pcyVal;
        DATE* pdate;
        BSTR* pbstrVal;
        IUnknown** ppunkVal;
        IDispatch** ppdispVal;
        SAFEARRAY** pparray;
        VARIANT* pvarVal;
        PVOID byref;
        CHAR cVal;
        USHORT uiVal;
        ULONG ulVal;
        ULONGLONG ullVal;
        INT intVal;
        UINT uintVal;
        DECIMAL* pdecVal;
        CHAR* pcVal;
        USHORT* puiVal;
        ULONG* pulVal;
        ULONGLONG* pullVal;
        INT* pintVal;
        UINT* puintVal;
        struct {
          PVOID pvRecord;
          IRecordInfo* pRecInfo;
        };
      };
    };
    DECIMAL decVal;
  };
};
typedef VARIANT* LPVARIANT;
typedef VARIANTARG* LPVARIANTARG;

static_assert(sizeof(CY) == 8, "CY is 8 bytes");
static_assert(sizeof(DECIMAL) == 16, "DECIMAL is 16 bytes");
static_assert(sizeof(VARIANT) == 24, "VARIANT is 24 bytes on Windows x64");
static_assert(offsetof(VARIANT, vt) == 0, "vt leads the VARIANT");
static_assert(offsetof(VARIANT, llVal) == 8, "the value union starts at offset 8");
static_assert(offsetof(VARIANT, pRecInfo) == 16, "a record's IRecordInfo follows its data");
static_assert(offsetof(VARIANT, decVal) == 0, "DECIMAL overlays the whole VARIANT");

// Accessors, spelled as in <oleauto.h>.
#define V_VT(X) ((X)->vt)
#define V_ISBYREF(X) (V_VT(X) & VT_BYREF)
#define V_ISARRAY(X) (V_VT(X) & VT_ARRAY)
#define V_ISVECTOR(X) (V_VT(X) & VT_VECTOR)
#define V_NONE(X) V_I2(X)

#define V_UI1(X) ((X)->bVal)
#define V_UI1REF(X) ((X)->pbVal)
#define V_I2(X) ((X)->iVal)
#define V_I2REF(X) ((X)->piVal)
#define V_I4(X) ((X)->lVal)
#define V_I4REF(X) ((X)->plVal)
#define V_I8(X) ((X)->llVal)
#define V_I8REF(X) ((X)->pllVal)
#define V_R4(X) ((X)->fltVal)
#define V_R4REF(X) ((X)->pfltVal)
#define V_R8(X) ((X)->dblVal)
#define V_R8REF(X) ((X)->pdblVal)
#define V_I1(X) ((X)->cVal)
#define V_I1REF(X) ((X)->pcVal)
#define V_UI2(X) ((X)->uiVal)
#define V_UI2REF(X) ((X)->puiVal)
#define V_UI4(X) ((X)->ulVal)
#define V_UI4REF(X) ((X)->pulVal)
#define V_UI8(X) ((X)->ullVal)
#define V_UI8REF(X) ((X)->pullVal)
#define V_INT(X) ((X)->intVal)
#define V_INTREF(X) ((X)->pintVal)
#define V_UINT(X) ((X)->uintVal)
#define V_UINTREF(X) ((X)->puintVal)
#define V_INT_PTR(X) ((X)->llVal)
#define V_UINT_PTR(X) ((X)->ullVal)
#define V_CY(X) ((X)->cyVal)
#define V_CYREF(X) ((X)->pcyVal)
#define V_DATE(X) ((X)->date)
#define V_DATEREF(X) ((X)->pdate)
#define V_BSTR(X) ((X)->bstrVal)
#define V_BSTRREF(X) ((X)->pbstrVal)
#define V_DISPATCH(X) ((X)->pdispVal)
#define V_DISPATCHREF(X) ((X)->ppdispVal)
#define V_ERROR(X) ((X)->scode)
#define V_ERRORREF(X) ((X)->pscode)
#define V_BOOL(X) ((X)->boolVal)
#define V_BOOLREF(X) ((X)->pboolVal)
#define V_UNKNOWN(X) ((X)->punkVal)
#define V_UNKNOWNREF(X) ((X)->ppunkVal)
#define V_VARIANTREF(X) ((X)->pvarVal)
#define V_ARRAY(X) ((X)->parray)
#define V_ARRAYREF(X) ((X)->pparray)
#define V_BYREF(X) ((X)->byref)
#define V_DECIMAL(X) ((X)->decVal)
#define V_DECIMALREF(X) ((X)->pdecVal)
#define V_RECORD(X) ((X)->pvRecord)
#define V_RECORDINFO(X) ((X)->pRecInfo)

// VariantChangeType flags.
#define VARIANT_NOVALUEPROP 0x01
#define VARIANT_ALPHABOOL 0x02
#define VARIANT_NOUSEROVERRIDE 0x04
#define VARIANT_CALENDAR_HIJRI 0x08
#define VARIANT_LOCALBOOL 0x10

/// Sets `pvarg` to VT_EMPTY without looking at what it held.
void VariantInit(VARIANTARG* pvarg);

/// Releases what `pvarg` owns (frees a BSTR, Releases an interface, destroys a SAFEARRAY or a
/// record; nothing for VT_BYREF) and sets it to VT_EMPTY. DISP_E_BADVARTYPE, leaving the
/// variant untouched, for a type a variant cannot hold; DISP_E_ARRAYISLOCKED for a locked array.
HRESULT VariantClear(VARIANTARG* pvarg);

/// Clears `pvargDest`, then makes it a deep copy of `pvargSrc`: strings and arrays are
/// duplicated, interfaces AddRef'd. A VT_BYREF source copies the reference itself.
HRESULT VariantCopy(VARIANTARG* pvargDest, const VARIANTARG* pvargSrc);

/// As VariantCopy, but a VT_BYREF source is dereferenced: the copy holds the value.
HRESULT VariantCopyInd(VARIANT* pvarDest, const VARIANTARG* pvargSrc);

/// Converts `pvarSrc` to type `vt` into `pvargDest` (which may be `pvarSrc`), as automation
/// does. This build converts among VT_EMPTY, VT_NULL, the integer types, VT_BOOL, VT_R4, VT_R8
/// and VT_BSTR:
///  - integers of one width convert signed to unsigned and back bit for bit, and a VT_BOOL
///    (-1 or 0) becomes any integer the same way; other integer conversions are range checked
///    (DISP_E_OVERFLOW), and reals round half to even;
///  - a VT_BOOL becomes "-1"/"0" as text, or "True"/"False" with VARIANT_ALPHABOOL;
///  - text is read as a decimal number (sign, comma-grouped digits, fraction, exponent), or
///    True/False for VT_BOOL; anything else is DISP_E_TYPEMISMATCH;
///  - reals are written with 15 (VT_R8) or 7 (VT_R4) significant digits, like "1.5" or "1E+20";
///  - anything becomes VT_NULL, and anything but VT_NULL VT_EMPTY; VT_NULL and VT_ERROR become
///    nothing else (DISP_E_TYPEMISMATCH).
/// Conversions from or to VT_CY, VT_DATE, VT_DECIMAL, interfaces and arrays return E_NOTIMPL.
/// On failure `pvargDest` is unchanged.
HRESULT VariantChangeType(VARIANTARG* pvargDest, const VARIANTARG* pvarSrc, USHORT wFlags,
                          VARTYPE vt);

/// VariantChangeType with an explicit locale; this build formats and parses as en-US.
HRESULT VariantChangeTypeEx(VARIANTARG* pvargDest, const VARIANTARG* pvarSrc, LCID lcid,
                            USHORT wFlags, VARTYPE vt);

#endif  // VEKX_POSIX_VARIANT_H_
