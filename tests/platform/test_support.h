// Automation objects, owners and helpers for the platform tests, usable against real OLE and
// against our POSIX implementation alike.
#ifndef VEKX_TESTS_PLATFORM_TEST_SUPPORT_H_
#define VEKX_TESTS_PLATFORM_TEST_SUPPORT_H_

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "platform/automation.h"
#include "platform/wide_string.h"

namespace qv::platform::test_support {

// A COM object of `Interface` whose reference count the test can read. It never deletes itself:
// it lives in the test's scope and starts with the one reference the test holds, so refs() == 1
// means everything else has let go. It answers QueryInterface for IUnknown and `iid` only.
template <class Interface, const IID& iid>
class Counted : public Interface {
 public:
  ULONG refs() const { return refs_.load(); }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppvObject) override {
    if (ppvObject == nullptr) return E_POINTER;
    if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, iid)) {
      *ppvObject = nullptr;
      return E_NOINTERFACE;
    }
    *ppvObject = static_cast<Interface*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }

 private:
  std::atomic<ULONG> refs_{1};
};

// An IDispatch that dispatches nothing.
class CountedObject final : public Counted<IDispatch, IID_IDispatch> {
 public:
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                   UINT*) override {
    return E_NOTIMPL;
  }
};

// An IErrorInfo that describes nothing.
class CountedErrorInfo final : public Counted<IErrorInfo, IID_IErrorInfo> {
 public:
  HRESULT STDMETHODCALLTYPE GetGUID(GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetSource(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDescription(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD*) override { return E_NOTIMPL; }
};

struct BstrDeleter {
  void operator()(OLECHAR* bstr) const { SysFreeString(bstr); }
};
using UniqueBstr = std::unique_ptr<OLECHAR, BstrDeleter>;

inline UniqueBstr MakeBstr(std::u16string_view text) {
  return UniqueBstr(AllocBstr(text));
}

struct SafeArrayDeleter {
  void operator()(SAFEARRAY* array) const { SafeArrayDestroy(array); }
};
using UniqueSafeArray = std::unique_ptr<SAFEARRAY, SafeArrayDeleter>;

// A VARIANT cleared when it goes out of scope.
struct ScopedVariant : VARIANT {
  ScopedVariant() { VariantInit(this); }
  ~ScopedVariant() { VariantClear(this); }
  ScopedVariant(const ScopedVariant&) = delete;
  ScopedVariant& operator=(const ScopedVariant&) = delete;
};

// Whether the Windows build is running under Wine, whose system texts and a few behaviours
// differ from Windows. Tests mark each such difference where they accept it.
inline bool RunningUnderWine() {
#ifdef _WIN32
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
  return false;
#endif
}

// ICreateErrorInfo's setters take a non-const string, which they only read.
inline LPOLESTR MutableOle(const char16_t* text) {
  return const_cast<LPOLESTR>(ToOleChars(text));
}

}  // namespace qv::platform::test_support

#endif  // VEKX_TESTS_PLATFORM_TEST_SUPPORT_H_
