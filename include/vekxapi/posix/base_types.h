// Basic Win32 types, result codes and calling-convention macros for the POSIX build.
//
// Every width here is the Windows x64 width. Windows is LLP64 and Linux is LP64, so `long` never
// appears: LONG, ULONG, DWORD and HRESULT are 32 bits on both sides of the wire and in every
// structure we share with Windows code.
//
// Include "vekxapi/automation.h" rather than this file.
#ifndef VEKX_POSIX_BASE_TYPES_H_
#define VEKX_POSIX_BASE_TYPES_H_

#include <cstddef>
#include <cstdint>

// ---------------------------------------------------------------------------------------------
// Linkage and calling-convention macros. x64 has a single calling convention, so these are all
// empty; they exist so that code written against the Windows headers compiles unchanged.

#ifdef __cplusplus
#define EXTERN_C extern "C"
#else
#define EXTERN_C extern
#endif

#define STDMETHODCALLTYPE
#define STDAPICALLTYPE
#define WINAPI
#define CALLBACK
#define DECLSPEC_UUID(x)
#define DECLSPEC_NOVTABLE
#define DECLSPEC_SELECTANY
#define DECLSPEC_IMPORT
#define PURE = 0
#define THIS_
#define THIS void

#define STDMETHOD(method) virtual HRESULT STDMETHODCALLTYPE method
#define STDMETHOD_(type, method) virtual type STDMETHODCALLTYPE method
#define STDMETHODIMP HRESULT STDMETHODCALLTYPE
#define STDMETHODIMP_(type) type STDMETHODCALLTYPE
#define STDAPI EXTERN_C HRESULT STDAPICALLTYPE
#define STDAPI_(type) EXTERN_C type STDAPICALLTYPE

// ---------------------------------------------------------------------------------------------
// Integer and character types.

typedef std::int32_t HRESULT;
typedef std::int32_t SCODE;
typedef std::uint8_t BYTE;
typedef std::uint16_t WORD;
typedef std::uint32_t DWORD;
typedef char CHAR;
typedef std::int16_t SHORT;
typedef std::uint16_t USHORT;
typedef std::int32_t INT;
typedef std::uint32_t UINT;
typedef std::int32_t LONG;
typedef std::uint32_t ULONG;
typedef std::int64_t LONGLONG;
typedef std::uint64_t ULONGLONG;
typedef std::int64_t LONG64;
typedef std::uint64_t ULONG64;
typedef std::int64_t INT_PTR;
typedef std::uint64_t UINT_PTR;
typedef std::int64_t LONG_PTR;
typedef std::uint64_t ULONG_PTR;
typedef std::size_t SIZE_T;
typedef std::int32_t BOOL;
typedef BYTE BOOLEAN;
typedef float FLOAT;
typedef double DOUBLE;
typedef void* PVOID;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef BYTE* PBYTE;
typedef DWORD* LPDWORD;
typedef LONG* LPLONG;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// UTF-16 code units. On POSIX wchar_t is 32 bits wide, so the 16-bit character types are
// char16_t; portable code converts with the helpers in "vekxapi/wide_string.h".
typedef char16_t WCHAR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;
typedef char16_t OLECHAR;
typedef OLECHAR* LPOLESTR;
typedef const OLECHAR* LPCOLESTR;
typedef CHAR* LPSTR;
typedef const CHAR* LPCSTR;

typedef DWORD LCID;
typedef WORD LANGID;
typedef LONG DISPID;
typedef DISPID MEMBERID;

#define LOCALE_SYSTEM_DEFAULT ((LCID)0x0800)
#define LOCALE_USER_DEFAULT ((LCID)0x0400)
#define LOCALE_NEUTRAL ((LCID)0x0000)

static_assert(sizeof(HRESULT) == 4 && sizeof(LONG) == 4 && sizeof(ULONG) == 4 &&
                  sizeof(DWORD) == 4 && sizeof(BOOL) == 4,
              "Win32 32-bit integer types must stay 32 bits wide");
