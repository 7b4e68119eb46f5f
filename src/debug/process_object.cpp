#include "debug/process_object.h"

#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "api/byte_array_landing.h"
#include "api/error_reporting.h"
#include "api/result_values.h"
#include "debug/value_objects.h"
#include "debug/variant_arguments.h"
#include "requests/catalogue.h"
#include "vekxapi/com_ptr.h"

namespace qv {
namespace {

// Every kind of application object; what ApplicationObjectInfo asks for.
constexpr uint32_t kAllAppObjects =
    APP_OBJ_TYPE_FIBER | APP_OBJ_TYPE_ULT | APP_OBJ_TYPE_JOB_MANAGER;
// Network emulation for every port of the process.
constexpr uint32_t kEveryPort = 0xFFFFFFFF;

HRESULT CopyText(BSTR text, WString& copy) noexcept {
  try {
    copy.assign(InString(text));
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace

CKXVEProcess::CKXVEProcess(SharedClient client, uint32_t target, uint32_t pid) noexcept
    : client_(std::move(client)), target_(target), pid_(pid) {}

bool CKXVEProcess::IsFamily(REFIID iid) {
  static const IID* const kFamily[] = {
      &IID_IProcess,  &IID_IProcess2, &IID_IProcess3, &IID_IProcess4, &IID_IProcess5,
      &IID_IProcess6, &IID_IProcess7, &IID_IProcess8, &IID_IProcess9, &IID_IProcess10,
  };
  return IsOneOf(iid, kFamily);
}

HRESULT CreateProcessObject(const SharedClient& client, uint32_t target, uint32_t pid, REFIID iid,
                            void** out) noexcept {
  return CreateObject<CKXVEProcess>(iid, out, client, target, pid);
}

template <class Request, class Response>
HRESULT CKXVEProcess::Send(Request& request, Response& response,
                           std::shared_ptr<BulkLanding> landing) const noexcept {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  request.ProcessID = pid_;
  return CallServer(*client_, target_, request, response, std::move(landing));
}

template <class Request, class Response>
HRESULT CKXVEProcess::Command() const noexcept {
  Request request;
  Response response;
  return Send(request, response);
}

HRESULT CKXVEProcess::get_Id(ULONG* pId) {
  if (pId == nullptr) return ReportError(E_POINTER);
  *pId = pid_;
  return S_OK;
}

HRESULT CKXVEProcess::GetMemory(ULONGLONG nAddress, ULONG nByteCount, ULONG* pBadCount,
                                VARIANT* pBuffer) {
  if (pBuffer == nullptr) return ReportError(E_POINTER);
  CGetMemoryRequest request;
  request.BaseAddress = nAddress;
  request.Size = nByteCount;
  CGetMemoryResponse response;
  const auto landing = ByteArrayLanding::Make(nByteCount);
  if (HRESULT hr = Send(request, response, landing); FAILED(hr)) return hr;
  if (HRESULT hr = ByteArrayLanding::Out(landing, response.ReadData, pBuffer); FAILED(hr))
    return ReportError(hr);
  if (pBadCount != nullptr) *pBadCount = response.BadBytes;
  return S_OK;
}

HRESULT CKXVEProcess::SetMemory(ULONGLONG nAddress, VARIANT Buffer, ULONG* pWritten) {
  if (pWritten == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CSetMemoryRequest request;
  if (HRESULT hr = BytesArgument(Buffer, false, request.WriteData); FAILED(hr))
    return ReportError(hr);
  request.BaseAddress = nAddress;
  CSetMemoryResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  *pWritten = response.BytesWritten;
  return S_OK;
}

HRESULT CKXVEProcess::Attach(ULONG nFlags) {
  CAttachProcessRequest request;
  request.Flags = nFlags;
  CAttachProcessResponse response;
  return Send(request, response);
}

HRESULT CKXVEProcess::Detach(ULONG nFlags) {
  CDetachProcessRequest request;
  request.Flags = nFlags;
  CDetachProcessResponse response;
  return Send(request, response);
}

HRESULT CKXVEProcess::Suspend(IProcessInfo** ppProcessInfo, VARIANT* pThreadInfo,
                              VARIANT* pFailedThreads) {
  if (ppProcessInfo == nullptr || pThreadInfo == nullptr || pFailedThreads == nullptr)
    return ReportError(E_POINTER);
  CSuspendProcessRequest request;
  CSuspendProcessResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  // Built in this order, and handed out only when all three could be made.
  VARIANT failed;
  VariantInit(&failed);
  if (HRESULT hr = OutU32Array(response.FailedThreads, &failed); FAILED(hr)) return ReportError(hr);
  vekx::ComPtr<IProcessInfo> info;
  const DebugContext context{client_, target_, pid_};
  if (HRESULT hr = CreateProcessInfoObject(response.ProcessInfo, context, info.Put()); FAILED(hr)) {
    VariantClear(&failed);
    return ReportError(hr);
  }
  VARIANT threads;
  VariantInit(&threads);
  if (HRESULT hr = OutThreadInfoArray(response.ThreadInfoList, context, &threads); FAILED(hr)) {
    VariantClear(&failed);
    return ReportError(hr);
  }
  *pFailedThreads = failed;
  *ppProcessInfo = info.Detach();
  *pThreadInfo = threads;
  return S_OK;
}

HRESULT CKXVEProcess::Resume(VARIANT pThreadIds, VARIANT* pFailedThreads) {
  if (pFailedThreads == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CResumeProcessRequest request;
  if (HRESULT hr = ThreadIdsArgument(pThreadIds, request.ThreadsToStep); FAILED(hr))
    return ReportError(hr);
  CResumeProcessResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutU32Array(response.FailedToStartThreadList, pFailedThreads));
}

HRESULT CKXVEProcess::Kill() {
  return Command<CKillProcessRequest, CKillProcessResponse>();
}

HRESULT CKXVEProcess::get_ThreadInfoSnapshot(VARIANT* pThreads) {
  if (pThreads == nullptr) return ReportError(E_POINTER);
  CGetThreadInfoSnapshotRequest request;
  CGetThreadInfoSnapshotResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(
      OutThreadInfoArray(response.ThreadInfoList, {client_, target_, pid_}, pThreads));
}

HRESULT CKXVEProcess::get_Modules(VARIANT* pModules) {
  if (pModules == nullptr) return ReportError(E_POINTER);
  CGetModuleInfoListRequest request;
  CGetModuleInfoListResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutModuleArray(response.ModuleInfoList, pModules));
}

HRESULT CKXVEProcess::get_SoftwareBreakpoints(VARIANT* pBreakpoints) {
  if (pBreakpoints == nullptr) return ReportError(E_POINTER);
  CGetSoftwareBreakPointListRequest request;
  CGetSoftwareBreakPointListResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutSoftwareBreakpointArray(response.SoftwareBreakPointList, pBreakpoints));
}

HRESULT CKXVEProcess::SetSoftwareBreakpoint(ULONG nThreadId, ULONGLONG nAddress,
                                            eSoftwareBreakPtAttr eAttributes, ULONG nHitCount,
                                            VARIANT pScriptDIFCodes, VARIANT* pOpcode,
                                            ULONG* pBreakpointId) {
  if (pOpcode == nullptr || pBreakpointId == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CSetSoftwareBreakPointRequest request;
  if (HRESULT hr = BytesArgument(pScriptDIFCodes, true, request.DIFByteCode); FAILED(hr))
    return ReportError(hr);
  request.ThreadID = nThreadId;
  request.Address = nAddress;
  request.Attributes = static_cast<uint32_t>(eAttributes);
  request.HitCount = nHitCount;
  CSetSoftwareBreakPointResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  if (HRESULT hr = OutByteArray(response.OriginalOpcode, pOpcode); FAILED(hr))
    return ReportError(hr);
  *pBreakpointId = response.BreakPtId;
  return S_OK;
}

HRESULT CKXVEProcess::ClearSoftwareBreakpoint(ULONG nId) {
  CClearSoftwareBreakPointRequest request;
  request.BreakPtId = nId;
  CClearSoftwareBreakPointResponse response;
  return Send(request, response);
}

HRESULT CKXVEProcess::get_HardwareBreakpoints(VARIANT* pBreakpoints) {
  if (pBreakpoints == nullptr) return ReportError(E_POINTER);
  CGetHardwareBreakPointListRequest request;
  CGetHardwareBreakPointListResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutHardwareBreakpointArray(response.HardwareBreakPointList, pBreakpoints));
}

HRESULT CKXVEProcess::SetHardwareBreakpoint(ULONGLONG nAddress, eHardwareBreakPtFlags eFlags,
                                            ULONG nRegionSize, ULONG* pBreakpointId) {
  if (pBreakpointId == nullptr) return ReportError(E_POINTER);
  CSetHardwareBreakPointRequest request;
  request.Address = nAddress;
  request.Flags = static_cast<uint32_t>(eFlags);
  request.RegionSize = nRegionSize;
  CSetHardwareBreakPointResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  *pBreakpointId = response.BreakPtId;
  return S_OK;
}

HRESULT CKXVEProcess::ClearHardwareBreakpoint(ULONG nId) {
  CClearHardwareBreakPointRequest request;
  request.BreakPtId = nId;
  CClearHardwareBreakPointResponse response;
  return Send(request, response);
}

// The request goes out before the out-pointer is looked at: a null one still asks the target.
HRESULT CKXVEProcess::get_SyncPrimitives(VARIANT* pSyncPrimitives) {
  CGetSyncPrimInfoListRequest request;  // no types or ids: every primitive of the process
  CGetSyncPrimInfoListResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  if (pSyncPrimitives == nullptr) return ReportError(E_POINTER);
  return ReportError(OutSyncPrimitiveArray(response.SyncPrimInfo, pSyncPrimitives));
}

HRESULT CKXVEProcess::SendConsoleInput(eConsoleOutputPort Port, BSTR bstrInputText) {
  if (bstrInputText == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CSendConsoleInputRequest request;
  request.Port = static_cast<uint32_t>(Port);
  request.Category = PROCESS_OUTPUT;
  request.ProcessId = pid_;
  if (HRESULT hr = CopyText(bstrInputText, request.Text); FAILED(hr)) return ReportError(hr);
  if (request.Text.empty()) return ReportError(E_INVALIDARG);
  CSendConsoleInputResponse response;
  return CallServer(*client_, target_, request, response);
}

HRESULT CKXVEProcess::get_ApplicationObjectInfo(IAppObjectInfo** ppInfo) {
  return ApplicationObjects(static_cast<eAppObjectType>(kAllAppObjects), ppInfo);
}

HRESULT CKXVEProcess::CancelCoredump() {
  return Command<CCancelCoredumpRequest, CCancelCoredumpResponse>();
}

HRESULT CKXVEProcess::TriggerCoredump(BSTR bstrPath, eCoreDumpType eDumpType) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CTriggerCoredumpRequest request;
  if (HRESULT hr = CopyText(bstrPath, request.OutputPath); FAILED(hr)) return ReportError(hr);
  request.DumpType = static_cast<uint32_t>(eDumpType);
  CTriggerCoredumpResponse response;
  return Send(request, response);
}

template <class Request, class Response>
HRESULT CKXVEProcess::Allocate(ULONG size, ULONG flags, BSTR name, ULONGLONG start, ULONGLONG end,
                               ULONGLONG* address) const noexcept {
  if (address == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  Request request;
  if (HRESULT hr = CopyText(name, request.Name); FAILED(hr)) return ReportError(hr);
  request.PageSize = size;
  request.Flags = flags;
  request.StartAddress = start;
  request.EndAddress = end;
  Response response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  *address = response.Address;
  return S_OK;
}

template <class Request, class Response>
HRESULT CKXVEProcess::Deallocate(ULONGLONG address, ULONG flags) const noexcept {
  Request request;
  request.Address = address;
  request.Flags = flags;
  Response response;
  return Send(request, response);
}

#define VEKX_PAGE_CALLS(Kind)                                                                    \
  HRESULT CKXVEProcess::Allocate##Kind##Page(ULONG uSize, ULONGLONG* pAddress) {                 \
    return Allocate<CAllocate##Kind##PageRequest, CAllocate##Kind##PageResponse>(                \
        uSize, 0, nullptr, 0, 0, pAddress);                                                      \
  }                                                                                              \
  HRESULT CKXVEProcess::Allocate##Kind##PageEx(ULONG uSize, ULONG uFlags, BSTR bstrName,         \
                                               ULONGLONG* pAddress) {                            \
    return Allocate<CAllocate##Kind##PageRequest, CAllocate##Kind##PageResponse>(                \
        uSize, uFlags, bstrName, 0, 0, pAddress);                                                \
  }                                                                                              \
  HRESULT CKXVEProcess::Allocate##Kind##PageEx2(ULONG uSize, ULONG uFlags, BSTR bstrName,        \
                                                ULONGLONG uStartAddress, ULONGLONG uEndAddress,  \
                                                ULONGLONG* pAddress) {                           \
    return Allocate<CAllocate##Kind##PageRequest, CAllocate##Kind##PageResponse>(                \
        uSize, uFlags, bstrName, uStartAddress, uEndAddress, pAddress);                          \
  }                                                                                              \
  HRESULT CKXVEProcess::Deallocate##Kind##Page(ULONGLONG uAddress) {                             \
    return Deallocate<CDeallocate##Kind##PageRequest, CDeallocate##Kind##PageResponse>(uAddress, \
                                                                                       0);       \
  }                                                                                              \
  HRESULT CKXVEProcess::Deallocate##Kind##PageEx(ULONGLONG uAddress, ULONG uFlags) {             \
    return Deallocate<CDeallocate##Kind##PageRequest, CDeallocate##Kind##PageResponse>(uAddress, \
                                                                                       uFlags);  \
  }
