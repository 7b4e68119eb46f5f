#include "api/target_object.h"

#include <utility>

#include "api/error_reporting.h"

namespace qv {

CKXVETarget::CKXVETarget(SharedClient client, uint32_t handle) noexcept
    : client_(std::move(client)), handle_(handle) {}

bool CKXVETarget::IsFamily(REFIID iid) {
  static const IID* const kFamily[] = {
      &IID_ITarget,   &IID_ITarget2,  &IID_ITarget3,  &IID_ITarget4,  &IID_ITarget5,
      &IID_ITarget6,  &IID_ITarget7,  &IID_ITarget8,  &IID_ITarget9,  &IID_ITarget10,
      &IID_ITarget11, &IID_ITarget12, &IID_ITarget13, &IID_ITarget14, &IID_ITarget15,
      &IID_ITarget16, &IID_ITarget17, &IID_ITarget18, &IID_ITarget19, &IID_ITarget20,
      &IID_ITarget21, &IID_ITarget22, &IID_ITarget23, &IID_ITarget24, &IID_ITarget25,
      &IID_ITarget26, &IID_ITarget27, &IID_ITarget28, &IID_ITarget29, &IID_ITarget30,
      &IID_ITarget31, &IID_ITarget32, &IID_ITarget33, &IID_ITarget34, &IID_ITarget35,
      &IID_ITarget36, &IID_ITarget37, &IID_ITarget38, &IID_ITarget39, &IID_ITarget40,
      &IID_ITarget41, &IID_ITarget42, &IID_ITarget43, &IID_ITarget44, &IID_ITarget45,
      &IID_ITarget46, &IID_ITarget47,
  };
  return IsOneOf(iid, kFamily);
}

HRESULT CreateTargetObject(const SharedClient& client, uint32_t handle, REFIID iid,
                           void** object) noexcept {
  return CreateObject<CKXVETarget>(iid, object, client, handle);
}

// The one method that works after the root object's Dispose: the handle is the object's own.
HRESULT CKXVETarget::get_Handle(ULONG* handle) {
  if (handle == nullptr) return ReportError(E_POINTER);
  *handle = handle_;
  return S_OK;
}

HRESULT CKXVETarget::Connect() {
  return ReportNotAvailable(u"ITarget::Connect");
}

HRESULT CKXVETarget::Disconnect() {
  return ReportNotAvailable(u"ITarget::Disconnect");
}

HRESULT CKXVETarget::ForceDisconnect() {
  return ReportNotAvailable(u"ITarget::ForceDisconnect");
}

HRESULT CKXVETarget::PowerOff() {
  return ReportNotAvailable(u"ITarget::PowerOff");
}

HRESULT CKXVETarget::PowerOn() {
  return ReportNotAvailable(u"ITarget::PowerOn");
}

HRESULT CKXVETarget::get_PowerStatus(ePowerStatus*) {
  return ReportNotAvailable(u"ITarget::get_PowerStatus");
}

HRESULT CKXVETarget::Suspend() {
  return ReportNotAvailable(u"ITarget::Suspend");
}

HRESULT CKXVETarget::Reboot() {
  return ReportNotAvailable(u"ITarget::Reboot");
}

HRESULT CKXVETarget::ForcePowerOff() {
  return ReportNotAvailable(u"ITarget::ForcePowerOff");
}

HRESULT CKXVETarget::ConnectForNotifications() {
  return ReportNotAvailable(u"ITarget::ConnectForNotifications");
}

HRESULT CKXVETarget::DisconnectFromNotifications() {
  return ReportNotAvailable(u"ITarget::DisconnectFromNotifications");
}

HRESULT CKXVETarget::get_ConnectionState(eConnectionState*) {
  return ReportNotAvailable(u"ITarget::get_ConnectionState");
}

HRESULT CKXVETarget::get_HostName(BSTR*) {
  return ReportNotAvailable(u"ITarget::get_HostName");
}

HRESULT CKXVETarget::Delete() {
  return ReportNotAvailable(u"ITarget::Delete");
}

HRESULT CKXVETarget::CancelCurrentCommand() {
  return ReportNotAvailable(u"ITarget::CancelCurrentCommand");
}

HRESULT CKXVETarget::CancelMyCommands() {
  return ReportNotAvailable(u"ITarget::CancelMyCommands");
}

HRESULT CKXVETarget::get_TargetInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget::get_TargetInfo");
}

