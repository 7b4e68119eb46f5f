// GUIDs and the core automation interfaces for the POSIX build.
//
// The interfaces are pure abstract structs whose virtual functions are declared in COM order,
// so that the Itanium C++ ABI lays their vtables out exactly as COM does on Windows x64: slot 0
// QueryInterface, 1 AddRef, 2 Release, then each derived interface's methods in order. They
// have no data, no virtual destructor (that would add vtable slots) and a protected destructor,
// so an interface pointer can only be released, never deleted. Reference counts live in the
// implementing classes.
//
// Include "vekxapi/automation.h" rather than this file.
#ifndef VEKX_POSIX_INTERFACES_H_
#define VEKX_POSIX_INTERFACES_H_

#include "vekxapi/posix/base_types.h"
#include "vekxapi/posix/bstr.h"

// Windows' headers define `interface` as `struct`; doing the same here keeps code that uses it
// as an ordinary identifier from compiling on one platform only.
#ifndef interface
#define interface struct
#endif

#define MIDL_INTERFACE(x) struct DECLSPEC_UUID(x) DECLSPEC_NOVTABLE

// ---------------------------------------------------------------------------------------------
// GUIDs.

typedef struct _GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
} GUID;
typedef GUID IID;
typedef GUID CLSID;
typedef GUID* LPGUID;
typedef IID* LPIID;
typedef CLSID* LPCLSID;

static_assert(sizeof(GUID) == 16, "GUID is 16 bytes on every platform");

#define REFGUID const GUID&
#define REFIID const IID&
#define REFCLSID const CLSID&

inline bool IsEqualGUID(REFGUID a, REFGUID b) {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
  for (int i = 0; i < 8; ++i) {
    if (a.Data4[i] != b.Data4[i]) return false;
  }
  return true;
}
inline bool IsEqualIID(REFIID a, REFIID b) {
  return IsEqualGUID(a, b);
}
inline bool IsEqualCLSID(REFCLSID a, REFCLSID b) {
  return IsEqualGUID(a, b);
}
inline bool operator==(REFGUID a, REFGUID b) {
  return IsEqualGUID(a, b);
}

// guiddef.h semantics: a declaration, or a definition in the one file that defines INITGUID.
#ifdef INITGUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  EXTERN_C const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) EXTERN_C const GUID name
#endif

EXTERN_C const GUID GUID_NULL;
EXTERN_C const IID IID_NULL;
EXTERN_C const IID IID_IUnknown;
EXTERN_C const IID IID_IDispatch;
EXTERN_C const IID IID_IClassFactory;
EXTERN_C const IID IID_IErrorInfo;
EXTERN_C const IID IID_ICreateErrorInfo;
EXTERN_C const IID IID_ISupportErrorInfo;
EXTERN_C const IID IID_ITypeInfo;
EXTERN_C const IID IID_IRecordInfo;
EXTERN_C const IID IID_IEnumVARIANT;

// ---------------------------------------------------------------------------------------------
// Dispatch structures. VARIANT itself is defined in variant.h; only pointers to it appear here.

struct tagVARIANT;
typedef tagVARIANT VARIANT;
typedef tagVARIANT VARIANTARG;

typedef struct tagDISPPARAMS {
  VARIANTARG* rgvarg;
  DISPID* rgdispidNamedArgs;
  UINT cArgs;
  UINT cNamedArgs;
} DISPPARAMS;

typedef struct tagEXCEPINFO {
  WORD wCode;
  WORD wReserved;
  BSTR bstrSource;
  BSTR bstrDescription;
  BSTR bstrHelpFile;
  DWORD dwHelpContext;
  PVOID pvReserved;
  HRESULT(STDMETHODCALLTYPE* pfnDeferredFillIn)(struct tagEXCEPINFO*);
  SCODE scode;
} EXCEPINFO;
typedef EXCEPINFO* LPEXCEPINFO;

static_assert(sizeof(DISPPARAMS) == 24, "DISPPARAMS layout is the Windows x64 layout");
static_assert(sizeof(EXCEPINFO) == 64, "EXCEPINFO layout is the Windows x64 layout");

