#include "vekxapi/posix/error_info.h"

#include <atomic>
#include <mutex>
#include <new>
#include <utility>

namespace {

// A copy of `text` (nullptr for nullptr); false only when memory runs out.
bool CopyString(const OLECHAR* text, BSTR* out) {
  *out = text != nullptr ? SysAllocString(text) : nullptr;
  return text == nullptr || *out != nullptr;
}

bool CopyBstr(BSTR text, BSTR* out) {
  *out = text != nullptr
             ? SysAllocStringByteLen(reinterpret_cast<LPCSTR>(text), SysStringByteLen(text))
             : nullptr;
  return text == nullptr || *out != nullptr;
}

// The error object CreateErrorInfo hands out: written through ICreateErrorInfo, read through
// IErrorInfo. IErrorInfo is its IUnknown identity.
class ErrorObject final : public IErrorInfo, public ICreateErrorInfo {
 public:
  ErrorObject() = default;
  ErrorObject(const ErrorObject&) = delete;
  ErrorObject& operator=(const ErrorObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppvObject) override {
    if (ppvObject == nullptr) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IErrorInfo) {
      *ppvObject = static_cast<IErrorInfo*>(this);
    } else if (riid == IID_ICreateErrorInfo) {
      *ppvObject = static_cast<ICreateErrorInfo*>(this);
    } else {
      *ppvObject = nullptr;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }

  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.fetch_add(1) + 1; }

  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG remaining = refs_.fetch_sub(1) - 1;
    if (remaining == 0) delete this;
    return remaining;  // A local: `this` may be gone.
  }

  // IErrorInfo.
  HRESULT STDMETHODCALLTYPE GetGUID(GUID* pGUID) override {
    if (pGUID == nullptr) return E_INVALIDARG;
    std::lock_guard lock(mutex_);
    *pGUID = guid_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetSource(BSTR* pBstrSource) override {
    return Read(source_, pBstrSource);
  }
  HRESULT STDMETHODCALLTYPE GetDescription(BSTR* pBstrDescription) override {
    return Read(description_, pBstrDescription);
  }
  HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* pBstrHelpFile) override {
    return Read(help_file_, pBstrHelpFile);
  }
  HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* pdwHelpContext) override {
    if (pdwHelpContext == nullptr) return E_INVALIDARG;
    std::lock_guard lock(mutex_);
    *pdwHelpContext = help_context_;
    return S_OK;
  }

  // ICreateErrorInfo.
  HRESULT STDMETHODCALLTYPE SetGUID(REFGUID rguid) override {
    std::lock_guard lock(mutex_);
    guid_ = rguid;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetSource(LPOLESTR szSource) override {
    return Write(szSource, &source_);
  }
  HRESULT STDMETHODCALLTYPE SetDescription(LPOLESTR szDescription) override {
    return Write(szDescription, &description_);
  }
  HRESULT STDMETHODCALLTYPE SetHelpFile(LPOLESTR szHelpFile) override {
    return Write(szHelpFile, &help_file_);
  }
  HRESULT STDMETHODCALLTYPE SetHelpContext(DWORD dwHelpContext) override {
    std::lock_guard lock(mutex_);
    help_context_ = dwHelpContext;
    return S_OK;
  }

 private:
  ~ErrorObject() {
    SysFreeString(source_);
    SysFreeString(description_);
    SysFreeString(help_file_);
  }

  HRESULT Read(BSTR field, BSTR* out) {
    if (out == nullptr) return E_INVALIDARG;
    std::lock_guard lock(mutex_);
    return CopyBstr(field, out) ? S_OK : E_OUTOFMEMORY;
  }

  HRESULT Write(const OLECHAR* text, BSTR* field) {
    BSTR copy = nullptr;
    if (!CopyString(text, &copy)) return E_OUTOFMEMORY;
    std::lock_guard lock(mutex_);
    SysFreeString(std::exchange(*field, copy));
    return S_OK;
  }

  std::atomic<ULONG> refs_{1};
  // Guards the fields below: an error object may be read on a thread other than its author's.
  std::mutex mutex_;
  GUID guid_{};
  BSTR source_ = nullptr;
  BSTR description_ = nullptr;
  BSTR help_file_ = nullptr;
  DWORD help_context_ = 0;
};

// The calling thread's error object, with the reference the slot holds. Only its own thread
// touches it, so it needs no lock.
class ThreadErrorSlot {
 public:
  ThreadErrorSlot() = default;
  ThreadErrorSlot(const ThreadErrorSlot&) = delete;
  ThreadErrorSlot& operator=(const ThreadErrorSlot&) = delete;

  // Thread exit: release what is left. A Release that sets a new error object is handled by
  // going round again.
  ~ThreadErrorSlot() {
    while (IErrorInfo* info = std::exchange(info_, nullptr))
      info->Release();
  }

  IErrorInfo* Exchange(IErrorInfo* info) { return std::exchange(info_, info); }

 private:
  IErrorInfo* info_ = nullptr;
};

thread_local ThreadErrorSlot t_error_slot;

}  // namespace

HRESULT CreateErrorInfo(ICreateErrorInfo** pperrinfo) {
  if (pperrinfo == nullptr) return E_INVALIDARG;
  auto* object = new (std::nothrow) ErrorObject();
  *pperrinfo = object;
  return object != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT SetErrorInfo(ULONG dwReserved, IErrorInfo* perrinfo) {
  if (dwReserved != 0) return E_INVALIDARG;
  if (perrinfo != nullptr) perrinfo->AddRef();
  // Released after the slot is updated: the release may run code that sets error info again.
  if (IErrorInfo* old = t_error_slot.Exchange(perrinfo)) old->Release();
  return S_OK;
}

HRESULT GetErrorInfo(ULONG dwReserved, IErrorInfo** pperrinfo) {
  if (pperrinfo == nullptr) return E_INVALIDARG;
  if (dwReserved != 0) {
    *pperrinfo = nullptr;
    return E_INVALIDARG;
  }
  *pperrinfo = t_error_slot.Exchange(nullptr);
  return *pperrinfo != nullptr ? S_OK : S_FALSE;
}