HRESULT CKXVETarget::get_Default(VARIANT_BOOL*) {
  return ReportNotAvailable(u"ITarget::get_Default");
}

HRESULT CKXVETarget::put_Default(VARIANT_BOOL) {
  return ReportNotAvailable(u"ITarget::put_Default");
}

HRESULT CKXVETarget::get_ConnectionInfo(BSTR*) {
  return ReportNotAvailable(u"ITarget::get_ConnectionInfo");
}

HRESULT CKXVETarget::RequestConnection() {
  return ReportNotAvailable(u"ITarget::RequestConnection");
}

HRESULT CKXVETarget::ReleaseConnection() {
  return ReportNotAvailable(u"ITarget::ReleaseConnection");
}

HRESULT CKXVETarget::get_IsBusy(VARIANT_BOOL*) {
  return ReportNotAvailable(u"ITarget::get_IsBusy");
}

HRESULT CKXVETarget::get_Name(BSTR*) {
  return ReportNotAvailable(u"ITarget::get_Name");
}

HRESULT CKXVETarget::put_Name(BSTR) {
  return ReportNotAvailable(u"ITarget::put_Name");
}

HRESULT CKXVETarget::get_CachedName(BSTR*) {
  return ReportNotAvailable(u"ITarget::get_CachedName");
}

HRESULT CKXVETarget::get_MacAddress(VARIANT*) {
  return ReportNotAvailable(u"ITarget::get_MacAddress");
}

HRESULT CKXVETarget::put_MacAddress(VARIANT) {
  return ReportNotAvailable(u"ITarget::put_MacAddress");
}

HRESULT CKXVETarget::put_SubnetMask(ULONG) {
  return ReportNotAvailable(u"ITarget::put_SubnetMask");
}

HRESULT CKXVETarget::SDKVersion(ULONG*, ULONG*, ULONG*, ULONG*) {
  return ReportNotAvailable(u"ITarget::SDKVersion");
}

HRESULT CKXVETarget::AdviseTargetEvents(IEventTarget*) {
  return ReportNotAvailable(u"ITarget::AdviseTargetEvents");
}

HRESULT CKXVETarget::UnadviseTargetEvents(IEventTarget*) {
  return ReportNotAvailable(u"ITarget::UnadviseTargetEvents");
}

HRESULT CKXVETarget::AdviseDebugEvents(IEventDebug*) {
  return ReportNotAvailable(u"ITarget::AdviseDebugEvents");
}

HRESULT CKXVETarget::UnadviseDebugEvents(IEventDebug*) {
  return ReportNotAvailable(u"ITarget::UnadviseDebugEvents");
}

HRESULT CKXVETarget::AdviseConsoleOutputEvents(IEventConsoleOutput*) {
  return ReportNotAvailable(u"ITarget::AdviseConsoleOutputEvents");
}

HRESULT CKXVETarget::UnadviseConsoleOutputEvents(IEventConsoleOutput*) {
  return ReportNotAvailable(u"ITarget::UnadviseConsoleOutputEvents");
}

HRESULT CKXVETarget::AdviseCacheUpdateEvents(IEventCacheUpdate*) {
  return ReportNotAvailable(u"ITarget::AdviseCacheUpdateEvents");
}

HRESULT CKXVETarget::UnadviseCacheUpdateEvents(IEventCacheUpdate*) {
  return ReportNotAvailable(u"ITarget::UnadviseCacheUpdateEvents");
}

HRESULT CKXVETarget::AdviseControllerEvents(IEventController*) {
  return ReportNotAvailable(u"ITarget::AdviseControllerEvents");
}