#define DISPATCH_METHOD 0x1
#define DISPATCH_PROPERTYGET 0x2
#define DISPATCH_PROPERTYPUT 0x4
#define DISPATCH_PROPERTYPUTREF 0x8

#define DISPID_UNKNOWN (-1)
#define DISPID_VALUE 0
#define DISPID_PROPERTYPUT (-3)
#define DISPID_NEWENUM (-4)
#define DISPID_EVALUATE (-5)
#define DISPID_CONSTRUCTOR (-6)
#define DISPID_DESTRUCTOR (-7)
#define DISPID_COLLECT (-8)

// ---------------------------------------------------------------------------------------------
// Interfaces.

struct ITypeInfo;  // Named by IDispatch and IRecordInfo; never called by this library.

struct IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppvObject) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;

 protected:
  ~IUnknown() = default;
};
typedef IUnknown* LPUNKNOWN;

struct IDispatch : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* pctinfo) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames,
                                                  LCID lcid, DISPID* rgDispId) = 0;
  virtual HRESULT STDMETHODCALLTYPE Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, WORD wFlags,
                                           DISPPARAMS* pDispParams, VARIANT* pVarResult,
                                           EXCEPINFO* pExcepInfo, UINT* puArgErr) = 0;

 protected:
  ~IDispatch() = default;
};
typedef IDispatch* LPDISPATCH;

struct IClassFactory : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pUnkOuter, REFIID riid,
                                                   void** ppvObject) = 0;
  virtual HRESULT STDMETHODCALLTYPE LockServer(BOOL fLock) = 0;

 protected:
  ~IClassFactory() = default;
};

struct IErrorInfo : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetGUID(GUID* pGUID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSource(BSTR* pBstrSource) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDescription(BSTR* pBstrDescription) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* pBstrHelpFile) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* pdwHelpContext) = 0;

 protected:
  ~IErrorInfo() = default;
};

struct ICreateErrorInfo : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE SetGUID(REFGUID rguid) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetSource(LPOLESTR szSource) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetDescription(LPOLESTR szDescription) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetHelpFile(LPOLESTR szHelpFile) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetHelpContext(DWORD dwHelpContext) = 0;

 protected:
  ~ICreateErrorInfo() = default;
};

struct ISupportErrorInfo : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) = 0;

 protected:
  ~ISupportErrorInfo() = default;
};

// Describes a user-defined type held in a VT_RECORD variant. The library never creates
// records; the declaration exists so that VariantClear can release one it is handed.
struct IRecordInfo : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE RecordInit(PVOID pvNew) = 0;
  virtual HRESULT STDMETHODCALLTYPE RecordClear(PVOID pvExisting) = 0;
  virtual HRESULT STDMETHODCALLTYPE RecordCopy(PVOID pvExisting, PVOID pvNew) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetGuid(GUID* pguid) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetName(BSTR* pbstrName) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSize(ULONG* pcbSize) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetTypeInfo(ITypeInfo** ppTypeInfo) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetField(PVOID pvData, LPCOLESTR szFieldName,
                                             VARIANT* pvarField) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFieldNoCopy(PVOID pvData, LPCOLESTR szFieldName,
                                                   VARIANT* pvarField, PVOID* ppvDataCArray) = 0;
  virtual HRESULT STDMETHODCALLTYPE PutField(ULONG wFlags, PVOID pvData, LPCOLESTR szFieldName,
                                             VARIANT* pvarField) = 0;
  virtual HRESULT STDMETHODCALLTYPE PutFieldNoCopy(ULONG wFlags, PVOID pvData,
                                                   LPCOLESTR szFieldName, VARIANT* pvarField) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFieldNames(ULONG* pcNames, BSTR* rgBstrNames) = 0;
  virtual BOOL STDMETHODCALLTYPE IsMatchingType(IRecordInfo* pRecordInfo) = 0;
  virtual PVOID STDMETHODCALLTYPE RecordCreate() = 0;
  virtual HRESULT STDMETHODCALLTYPE RecordCreateCopy(PVOID pvSource, PVOID* ppvDest) = 0;
  virtual HRESULT STDMETHODCALLTYPE RecordDestroy(PVOID pvRecord) = 0;

 protected:
  ~IRecordInfo() = default;
};

#endif  // VEKX_POSIX_INTERFACES_H_