static_assert(sizeof(OLECHAR) == 2 && sizeof(WCHAR) == 2, "OLECHAR is a UTF-16 code unit");
static_assert(sizeof(void*) == 8, "the shared layouts are the Windows x64 layouts");

// ---------------------------------------------------------------------------------------------
// HRESULT composition.

#define SEVERITY_SUCCESS 0
#define SEVERITY_ERROR 1

#define FACILITY_NULL 0
#define FACILITY_RPC 1
#define FACILITY_DISPATCH 2
#define FACILITY_STORAGE 3
#define FACILITY_ITF 4
#define FACILITY_WIN32 7
#define FACILITY_WINDOWS 8
#define FACILITY_CONTROL 10

#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)
#define IS_ERROR(status) (((ULONG)(status)) >> 31 == SEVERITY_ERROR)

#define HRESULT_CODE(hr) ((hr)&0xFFFF)
#define SCODE_CODE(sc) ((sc)&0xFFFF)
#define HRESULT_FACILITY(hr) (((hr) >> 16) & 0x1FFF)
#define SCODE_FACILITY(sc) (((sc) >> 16) & 0x1FFF)
#define HRESULT_SEVERITY(hr) (((hr) >> 31) & 0x1)
#define SCODE_SEVERITY(sc) (((sc) >> 31) & 0x1)

#define MAKE_HRESULT(sev, fac, code) \
  ((HRESULT)(((ULONG)(sev) << 31) | ((ULONG)(fac) << 16) | ((ULONG)(code))))
#define MAKE_SCODE(sev, fac, code) \
  ((SCODE)(((ULONG)(sev) << 31) | ((ULONG)(fac) << 16) | ((ULONG)(code))))

// Windows spells this as an inline function in newer SDKs and as a macro in older ones; the
// macro form keeps it usable in constant expressions and `case` labels.
#define HRESULT_FROM_WIN32(x)         \
  ((HRESULT)(x) <= 0 ? ((HRESULT)(x)) \
                     : ((HRESULT)(((ULONG)(x)&0x0000FFFF) | (FACILITY_WIN32 << 16) | 0x80000000)))

// ---------------------------------------------------------------------------------------------
// Win32 error codes that the library and its tests name.

#define ERROR_SUCCESS 0
#define NO_ERROR 0
#define ERROR_INVALID_FUNCTION 1
#define ERROR_FILE_NOT_FOUND 2
#define ERROR_PATH_NOT_FOUND 3
#define ERROR_TOO_MANY_OPEN_FILES 4
#define ERROR_ACCESS_DENIED 5
#define ERROR_INVALID_HANDLE 6
#define ERROR_NOT_ENOUGH_MEMORY 8
#define ERROR_BAD_FORMAT 11
#define ERROR_INVALID_DATA 13
#define ERROR_OUTOFMEMORY 14
#define ERROR_NOT_READY 21
#define ERROR_HANDLE_EOF 38
#define ERROR_NOT_SUPPORTED 50
#define ERROR_FILE_EXISTS 80
#define ERROR_INVALID_PARAMETER 87
#define ERROR_BROKEN_PIPE 109
#define ERROR_CALL_NOT_IMPLEMENTED 120
#define ERROR_SEM_TIMEOUT 121
#define ERROR_INSUFFICIENT_BUFFER 122
#define ERROR_INVALID_NAME 123
#define ERROR_MOD_NOT_FOUND 126
#define ERROR_PROC_NOT_FOUND 127
#define ERROR_BAD_PATHNAME 161
#define ERROR_BUSY 170
#define ERROR_ALREADY_EXISTS 183
#define ERROR_ENVVAR_NOT_FOUND 203
#define ERROR_FILENAME_EXCED_RANGE 206
#define ERROR_BAD_PIPE 230
#define ERROR_PIPE_BUSY 231
#define ERROR_NO_DATA 232
#define ERROR_PIPE_NOT_CONNECTED 233
#define ERROR_MORE_DATA 234
#define ERROR_NO_MORE_ITEMS 259
#define ERROR_DIRECTORY 267
#define ERROR_PIPE_CONNECTED 535
#define ERROR_PIPE_LISTENING 536
#define ERROR_OPERATION_ABORTED 995
#define ERROR_IO_INCOMPLETE 996
#define ERROR_IO_PENDING 997
#define ERROR_NOT_FOUND 1168
#define ERROR_CANCELLED 1223
#define ERROR_CONNECTION_REFUSED 1225
#define ERROR_TIMEOUT 1460