VEKX_PAGE_CALLS(Executable)
VEKX_PAGE_CALLS(Data)
#undef VEKX_PAGE_CALLS

HRESULT CKXVEProcess::get_SocketInfo(VARIANT* pSockets) {
  if (pSockets == nullptr) return ReportError(E_POINTER);
  CGetSocketInfoRequest request;
  CGetSocketInfoResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutSocketArray(response.SocketInfoList, pSockets));
}

HRESULT CKXVEProcess::get_VirtualMemoryInfo(VARIANT* pRegions) {
  if (pRegions == nullptr) return ReportError(E_POINTER);
  CGetVmemInfoRequest request;
  CGetVmemInfoResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutVirtualMemoryArray(response.VirtualMemoryList, pRegions));
}

HRESULT CKXVEProcess::ScatteredReadMemory(VARIANT arrAddresses, VARIANT* pData) {
  if (pData == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CGetScatteredMemoryRequest request;
  if (HRESULT hr = ScatteredReadArgument(arrAddresses, request.Regions); FAILED(hr))
    return ReportError(hr);
  CGetScatteredMemoryResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutReadMemoryArray(response.Data, pData));
}

HRESULT CKXVEProcess::ScatteredWriteMemory(VARIANT arrAddresses, VARIANT* pResults) {
  if (pResults == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CSetScatteredMemoryRequest request;
  if (HRESULT hr = ScatteredWriteArgument(arrAddresses, request.Regions); FAILED(hr))
    return ReportError(hr);
  CSetScatteredMemoryResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutU32Array(response.Results, pResults));
}

