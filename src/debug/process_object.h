#pragma once
// CKXVEProcess: one process on a target. It holds the private client, the target's handle and
// the process id, fixed when it is made, and nothing else: every method sends one request for the
// process and turns the answer into automation values, so two objects for the same process are
// interchangeable and may be used from any thread.
//
// Each method checks its out-pointers (E_POINTER), then the link (E_UNEXPECTED), then converts
// its arguments; only then does a request go out. Failures carry the server's text.

#include <cstdint>

#include "api/automation_object.h"
#include "api/server_call.h"
#include "vekxapi/vekxapi.h"

namespace qv {

class CKXVEProcess final : public AutomationObject<CKXVEProcess, IProcess10> {
 public:
  CKXVEProcess(SharedClient client, uint32_t target, uint32_t pid) noexcept;

  static bool IsFamily(REFIID iid);
  static const IID& DispatchIid() { return IID_IProcess10; }

  // IProcess
  HRESULT STDMETHODCALLTYPE get_Id(ULONG* pId) override;
  HRESULT STDMETHODCALLTYPE GetMemory(ULONGLONG nAddress, ULONG nByteCount, ULONG* pBadCount,
                                      VARIANT* pBuffer) override;
  HRESULT STDMETHODCALLTYPE SetMemory(ULONGLONG nAddress, VARIANT Buffer, ULONG* pWritten) override;
  HRESULT STDMETHODCALLTYPE Attach(ULONG nFlags) override;
  HRESULT STDMETHODCALLTYPE Detach(ULONG nFlags) override;
  HRESULT STDMETHODCALLTYPE Suspend(IProcessInfo** ppProcessInfo, VARIANT* pThreadInfo,
                                    VARIANT* pFailedThreads) override;
  HRESULT STDMETHODCALLTYPE Resume(VARIANT pThreadIds, VARIANT* pFailedThreads) override;
  HRESULT STDMETHODCALLTYPE Kill() override;
  HRESULT STDMETHODCALLTYPE get_ThreadInfoSnapshot(VARIANT* pThreads) override;
  HRESULT STDMETHODCALLTYPE get_Modules(VARIANT* pModules) override;
  HRESULT STDMETHODCALLTYPE get_SoftwareBreakpoints(VARIANT* pBreakpoints) override;
  HRESULT STDMETHODCALLTYPE SetSoftwareBreakpoint(ULONG nThreadId, ULONGLONG nAddress,
                                                  eSoftwareBreakPtAttr eAttributes, ULONG nHitCount,
                                                  VARIANT pScriptDIFCodes, VARIANT* pOpcode,
                                                  ULONG* pBreakpointId) override;
  HRESULT STDMETHODCALLTYPE ClearSoftwareBreakpoint(ULONG nId) override;
  HRESULT STDMETHODCALLTYPE get_HardwareBreakpoints(VARIANT* pBreakpoints) override;
  HRESULT STDMETHODCALLTYPE SetHardwareBreakpoint(ULONGLONG nAddress, eHardwareBreakPtFlags eFlags,
                                                  ULONG nRegionSize, ULONG* pBreakpointId) override;
  HRESULT STDMETHODCALLTYPE ClearHardwareBreakpoint(ULONG nId) override;
  HRESULT STDMETHODCALLTYPE get_SyncPrimitives(VARIANT* pSyncPrimitives) override;
  HRESULT STDMETHODCALLTYPE SendConsoleInput(eConsoleOutputPort Port, BSTR bstrInputText) override;
  // IProcess2
  HRESULT STDMETHODCALLTYPE get_ApplicationObjectInfo(IAppObjectInfo** ppInfo) override;
  HRESULT STDMETHODCALLTYPE CancelCoredump() override;
  HRESULT STDMETHODCALLTYPE TriggerCoredump(BSTR bstrPath, eCoreDumpType eDumpType) override;
  // IProcess3
  HRESULT STDMETHODCALLTYPE AllocateExecutablePage(ULONG uSize, ULONGLONG* pAddress) override;
  HRESULT STDMETHODCALLTYPE AllocateDataPage(ULONG uSize, ULONGLONG* pAddress) override;
  HRESULT STDMETHODCALLTYPE DeallocateExecutablePage(ULONGLONG uAddress) override;
  HRESULT STDMETHODCALLTYPE DeallocateDataPage(ULONGLONG uAddress) override;
  HRESULT STDMETHODCALLTYPE get_SocketInfo(VARIANT* pSockets) override;
  // IProcess4
  HRESULT STDMETHODCALLTYPE AllocateExecutablePageEx(ULONG uSize, ULONG uFlags, BSTR bstrName,
                                                     ULONGLONG* pAddress) override;
  HRESULT STDMETHODCALLTYPE AllocateDataPageEx(ULONG uSize, ULONG uFlags, BSTR bstrName,
                                               ULONGLONG* pAddress) override;
  HRESULT STDMETHODCALLTYPE DeallocateExecutablePageEx(ULONGLONG uAddress, ULONG uFlags) override;
  HRESULT STDMETHODCALLTYPE DeallocateDataPageEx(ULONGLONG uAddress, ULONG uFlags) override;
  HRESULT STDMETHODCALLTYPE get_VirtualMemoryInfo(VARIANT* pRegions) override;
  // IProcess5
  HRESULT STDMETHODCALLTYPE ScatteredReadMemory(VARIANT arrAddresses, VARIANT* pData) override;
  HRESULT STDMETHODCALLTYPE ScatteredWriteMemory(VARIANT arrAddresses, VARIANT* pResults) override;
  // IProcess6
  HRESULT STDMETHODCALLTYPE GetCompressedMemory(ULONGLONG nAddress, ULONG nByteCount,
                                                ULONG nCompression, VARIANT_BOOL bDecompress,
                                                VARIANT* pBuffer) override;
  HRESULT STDMETHODCALLTYPE ReadGpuInfo(ULONG uFlags, VARIANT* pInfo) override;
  // IProcess7
  HRESULT STDMETHODCALLTYPE get_Files(VARIANT* pFiles) override;
  HRESULT STDMETHODCALLTYPE GetNetworkEmulationParams(VARIANT* pParams) override;
  HRESULT STDMETHODCALLTYPE SetNetworkEmulationParams(VARIANT Params) override;
  HRESULT STDMETHODCALLTYPE SetNetworkEmulationParamsForPort(ULONG uPort, VARIANT Params) override;
  HRESULT STDMETHODCALLTYPE SetNetworkEmulationParamsDefault() override;
  // IProcess8
  HRESULT STDMETHODCALLTYPE ApplicationObjects(eAppObjectType uFlags,
                                               IAppObjectInfo** ppInfo) override;
  // IProcess9
  HRESULT STDMETHODCALLTYPE AllocateExecutablePageEx2(ULONG uSize, ULONG uFlags, BSTR bstrName,
                                                      ULONGLONG uStartAddress,
                                                      ULONGLONG uEndAddress,
                                                      ULONGLONG* pAddress) override;
  HRESULT STDMETHODCALLTYPE AllocateDataPageEx2(ULONG uSize, ULONG uFlags, BSTR bstrName,
                                                ULONGLONG uStartAddress, ULONGLONG uEndAddress,
                                                ULONGLONG* pAddress) override;
  // IProcess10
  HRESULT STDMETHODCALLTYPE DumpVRInfo() override;