// ---------------------------------------------------------------------------------------------
// HRESULT values, with the exact bit patterns Windows uses.

#define S_OK ((HRESULT)0x00000000)
#define S_FALSE ((HRESULT)0x00000001)

#define E_UNEXPECTED ((HRESULT)0x8000FFFF)
#define E_NOTIMPL ((HRESULT)0x80004001)
#define E_NOINTERFACE ((HRESULT)0x80004002)
#define E_POINTER ((HRESULT)0x80004003)
#define E_ABORT ((HRESULT)0x80004004)
#define E_FAIL ((HRESULT)0x80004005)
#define E_PENDING ((HRESULT)0x8000000A)
#define E_BOUNDS ((HRESULT)0x8000000B)
#define E_ACCESSDENIED ((HRESULT)0x80070005)
#define E_HANDLE ((HRESULT)0x80070006)
#define E_OUTOFMEMORY ((HRESULT)0x8007000E)
#define E_INVALIDARG ((HRESULT)0x80070057)

#define DISP_E_UNKNOWNINTERFACE ((HRESULT)0x80020001)
#define DISP_E_MEMBERNOTFOUND ((HRESULT)0x80020003)
#define DISP_E_PARAMNOTFOUND ((HRESULT)0x80020004)
#define DISP_E_TYPEMISMATCH ((HRESULT)0x80020005)
#define DISP_E_UNKNOWNNAME ((HRESULT)0x80020006)
#define DISP_E_NONAMEDARGS ((HRESULT)0x80020007)
#define DISP_E_BADVARTYPE ((HRESULT)0x80020008)
#define DISP_E_EXCEPTION ((HRESULT)0x80020009)
#define DISP_E_OVERFLOW ((HRESULT)0x8002000A)
#define DISP_E_BADINDEX ((HRESULT)0x8002000B)
#define DISP_E_UNKNOWNLCID ((HRESULT)0x8002000C)
#define DISP_E_ARRAYISLOCKED ((HRESULT)0x8002000D)
#define DISP_E_BADPARAMCOUNT ((HRESULT)0x8002000E)
#define DISP_E_PARAMNOTOPTIONAL ((HRESULT)0x8002000F)
#define DISP_E_BADCALLEE ((HRESULT)0x80020010)
#define DISP_E_NOTACOLLECTION ((HRESULT)0x80020011)
#define DISP_E_DIVBYZERO ((HRESULT)0x80020012)
#define DISP_E_BUFFERTOOSMALL ((HRESULT)0x80020013)

#define TYPE_E_ELEMENTNOTFOUND ((HRESULT)0x8002802B)
#define TYPE_E_LIBNOTREGISTERED ((HRESULT)0x8002801D)

#define CLASS_E_NOAGGREGATION ((HRESULT)0x80040110)
#define CLASS_E_CLASSNOTAVAILABLE ((HRESULT)0x80040111)
#define CLASS_E_NOTLICENSED ((HRESULT)0x80040112)
#define REGDB_E_CLASSNOTREG ((HRESULT)0x80040154)
#define CO_E_NOTINITIALIZED ((HRESULT)0x800401F0)

#endif  // VEKX_POSIX_BASE_TYPES_H_