HRESULT GetCompressedMemoryOf(const SharedClient& client, uint32_t target, uint32_t pid,
                              ULONGLONG address, ULONG count, ULONG compression,
                              VARIANT_BOOL decompress, VARIANT* buffer) noexcept {
  if (buffer == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  CGetLargeMemoryRequest request;
  request.ProcessID = pid;
  request.BaseAddress = address;
  request.Size = count;
  request.Compression = compression;
  CGetLargeMemoryResponse response;
  const auto landing = ByteArrayLanding::Make(count);
  if (HRESULT hr = client->Call(target, request, response, landing); FAILED(hr)) return hr;
  if (compression != 0 && decompress == VARIANT_TRUE) return ReportError(E_NOTIMPL);
  return ReportError(ByteArrayLanding::Out(landing, response.ReadData, buffer));
}

HRESULT CKXVEProcess::GetCompressedMemory(ULONGLONG nAddress, ULONG nByteCount, ULONG nCompression,
                                          VARIANT_BOOL bDecompress, VARIANT* pBuffer) {
  return GetCompressedMemoryOf(client_, target_, pid_, nAddress, nByteCount, nCompression,
                               bDecompress, pBuffer);
}

HRESULT CKXVEProcess::ReadGpuInfo(ULONG uFlags, VARIANT* pInfo) {
  if (pInfo == nullptr) return ReportError(E_POINTER);
  CReadGpuInfoRequest request;
  request.Flags = uFlags;
  CReadGpuInfoResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutByteArray(response.GpuInfo, pInfo));
}