HRESULT CKXVETarget::UnadviseControllerEvents(IEventController*) {
  return ReportNotAvailable(u"ITarget::UnadviseControllerEvents");
}

HRESULT CKXVETarget::get_ProcessInfoSnapshot(VARIANT*) {
  return ReportNotAvailable(u"ITarget::get_ProcessInfoSnapshot");
}

HRESULT CKXVETarget::LoadProcess(eDevice, BSTR, ULONG, ULONG, BSTR, BSTR, IProcess**) {
  return ReportNotAvailable(u"ITarget::LoadProcess");
}

HRESULT CKXVETarget::SendConsoleInput(eConsoleOutputPort, eConsoleOutputCategory, ULONG, BSTR) {
  return ReportNotAvailable(u"ITarget::SendConsoleInput");
}

HRESULT CKXVETarget::CachedConsoleOutput(ULONG*, VARIANT*) {
  return ReportNotAvailable(u"ITarget::CachedConsoleOutput");
}

HRESULT CKXVETarget::get_ConsoleCacheIndex(ULONG*) {
  return ReportNotAvailable(u"ITarget::get_ConsoleCacheIndex");
}

HRESULT CKXVETarget::ClearConsoleCache() {
  return ReportNotAvailable(u"ITarget::ClearConsoleCache");
}

HRESULT CKXVETarget::get_ProtocolRegistrationInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget2::get_ProtocolRegistrationInfo");
}

HRESULT CKXVETarget::SetProtocolInUse(ULONG) {
  return ReportNotAvailable(u"ITarget2::SetProtocolInUse");
}

HRESULT CKXVETarget::ClearProtocolInUse(ULONG) {
  return ReportNotAvailable(u"ITarget2::ClearProtocolInUse");
}

HRESULT CKXVETarget::QueryProtocolInUse(ULONG, VARIANT_BOOL*) {
  return ReportNotAvailable(u"ITarget2::QueryProtocolInUse");
}

HRESULT CKXVETarget::GetProtocolInfo(ULONG, VARIANT*) {
  return ReportNotAvailable(u"ITarget2::GetProtocolInfo");
}

HRESULT CKXVETarget::get_ConsoleCacheSize(ULONG*) {
  return ReportNotAvailable(u"ITarget3::get_ConsoleCacheSize");
}

HRESULT CKXVETarget::put_ConsoleCacheSize(ULONG) {
  return ReportNotAvailable(u"ITarget3::put_ConsoleCacheSize");
}

HRESULT CKXVETarget::ScreenShot(BSTR) {
  return ReportNotAvailable(u"ITarget4::ScreenShot");
}

HRESULT CKXVETarget::GetThreadNames(ULONG, VARIANT*) {
  return ReportNotAvailable(u"ITarget5::GetThreadNames");
}

HRESULT CKXVETarget::MemoryRanges(ULONG, VARIANT*) {
  return ReportNotAvailable(u"ITarget5::MemoryRanges");
}

HRESULT CKXVETarget::AdviseEventViewerEvents(IEventViewer*) {
  return ReportNotAvailable(u"ITarget6::AdviseEventViewerEvents");
}

HRESULT CKXVETarget::UnadviseEventViewerEvents(IEventViewer*) {
  return ReportNotAvailable(u"ITarget6::UnadviseEventViewerEvents");
}

HRESULT CKXVETarget::get_ControllerInterface(IDispatch**) {
  return ReportNotAvailable(u"ITarget7::get_ControllerInterface");
}

HRESULT CKXVETarget::OpenGenericProtocol(ULONG, IEventGenericProtocol*, IGenericProtocol**) {
  return ReportNotAvailable(u"ITarget8::OpenGenericProtocol");
}

HRESULT CKXVETarget::UnadviseGenericProtocolEvents(IEventGenericProtocol*) {
  return ReportNotAvailable(u"ITarget8::UnadviseGenericProtocolEvents");
}