 private:
  // Fills in the process id, sends `request` and waits for `response`: E_UNEXPECTED without a
  // link, the reported failure of the call otherwise.
  template <class Request, class Response>
  HRESULT Send(Request& request, Response& response,
               std::shared_ptr<BulkLanding> landing = nullptr) const noexcept;
  // A request with the process id as its only field and no answer but the result.
  template <class Request, class Response>
  HRESULT Command() const noexcept;
  template <class Request, class Response>
  HRESULT Allocate(ULONG size, ULONG flags, BSTR name, ULONGLONG start, ULONGLONG end,
                   ULONGLONG* address) const noexcept;
  template <class Request, class Response>
  HRESULT Deallocate(ULONGLONG address, ULONG flags) const noexcept;
  HRESULT SetNetworkParams(ULONG port, const VARIANT* params) const noexcept;

  const SharedClient client_;
  const uint32_t target_;
  const uint32_t pid_;
};

// A new process object for `pid` on `target`, handing out its interface `iid`.
HRESULT CreateProcessObject(const SharedClient& client, uint32_t target, uint32_t pid, REFIID iid,
                            void** out) noexcept;

// The large read, which ITarget21 also offers: the target's answer is fetched first, and only then
// is a request to decompress refused (E_NOTIMPL: the client has no decompressor). A failed call
// returns its result without the server's text.
HRESULT GetCompressedMemoryOf(const SharedClient& client, uint32_t target, uint32_t pid,
                              ULONGLONG address, ULONG count, ULONG compression,
                              VARIANT_BOOL decompress, VARIANT* buffer) noexcept;

}  // namespace qv
