#include "platform/dispatch.h"

namespace qv::platform {

bool HasDispatchTypeInfo(REFIID) {
  return false;
}

HRESULT DispatchTypeInfo(REFIID, ITypeInfo** info) {
  if (info == nullptr) return E_POINTER;
  *info = nullptr;
  return E_NOTIMPL;
}

HRESULT DispatchIdsOfNames(REFIID, LPOLESTR*, UINT, DISPID*) {
  return E_NOTIMPL;
}

HRESULT DispatchInvoke(void*, REFIID, DISPID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) {
  return E_NOTIMPL;
}

}  // namespace qv::platform