HRESULT CKXVETarget::AdviseTrickleEvents(IEventTrickle*) {
  return ReportNotAvailable(u"ITarget9::AdviseTrickleEvents");
}

HRESULT CKXVETarget::UnadviseTrickleEvents(IEventTrickle*) {
  return ReportNotAvailable(u"ITarget9::UnadviseTrickleEvents");
}

HRESULT CKXVETarget::SendConsoleInputWithEcho(eConsoleOutputPort, eConsoleOutputCategory, ULONG,
                                              BSTR) {
  return ReportNotAvailable(u"ITarget10::SendConsoleInputWithEcho");
}

HRESULT CKXVETarget::AdviseProcessLockEvents(IEventProcessLock*) {
  return ReportNotAvailable(u"ITarget11::AdviseProcessLockEvents");
}

HRESULT CKXVETarget::UnadviseProcessLockEvents(IEventProcessLock*) {
  return ReportNotAvailable(u"ITarget11::UnadviseProcessLockEvents");
}

HRESULT CKXVETarget::LoadProcessArgv(eDevice, BSTR, ULONG, ULONG, VARIANT, BSTR, IProcess**) {
  return ReportNotAvailable(u"ITarget12::LoadProcessArgv");
}

HRESULT CKXVETarget::GetSettings(VARIANT, VARIANT*) {
  return ReportNotAvailable(u"ITarget13::GetSettings");
}

HRESULT CKXVETarget::SetSettings(VARIANT) {
  return ReportNotAvailable(u"ITarget13::SetSettings");
}

HRESULT CKXVETarget::GetDefaultSettings(VARIANT, VARIANT*) {
  return ReportNotAvailable(u"ITarget14::GetDefaultSettings");
}

HRESULT CKXVETarget::GetSettingsLayout(BSTR*) {
  return ReportNotAvailable(u"ITarget14::GetSettingsLayout");
}

HRESULT CKXVETarget::AllocSetting(IDispatch**) {
  return ReportNotAvailable(u"ITarget15::AllocSetting");
}

HRESULT CKXVETarget::get_GetSoftwareInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget16::get_GetSoftwareInfo");
}

HRESULT CKXVETarget::get_Configuration(VARIANT*) {
  return ReportNotAvailable(u"ITarget17::get_Configuration");
}

HRESULT CKXVETarget::GetNetworkSystemInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget18::GetNetworkSystemInfo");
}

HRESULT CKXVETarget::GetNetworkResolverInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget19::GetNetworkResolverInfo");
}

HRESULT CKXVETarget::GetNetworkInterfaceInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget20::GetNetworkInterfaceInfo");
}

HRESULT CKXVETarget::GetCompressedMemory(ULONG, ULONGLONG, ULONG, ULONG, VARIANT_BOOL, VARIANT*) {
  return ReportNotAvailable(u"ITarget21::GetCompressedMemory");
}

HRESULT CKXVETarget::TraceCreate(VARIANT, ULONG*) {
  return ReportNotAvailable(u"ITarget22::TraceCreate");
}

HRESULT CKXVETarget::TraceReset(ULONG) {
  return ReportNotAvailable(u"ITarget22::TraceReset");
}

HRESULT CKXVETarget::IBSTraceCreate(VARIANT, ULONG*) {
  return ReportNotAvailable(u"ITarget23::IBSTraceCreate");
}

HRESULT CKXVETarget::WriteTracePacket(ULONG, VARIANT) {
  return ReportNotAvailable(u"ITarget24::WriteTracePacket");
}

HRESULT CKXVETarget::MonoVmInfo(ULONG, VARIANT*) {
  return ReportNotAvailable(u"ITarget25::MonoVmInfo");
}

HRESULT CKXVETarget::UpdateKernel(BSTR) {
  return ReportNotAvailable(u"ITarget26::UpdateKernel");
}

HRESULT CKXVETarget::get_FileServingRoot(BSTR*) {
  return ReportNotAvailable(u"ITarget27::get_FileServingRoot");
}

