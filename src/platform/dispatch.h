#pragma once
// Late binding for the public objects: what IDispatch needs from the platform.
//
// On Windows the DLL carries the type library as a resource, and scripts call our dual
// interfaces through it (the system's DispInvoke reads the vtable layout from the library). On
// POSIX there is no type library and no script host: these calls fail with E_NOTIMPL, and
// clients use the vtable directly.

#include "platform/automation.h"

namespace qv::platform {

// Whether the module's type library describes interface `iid`.
bool HasDispatchTypeInfo(REFIID iid);
// The type information of interface `iid` from the module's type library; the caller owns the
// reference. TYPE_E_ELEMENTNOTFOUND for an interface the library does not describe.
HRESULT DispatchTypeInfo(REFIID iid, ITypeInfo** info);

// IDispatch::GetIDsOfNames and IDispatch::Invoke for `object`, a pointer to interface `iid`.
HRESULT DispatchIdsOfNames(REFIID iid, LPOLESTR* names, UINT count, DISPID* ids);
HRESULT DispatchInvoke(void* object, REFIID iid, DISPID member, WORD flags, DISPPARAMS* params,
                       VARIANT* result, EXCEPINFO* exception, UINT* bad_argument);

}  // namespace qv::platform
