#pragma once
// Read-only objects made from what a target reported: process, thread and module descriptions,
// breakpoints, stop reasons, memory maps, sockets, files, and the synchronisation and application
// objects of a process. Each copies its record when it is made and never changes; properties
// hand out copies. The classes are generated from the table in value_objects.def.
//
// Every function fills its out-argument only when all of it could be made: E_POINTER for a null
// one, E_OUTOFMEMORY when memory runs out. Arrays are VT_ARRAY | VT_VARIANT of VT_DISPATCH.

#include <cstdint>

#include "debug/debug_context.h"
#include "platform/automation.h"
#include "requests/catalogue.h"
#include "vekxapi/vekxapi.h"

namespace qv {

HRESULT CreateProcessInfoObject(const ProcessInfoRecord& record, const DebugContext& context,
                                IProcessInfo** out) noexcept;
HRESULT CreateModuleObject(const ModuleInfoRecord& record, IModule** out) noexcept;
// The stop of `notification.Process`; its thread objects reach the process through `context`.
HRESULT CreateStopNotificationObject(const CStopNotificationNotification& notification,
                                     const DebugContext& context, IStopNotification** out) noexcept;
// `asked` are the eAppObjectType bits the request asked for, which Valid compares the answer with.
HRESULT CreateAppObjectInfoObject(const AppObjectInfoRecord& record, uint32_t asked,
                                  IAppObjectInfo** out) noexcept;
HRESULT CreateASanErrorObject(const CGetCoredumpUserDataResponse& report,
                              IASanErrorDescription** out) noexcept;

HRESULT OutProcessInfoArray(const ProcessInfoList& list, const DebugContext& context,
                            VARIANT* out) noexcept;
HRESULT OutThreadInfoArray(const ThreadInfoList& list, const DebugContext& context,
                           VARIANT* out) noexcept;
HRESULT OutModuleArray(const ModuleInfoList& list, VARIANT* out) noexcept;
HRESULT OutSoftwareBreakpointArray(const SoftwareBreakpointList& list, VARIANT* out) noexcept;
HRESULT OutHardwareBreakpointArray(const HardwareBreakpointList& list, VARIANT* out) noexcept;
HRESULT OutVirtualMemoryArray(const VirtualMemoryList& list, VARIANT* out) noexcept;
HRESULT OutSocketArray(const SocketInfoList& list, VARIANT* out) noexcept;
HRESULT OutFileArray(const OpenFileList& list, VARIANT* out) noexcept;
HRESULT OutReadMemoryArray(const ScatteredDataList& list, VARIANT* out) noexcept;
// The twenty lists of the answer one after another, each object of its kind's class.
HRESULT OutSyncPrimitiveArray(const SyncPrimInfoRecord& lists, VARIANT* out) noexcept;

}  // namespace qv