HRESULT CKXVETarget::put_FileServingRoot(BSTR) {
  return ReportNotAvailable(u"ITarget27::put_FileServingRoot");
}

HRESULT CKXVETarget::get_CaseSensitiveFileServing(VARIANT_BOOL*) {
  return ReportNotAvailable(u"ITarget28::get_CaseSensitiveFileServing");
}

HRESULT CKXVETarget::put_CaseSensitiveFileServing(VARIANT_BOOL) {
  return ReportNotAvailable(u"ITarget28::put_CaseSensitiveFileServing");
}

HRESULT CKXVETarget::AdviseHighFreqFileCopyEvents(IEventHighFreqFileCopy*) {
  return ReportNotAvailable(u"ITarget29::AdviseHighFreqFileCopyEvents");
}

HRESULT CKXVETarget::UnadviseHighFreqFileCopyEvents(IEventHighFreqFileCopy*) {
  return ReportNotAvailable(u"ITarget29::UnadviseHighFreqFileCopyEvents");
}

HRESULT CKXVETarget::AdviseLowFreqFileCopyEvents(IEventLowFreqFileCopy*) {
  return ReportNotAvailable(u"ITarget29::AdviseLowFreqFileCopyEvents");
}

HRESULT CKXVETarget::UnadviseLowFreqFileCopyEvents(IEventLowFreqFileCopy*) {
  return ReportNotAvailable(u"ITarget29::UnadviseLowFreqFileCopyEvents");
}

HRESULT CKXVETarget::InstallPackage(BSTR) {
  return ReportNotAvailable(u"ITarget30::InstallPackage");
}

HRESULT CKXVETarget::UninstallPackage(BSTR) {
  return ReportNotAvailable(u"ITarget30::UninstallPackage");
}

HRESULT CKXVETarget::ListInstalledPackages(VARIANT*) {
  return ReportNotAvailable(u"ITarget30::ListInstalledPackages");
}

HRESULT CKXVETarget::AppList(VARIANT*) {
  return ReportNotAvailable(u"ITarget31::AppList");
}

HRESULT CKXVETarget::AppSpawn(BSTR, ULONG*) {
  return ReportNotAvailable(u"ITarget31::AppSpawn");
}

HRESULT CKXVETarget::AppKill(ULONG) {
  return ReportNotAvailable(u"ITarget31::AppKill");
}

HRESULT CKXVETarget::AppSuspend(ULONG) {
  return ReportNotAvailable(u"ITarget31::AppSuspend");
}

HRESULT CKXVETarget::AppResume(ULONG) {
  return ReportNotAvailable(u"ITarget31::AppResume");
}

HRESULT CKXVETarget::get_RealTimeClock(ULONGLONG*) {
  return ReportNotAvailable(u"ITarget32::get_RealTimeClock");
}

HRESULT CKXVETarget::get_SystemTime(ULONGLONG*) {
  return ReportNotAvailable(u"ITarget32::get_SystemTime");
}

HRESULT CKXVETarget::MountBluray(BSTR) {
  return ReportNotAvailable(u"ITarget33::MountBluray");
}

HRESULT CKXVETarget::UnmountBluray() {
  return ReportNotAvailable(u"ITarget33::UnmountBluray");
}

HRESULT CKXVETarget::get_BlurayMountStatus(VARIANT_BOOL*) {
  return ReportNotAvailable(u"ITarget33::get_BlurayMountStatus");
}

HRESULT CKXVETarget::RequestProcessLock() {
  return ReportNotAvailable(u"ITarget34::RequestProcessLock");
}

HRESULT CKXVETarget::ReleaseProcessLock() {
  return ReportNotAvailable(u"ITarget34::ReleaseProcessLock");
}

HRESULT CKXVETarget::get_IsProcessLocked(VARIANT_BOOL*) {
  return ReportNotAvailable(u"ITarget34::get_IsProcessLocked");
}

HRESULT CKXVETarget::TransferProcessLock(ULONG) {
  return ReportNotAvailable(u"ITarget34::TransferProcessLock");
}