HRESULT CKXVEProcess::get_Files(VARIANT* pFiles) {
  if (pFiles == nullptr) return ReportError(E_POINTER);
  CGetFilesRequest request;
  CGetFilesResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutFileArray(response.FileList, pFiles));
}

HRESULT CKXVEProcess::GetNetworkEmulationParams(VARIANT* pParams) {
  if (pParams == nullptr) return ReportError(E_POINTER);
  CGetNetworkEmulationSettingsRequest request;
  CGetNetworkEmulationSettingsResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutU32Array(response.Params, pParams));
}

HRESULT CKXVEProcess::SetNetworkParams(ULONG port, const VARIANT* params) const noexcept {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CSetNetworkEmulationSettingsRequest request;
  request.Port = port;
  if (params != nullptr) {
    if (HRESULT hr = NetworkParamsArgument(*params, request.Params); FAILED(hr))
      return ReportError(hr);
  }
  CSetNetworkEmulationSettingsResponse response;
  return Send(request, response);
}

HRESULT CKXVEProcess::SetNetworkEmulationParams(VARIANT Params) {
  return SetNetworkParams(kEveryPort, &Params);
}

HRESULT CKXVEProcess::SetNetworkEmulationParamsForPort(ULONG uPort, VARIANT Params) {
  return SetNetworkParams(uPort, &Params);
}

HRESULT CKXVEProcess::SetNetworkEmulationParamsDefault() {
  return SetNetworkParams(kEveryPort, nullptr);
}

HRESULT CKXVEProcess::ApplicationObjects(eAppObjectType uFlags, IAppObjectInfo** ppInfo) {
  if (ppInfo == nullptr) return ReportError(E_POINTER);
  CGetAppObjectInfoRequest request;
  request.Flags = static_cast<uint32_t>(uFlags);
  CGetAppObjectInfoResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(CreateAppObjectInfoObject(response.AppObjectInfo, request.Flags, ppInfo));
}

HRESULT CKXVEProcess::DumpVRInfo() {
  return Command<CDumpVRInfoRequest, CDumpVRInfoResponse>();
}

}  // namespace qv
