#include "platform/dispatch.h"

namespace qv::platform {
namespace {

// The type library in this module's resources, loaded once and kept for the module's life.
ITypeLib* ModuleTypeLibrary() {
  static ITypeLib* library = [] {
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCWSTR>(&ModuleTypeLibrary), &module)) {
      return static_cast<ITypeLib*>(nullptr);
    }
    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return static_cast<ITypeLib*>(nullptr);
    ITypeLib* loaded = nullptr;
    if (FAILED(LoadTypeLibEx(path, REGKIND_NONE, &loaded))) return static_cast<ITypeLib*>(nullptr);
    return loaded;
  }();
  return library;
}

}  // namespace

HRESULT DispatchTypeInfo(REFIID iid, ITypeInfo** info) {
  if (info == nullptr) return E_POINTER;
  *info = nullptr;
  ITypeLib* library = ModuleTypeLibrary();
  if (library == nullptr) return TYPE_E_LIBNOTREGISTERED;
  return library->GetTypeInfoOfGuid(iid, info);
}

bool HasDispatchTypeInfo(REFIID iid) {
  ITypeInfo* info = nullptr;
  if (FAILED(DispatchTypeInfo(iid, &info))) return false;
  info->Release();
  return true;
}

HRESULT DispatchIdsOfNames(REFIID iid, LPOLESTR* names, UINT count, DISPID* ids) {
  ITypeInfo* info = nullptr;
  const HRESULT hr = DispatchTypeInfo(iid, &info);
  if (FAILED(hr)) return hr;
  const HRESULT result = DispGetIDsOfNames(info, names, count, ids);
  info->Release();
  return result;
}

HRESULT DispatchInvoke(void* object, REFIID iid, DISPID member, WORD flags, DISPPARAMS* params,
                       VARIANT* result, EXCEPINFO* exception, UINT* bad_argument) {
  ITypeInfo* info = nullptr;
  const HRESULT hr = DispatchTypeInfo(iid, &info);
  if (FAILED(hr)) return hr;
  const HRESULT outcome =
      DispInvoke(object, info, member, flags, params, result, exception, bad_argument);
  info->Release();
  return outcome;
}

}  // namespace qv::platform