HRESULT CKXVETarget::ReclaimProcessLock() {
  return ReportNotAvailable(u"ITarget34::ReclaimProcessLock");
}

HRESULT CKXVETarget::GetEventViewerXML(BSTR*) {
  return ReportNotAvailable(u"ITarget35::GetEventViewerXML");
}

HRESULT CKXVETarget::get_EventViewerFilter(BSTR*) {
  return ReportNotAvailable(u"ITarget35::get_EventViewerFilter");
}

HRESULT CKXVETarget::put_EventViewerFilter(BSTR) {
  return ReportNotAvailable(u"ITarget35::put_EventViewerFilter");
}

HRESULT CKXVETarget::StartRecording(BSTR) {
  return ReportNotAvailable(u"ITarget36::StartRecording");
}

HRESULT CKXVETarget::StopRecording() {
  return ReportNotAvailable(u"ITarget36::StopRecording");
}

HRESULT CKXVETarget::StartPlayback(BSTR) {
  return ReportNotAvailable(u"ITarget36::StartPlayback");
}

HRESULT CKXVETarget::StopPlayback() {
  return ReportNotAvailable(u"ITarget36::StopPlayback");
}

HRESULT CKXVETarget::get_NetworkEmulationSettings(VARIANT*) {
  return ReportNotAvailable(u"ITarget37::get_NetworkEmulationSettings");
}

HRESULT CKXVETarget::put_NetworkEmulationSettings(VARIANT) {
  return ReportNotAvailable(u"ITarget37::put_NetworkEmulationSettings");
}

HRESULT CKXVETarget::Standby() {
  return ReportNotAvailable(u"ITarget38::Standby");
}

HRESULT CKXVETarget::get_ToolType(BSTR*) {
  return ReportNotAvailable(u"ITarget39::get_ToolType");
}

HRESULT CKXVETarget::get_CachedToolType(BSTR*) {
  return ReportNotAvailable(u"ITarget39::get_CachedToolType");
}

HRESULT CKXVETarget::get_OutputDisplayMode(VARIANT*) {
  return ReportNotAvailable(u"ITarget40::get_OutputDisplayMode");
}

HRESULT CKXVETarget::get_TitleSafeAreaInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget40::get_TitleSafeAreaInfo");
}

HRESULT CKXVETarget::GenerateSystemCoredump(BSTR) {
  return ReportNotAvailable(u"ITarget41::GenerateSystemCoredump");
}

HRESULT CKXVETarget::get_SystemFrequencies(VARIANT*) {
  return ReportNotAvailable(u"ITarget42::get_SystemFrequencies");
}

HRESULT CKXVETarget::get_SystemTimestamps(VARIANT*) {
  return ReportNotAvailable(u"ITarget42::get_SystemTimestamps");
}

HRESULT CKXVETarget::MoveTitle(BSTR, BSTR) {
  return ReportNotAvailable(u"ITarget43::MoveTitle");
}

HRESULT CKXVETarget::get_HMDVersionInfo(VARIANT*) {
  return ReportNotAvailable(u"ITarget44::get_HMDVersionInfo");
}

HRESULT CKXVETarget::UpdateCpFirmware(BSTR) {
  return ReportNotAvailable(u"ITarget45::UpdateCpFirmware");
}

HRESULT CKXVETarget::PerfCounterOpen(ULONG, ULONG*) {
  return ReportNotAvailable(u"ITarget46::PerfCounterOpen");
}

HRESULT CKXVETarget::PerfCounterClose(ULONG) {
  return ReportNotAvailable(u"ITarget46::PerfCounterClose");
}

HRESULT CKXVETarget::get_DebugAgentLogging(VARIANT_BOOL*) {
  return ReportNotAvailable(u"ITarget47::get_DebugAgentLogging");
}

HRESULT CKXVETarget::put_DebugAgentLogging(VARIANT_BOOL) {
  return ReportNotAvailable(u"ITarget47::put_DebugAgentLogging");
}

}  // namespace qv
