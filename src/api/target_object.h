#pragma once
// CKXVETarget: one development kit known to the server. It holds the kit's handle and the private
// client it shares with the root object, and nothing else: every property is asked of the server
// at each call, so two objects for the same handle are interchangeable.

#include <cstdint>

#include "api/automation_object.h"
#include "api/server_call.h"
#include "vekxapi/vekxapi.h"

namespace qv {

class CKXVETarget final : public AutomationObject<CKXVETarget, ITarget47> {
 public:
  CKXVETarget(SharedClient client, uint32_t handle) noexcept;

  static bool IsFamily(REFIID iid);
  static const IID& DispatchIid() { return IID_ITarget47; }

  // ITarget
  HRESULT STDMETHODCALLTYPE get_Handle(ULONG* puHandle) override;
  HRESULT STDMETHODCALLTYPE Connect() override;
  HRESULT STDMETHODCALLTYPE Disconnect() override;
  HRESULT STDMETHODCALLTYPE ForceDisconnect() override;
  HRESULT STDMETHODCALLTYPE PowerOff() override;
  HRESULT STDMETHODCALLTYPE PowerOn() override;
  HRESULT STDMETHODCALLTYPE get_PowerStatus(ePowerStatus* pStatus) override;
  HRESULT STDMETHODCALLTYPE Suspend() override;
  HRESULT STDMETHODCALLTYPE Reboot() override;
  HRESULT STDMETHODCALLTYPE ForcePowerOff() override;
  HRESULT STDMETHODCALLTYPE ConnectForNotifications() override;
  HRESULT STDMETHODCALLTYPE DisconnectFromNotifications() override;
  HRESULT STDMETHODCALLTYPE get_ConnectionState(eConnectionState* pState) override;
  HRESULT STDMETHODCALLTYPE get_HostName(BSTR* pbstrHostName) override;
  HRESULT STDMETHODCALLTYPE Delete() override;
  HRESULT STDMETHODCALLTYPE CancelCurrentCommand() override;
  HRESULT STDMETHODCALLTYPE CancelMyCommands() override;
  HRESULT STDMETHODCALLTYPE get_TargetInfo(VARIANT* pInfo) override;
  HRESULT STDMETHODCALLTYPE get_Default(VARIANT_BOOL* pbDefault) override;
  HRESULT STDMETHODCALLTYPE put_Default(VARIANT_BOOL bDefault) override;
  HRESULT STDMETHODCALLTYPE get_ConnectionInfo(BSTR* pbstrInfo) override;
  HRESULT STDMETHODCALLTYPE RequestConnection() override;
  HRESULT STDMETHODCALLTYPE ReleaseConnection() override;
  HRESULT STDMETHODCALLTYPE get_IsBusy(VARIANT_BOOL* pbBusy) override;
  HRESULT STDMETHODCALLTYPE get_Name(BSTR* pbstrName) override;
  HRESULT STDMETHODCALLTYPE put_Name(BSTR bstrName) override;
  HRESULT STDMETHODCALLTYPE get_CachedName(BSTR* pbstrName) override;
  HRESULT STDMETHODCALLTYPE get_MacAddress(VARIANT* pAddress) override;
  HRESULT STDMETHODCALLTYPE put_MacAddress(VARIANT address) override;
  HRESULT STDMETHODCALLTYPE put_SubnetMask(ULONG uMask) override;
  HRESULT STDMETHODCALLTYPE SDKVersion(ULONG* puMajor, ULONG* puMinor, ULONG* puPatch,
                                       ULONG* puBuild) override;
  HRESULT STDMETHODCALLTYPE AdviseTargetEvents(IEventTarget* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseTargetEvents(IEventTarget* pSink) override;
  HRESULT STDMETHODCALLTYPE AdviseDebugEvents(IEventDebug* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseDebugEvents(IEventDebug* pSink) override;
  HRESULT STDMETHODCALLTYPE AdviseConsoleOutputEvents(IEventConsoleOutput* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseConsoleOutputEvents(IEventConsoleOutput* pSink) override;
  HRESULT STDMETHODCALLTYPE AdviseCacheUpdateEvents(IEventCacheUpdate* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseCacheUpdateEvents(IEventCacheUpdate* pSink) override;
  HRESULT STDMETHODCALLTYPE AdviseControllerEvents(IEventController* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseControllerEvents(IEventController* pSink) override;
  HRESULT STDMETHODCALLTYPE get_ProcessInfoSnapshot(VARIANT* pProcesses) override;
  HRESULT STDMETHODCALLTYPE LoadProcess(eDevice efs, BSTR bstrPath, ULONG uFlags, ULONG uStackSize,
                                        BSTR bstrArgs, BSTR bstrWorkingDir,
                                        IProcess** ppProcess) override;
  HRESULT STDMETHODCALLTYPE SendConsoleInput(eConsoleOutputPort port,
                                             eConsoleOutputCategory category, ULONG uProcessId,
                                             BSTR bstrInputText) override;
  HRESULT STDMETHODCALLTYPE CachedConsoleOutput(ULONG* puIndex, VARIANT* pOutput) override;
  HRESULT STDMETHODCALLTYPE get_ConsoleCacheIndex(ULONG* puIndex) override;
  HRESULT STDMETHODCALLTYPE ClearConsoleCache() override;
  // ITarget2
  HRESULT STDMETHODCALLTYPE get_ProtocolRegistrationInfo(VARIANT* pRegistrations) override;
  HRESULT STDMETHODCALLTYPE SetProtocolInUse(ULONG uProtocol) override;
  HRESULT STDMETHODCALLTYPE ClearProtocolInUse(ULONG uProtocol) override;
  HRESULT STDMETHODCALLTYPE QueryProtocolInUse(ULONG uProtocol, VARIANT_BOOL* pbInUse) override;
  HRESULT STDMETHODCALLTYPE GetProtocolInfo(ULONG uProtocol, VARIANT* pInfo) override;
  // ITarget3
  HRESULT STDMETHODCALLTYPE get_ConsoleCacheSize(ULONG* puSize) override;
  HRESULT STDMETHODCALLTYPE put_ConsoleCacheSize(ULONG uSize) override;
  // ITarget4
  HRESULT STDMETHODCALLTYPE ScreenShot(BSTR bstrFilename) override;
  // ITarget5
  HRESULT STDMETHODCALLTYPE GetThreadNames(ULONG uProcessId, VARIANT* pNames) override;
  HRESULT STDMETHODCALLTYPE MemoryRanges(ULONG uProcessId, VARIANT* pRanges) override;
  // ITarget6
  HRESULT STDMETHODCALLTYPE AdviseEventViewerEvents(IEventViewer* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseEventViewerEvents(IEventViewer* pSink) override;
  // ITarget7
  HRESULT STDMETHODCALLTYPE get_ControllerInterface(IDispatch** ppController) override;
  // ITarget8
  HRESULT STDMETHODCALLTYPE OpenGenericProtocol(ULONG uProtocolNumber,
                                                IEventGenericProtocol* pEventSink,
                                                IGenericProtocol** ppConnection) override;
  HRESULT STDMETHODCALLTYPE UnadviseGenericProtocolEvents(IEventGenericProtocol* pSink) override;
  // ITarget9
  HRESULT STDMETHODCALLTYPE AdviseTrickleEvents(IEventTrickle* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseTrickleEvents(IEventTrickle* pSink) override;
  // ITarget10
  HRESULT STDMETHODCALLTYPE SendConsoleInputWithEcho(eConsoleOutputPort port,
                                                     eConsoleOutputCategory category,
                                                     ULONG uProcessId, BSTR bstrInputText) override;
  // ITarget11
  HRESULT STDMETHODCALLTYPE AdviseProcessLockEvents(IEventProcessLock* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseProcessLockEvents(IEventProcessLock* pSink) override;
  // ITarget12
  HRESULT STDMETHODCALLTYPE LoadProcessArgv(eDevice efs, BSTR bstrPath, ULONG uFlags,
                                            ULONG uStackSize, VARIANT varArgs, BSTR bstrWorkingDir,
                                            IProcess** ppProcess) override;
  // ITarget13
  HRESULT STDMETHODCALLTYPE GetSettings(VARIANT keys, VARIANT* pSettings) override;
  HRESULT STDMETHODCALLTYPE SetSettings(VARIANT settings) override;
  // ITarget14
  HRESULT STDMETHODCALLTYPE GetDefaultSettings(VARIANT keys, VARIANT* pSettings) override;
  HRESULT STDMETHODCALLTYPE GetSettingsLayout(BSTR* pbstrLayout) override;
  // ITarget15
  HRESULT STDMETHODCALLTYPE AllocSetting(IDispatch** ppSetting) override;
  // ITarget16
  HRESULT STDMETHODCALLTYPE get_GetSoftwareInfo(VARIANT* pInfo) override;
  // ITarget17
  HRESULT STDMETHODCALLTYPE get_Configuration(VARIANT* pConfiguration) override;
  // ITarget18
  HRESULT STDMETHODCALLTYPE GetNetworkSystemInfo(VARIANT* pInfo) override;
  // ITarget19
  HRESULT STDMETHODCALLTYPE GetNetworkResolverInfo(VARIANT* pInfo) override;
  // ITarget20
  HRESULT STDMETHODCALLTYPE GetNetworkInterfaceInfo(VARIANT* pInfo) override;
  // ITarget21
  HRESULT STDMETHODCALLTYPE GetCompressedMemory(ULONG uProcessId, ULONGLONG nAddress,
                                                ULONG nByteCount, ULONG nCompression,
                                                VARIANT_BOOL bDecompress,
                                                VARIANT* pBuffer) override;
  // ITarget22
  HRESULT STDMETHODCALLTYPE TraceCreate(VARIANT parameters, ULONG* puTraceId) override;
  HRESULT STDMETHODCALLTYPE TraceReset(ULONG uTraceId) override;
  // ITarget23
  HRESULT STDMETHODCALLTYPE IBSTraceCreate(VARIANT parameters, ULONG* puTraceId) override;
  // ITarget24
  HRESULT STDMETHODCALLTYPE WriteTracePacket(ULONG uTraceId, VARIANT packet) override;
  // ITarget25
  HRESULT STDMETHODCALLTYPE MonoVmInfo(ULONG uProcessId, VARIANT* pInfo) override;
  // ITarget26
  HRESULT STDMETHODCALLTYPE UpdateKernel(BSTR bstrFilename) override;
  // ITarget27
  HRESULT STDMETHODCALLTYPE get_FileServingRoot(BSTR* pbstrRoot) override;
  HRESULT STDMETHODCALLTYPE put_FileServingRoot(BSTR bstrRoot) override;
  // ITarget28
  HRESULT STDMETHODCALLTYPE get_CaseSensitiveFileServing(VARIANT_BOOL* pbCaseSensitive) override;
  HRESULT STDMETHODCALLTYPE put_CaseSensitiveFileServing(VARIANT_BOOL bCaseSensitive) override;
  // ITarget29
  HRESULT STDMETHODCALLTYPE AdviseHighFreqFileCopyEvents(IEventHighFreqFileCopy* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseHighFreqFileCopyEvents(IEventHighFreqFileCopy* pSink) override;
  HRESULT STDMETHODCALLTYPE AdviseLowFreqFileCopyEvents(IEventLowFreqFileCopy* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseLowFreqFileCopyEvents(IEventLowFreqFileCopy* pSink) override;
  // ITarget30
  HRESULT STDMETHODCALLTYPE InstallPackage(BSTR bstrPackage) override;
  HRESULT STDMETHODCALLTYPE UninstallPackage(BSTR bstrTitleId) override;
  HRESULT STDMETHODCALLTYPE ListInstalledPackages(VARIANT* pPackages) override;
  // ITarget31
  HRESULT STDMETHODCALLTYPE AppList(VARIANT* pApplications) override;
  HRESULT STDMETHODCALLTYPE AppSpawn(BSTR bstrTitleId, ULONG* puApplicationId) override;
  HRESULT STDMETHODCALLTYPE AppKill(ULONG uApplicationId) override;
  HRESULT STDMETHODCALLTYPE AppSuspend(ULONG uApplicationId) override;
  HRESULT STDMETHODCALLTYPE AppResume(ULONG uApplicationId) override;
  // ITarget32
  HRESULT STDMETHODCALLTYPE get_RealTimeClock(ULONGLONG* puSeconds) override;
  HRESULT STDMETHODCALLTYPE get_SystemTime(ULONGLONG* puTime) override;
  // ITarget33
  HRESULT STDMETHODCALLTYPE MountBluray(BSTR bstrImage) override;
  HRESULT STDMETHODCALLTYPE UnmountBluray() override;
  HRESULT STDMETHODCALLTYPE get_BlurayMountStatus(VARIANT_BOOL* pbMounted) override;
  // ITarget34
  HRESULT STDMETHODCALLTYPE RequestProcessLock() override;
  HRESULT STDMETHODCALLTYPE ReleaseProcessLock() override;
  HRESULT STDMETHODCALLTYPE get_IsProcessLocked(VARIANT_BOOL* pbLocked) override;
  HRESULT STDMETHODCALLTYPE TransferProcessLock(ULONG uClientPid) override;
  HRESULT STDMETHODCALLTYPE ReclaimProcessLock() override;
  // ITarget35
  HRESULT STDMETHODCALLTYPE GetEventViewerXML(BSTR* pbstrXml) override;
  HRESULT STDMETHODCALLTYPE get_EventViewerFilter(BSTR* pbstrFilter) override;
  HRESULT STDMETHODCALLTYPE put_EventViewerFilter(BSTR bstrFilter) override;
  // ITarget36
  HRESULT STDMETHODCALLTYPE StartRecording(BSTR bstrFilename) override;
  HRESULT STDMETHODCALLTYPE StopRecording() override;
  HRESULT STDMETHODCALLTYPE StartPlayback(BSTR bstrFilename) override;
  HRESULT STDMETHODCALLTYPE StopPlayback() override;
  // ITarget37
  HRESULT STDMETHODCALLTYPE get_NetworkEmulationSettings(VARIANT* pSettings) override;
  HRESULT STDMETHODCALLTYPE put_NetworkEmulationSettings(VARIANT settings) override;
  // ITarget38
  HRESULT STDMETHODCALLTYPE Standby() override;
  // ITarget39
  HRESULT STDMETHODCALLTYPE get_ToolType(BSTR* pbstrToolType) override;
  HRESULT STDMETHODCALLTYPE get_CachedToolType(BSTR* pbstrToolType) override;
  // ITarget40
  HRESULT STDMETHODCALLTYPE get_OutputDisplayMode(VARIANT* pMode) override;
  HRESULT STDMETHODCALLTYPE get_TitleSafeAreaInfo(VARIANT* pInfo) override;
  // ITarget41
  HRESULT STDMETHODCALLTYPE GenerateSystemCoredump(BSTR bstrFilename) override;
  // ITarget42
  HRESULT STDMETHODCALLTYPE get_SystemFrequencies(VARIANT* pFrequencies) override;
  HRESULT STDMETHODCALLTYPE get_SystemTimestamps(VARIANT* pTimestamps) override;
  // ITarget43
  HRESULT STDMETHODCALLTYPE MoveTitle(BSTR bstrTitleId, BSTR bstrDestination) override;
  // ITarget44
  HRESULT STDMETHODCALLTYPE get_HMDVersionInfo(VARIANT* pInfo) override;
  // ITarget45
  HRESULT STDMETHODCALLTYPE UpdateCpFirmware(BSTR bstrFilename) override;
  // ITarget46
  HRESULT STDMETHODCALLTYPE PerfCounterOpen(ULONG uProcessId, ULONG* puCounter) override;
  HRESULT STDMETHODCALLTYPE PerfCounterClose(ULONG uCounter) override;
  // ITarget47
  HRESULT STDMETHODCALLTYPE get_DebugAgentLogging(VARIANT_BOOL* pbEnabled) override;
  HRESULT STDMETHODCALLTYPE put_DebugAgentLogging(VARIANT_BOOL bEnabled) override;

 private:
  const SharedClient client_;
  const uint32_t handle_;
};

// Makes a new target object for `handle` that shares `client`, and hands out its interface `iid`.
HRESULT CreateTargetObject(const SharedClient& client, uint32_t handle, REFIID iid,
                           void** object) noexcept;

}  // namespace qv
