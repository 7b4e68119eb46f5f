#include "api/root_object.h"

#include <utility>

#include "api/error_reporting.h"

namespace qv {

CKXVEAPI::CKXVEAPI(SharedClient client) noexcept : client_(std::move(client)) {}

bool CKXVEAPI::IsFamily(REFIID iid) {
  static const IID* const kFamily[] = {
      &IID_IVEKXAPI,  &IID_IVEKXAPI2,  &IID_IVEKXAPI3,  &IID_IVEKXAPI4,
      &IID_IVEKXAPI5, &IID_IVEKXAPI6,  &IID_IVEKXAPI7,  &IID_IVEKXAPI8,
      &IID_IVEKXAPI9, &IID_IVEKXAPI10, &IID_IVEKXAPI11, &IID_IVEKXAPI12,
  };
  return IsOneOf(iid, kFamily);
}

SharedClient CKXVEAPI::Client() const {
  std::lock_guard lock(client_mutex_);
  return client_;
}

HRESULT CreateRootObject(REFIID iid, void** object) noexcept {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  SharedClient client = CKXVEPrivateAPI::Create();
  if (client == nullptr) return E_OUTOFMEMORY;
  return CreateRootObject(std::move(client), iid, object);
}

HRESULT CreateRootObject(SharedClient client, REFIID iid, void** object) noexcept {
  return CreateObject<CKXVEAPI>(iid, object, std::move(client));
}

HRESULT CKXVEAPI::AddTarget(BSTR, ITarget**) {
  return ReportNotAvailable(u"IVEKXAPI::AddTarget");
}

HRESULT CKXVEAPI::get_Targets(VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI::get_Targets");
}

HRESULT CKXVEAPI::ShowTargetPicker(LONGLONG, ITarget**) {
  return ReportNotAvailable(u"IVEKXAPI::ShowTargetPicker");
}

HRESULT CKXVEAPI::DiscoverTargets(VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI::DiscoverTargets");
}

HRESULT CKXVEAPI::GetErrorDescription(LONG, BSTR*) {
  return ReportNotAvailable(u"IVEKXAPI::GetErrorDescription");
}

HRESULT CKXVEAPI::Dispose() {
  return ReportNotAvailable(u"IVEKXAPI::Dispose");
}

HRESULT CKXVEAPI::CheckCompatibility(ULONG) {
  return ReportNotAvailable(u"IVEKXAPI::CheckCompatibility");
}

HRESULT CKXVEAPI::TargetInfo(BSTR, VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI::TargetInfo");
}

HRESULT CKXVEAPI::AdviseServerEvents(IEventServer*) {
  return ReportNotAvailable(u"IVEKXAPI::AdviseServerEvents");
}

HRESULT CKXVEAPI::UnadviseServerEvents(IEventServer*) {
  return ReportNotAvailable(u"IVEKXAPI::UnadviseServerEvents");
}

HRESULT CKXVEAPI::StartPacketLogging(BSTR) {
  return ReportNotAvailable(u"IVEKXAPI::StartPacketLogging");
}

HRESULT CKXVEAPI::StopPacketLogging() {
  return ReportNotAvailable(u"IVEKXAPI::StopPacketLogging");
}

HRESULT CKXVEAPI::Version(ULONG*, ULONG*, ULONG*, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI::Version");
}

HRESULT CKXVEAPI::ServerVersion(ULONG*, ULONG*, ULONG*, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI::ServerVersion");
}

HRESULT CKXVEAPI::LoadCoreDump(BSTR, IEventTarget*, BSTR, ITarget**) {
  return ReportNotAvailable(u"IVEKXAPI::LoadCoreDump");
}

HRESULT CKXVEAPI::StartRVS(unsigned char, ULONG) {
  return ReportNotAvailable(u"IVEKXAPI::StartRVS");
}

HRESULT CKXVEAPI::StopRVS() {
  return ReportNotAvailable(u"IVEKXAPI::StopRVS");
}

HRESULT CKXVEAPI::GetRVSDrive(ULONG*, unsigned char*) {
  return ReportNotAvailable(u"IVEKXAPI::GetRVSDrive");
}

HRESULT CKXVEAPI::GetCoreDumpTargetByHost(BSTR, ITarget**) {
  return ReportNotAvailable(u"IVEKXAPI::GetCoreDumpTargetByHost");
}

HRESULT CKXVEAPI::get_DefaultTarget(ITarget**) {
  return ReportNotAvailable(u"IVEKXAPI::get_DefaultTarget");
}

HRESULT CKXVEAPI::GetTargetsByHost(BSTR, VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI::GetTargetsByHost");
}

HRESULT CKXVEAPI::StartMultiFilePacketLogging(BSTR, BSTR, ULONGLONG) {
  return ReportNotAvailable(u"IVEKXAPI::StartMultiFilePacketLogging");
}

HRESULT CKXVEAPI::FileSystemDriverVersion(ULONG*, ULONG*, ULONG*, ULONG*, ULONG*, BSTR*) {
  return ReportNotAvailable(u"IVEKXAPI::FileSystemDriverVersion");
}

HRESULT CKXVEAPI::GetTargetsByName(BSTR, VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI::GetTargetsByName");
}

HRESULT CKXVEAPI::FindTargets(VARIANT) {
  return ReportNotAvailable(u"IVEKXAPI::FindTargets");
}

HRESULT CKXVEAPI::AllocTargetFindRule(ITargetFindRule**) {
  return ReportNotAvailable(u"IVEKXAPI::AllocTargetFindRule");
}

HRESULT CKXVEAPI::CancelFindTargets() {
  return ReportNotAvailable(u"IVEKXAPI::CancelFindTargets");
}

HRESULT CKXVEAPI::SetLoggingLevel(eLoggingLevel) {
  return ReportNotAvailable(u"IVEKXAPI2::SetLoggingLevel");
}

HRESULT CKXVEAPI::GetLoggingLevel(eLoggingLevel*) {
  return ReportNotAvailable(u"IVEKXAPI2::GetLoggingLevel");
}

HRESULT CKXVEAPI::AllocControllerData(IDispatch**) {
  return ReportNotAvailable(u"IVEKXAPI3::AllocControllerData");
}

HRESULT CKXVEAPI::AllocControllerState(IDispatch**) {
  return ReportNotAvailable(u"IVEKXAPI3::AllocControllerState");
}

HRESULT CKXVEAPI::AllocTouchData(IDispatch**) {
  return ReportNotAvailable(u"IVEKXAPI3::AllocTouchData");
}

HRESULT CKXVEAPI::AllocTouchPoint(IDispatch**) {
  return ReportNotAvailable(u"IVEKXAPI3::AllocTouchPoint");
}

HRESULT CKXVEAPI::EnableHostExec(VARIANT_BOOL) {
  return ReportNotAvailable(u"IVEKXAPI4::EnableHostExec");
}

HRESULT CKXVEAPI::HostExecEnabled(VARIANT_BOOL*) {
  return ReportNotAvailable(u"IVEKXAPI4::HostExecEnabled");
}

HRESULT CKXVEAPI::EnableDistributedCopy(VARIANT_BOOL) {
  return ReportNotAvailable(u"IVEKXAPI5::EnableDistributedCopy");
}

HRESULT CKXVEAPI::DistributedCopyEnabled(VARIANT_BOOL*) {
  return ReportNotAvailable(u"IVEKXAPI5::DistributedCopyEnabled");
}

HRESULT CKXVEAPI::InstallPackage(VARIANT, BSTR, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI5::InstallPackage");
}

HRESULT CKXVEAPI::UpdateKernel(VARIANT, BSTR, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI5::UpdateKernel");
}

HRESULT CKXVEAPI::FileCopy(VARIANT, BSTR, BSTR, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI5::FileCopy");
}

HRESULT CKXVEAPI::SyncDirectory(VARIANT, BSTR, BSTR, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI5::SyncDirectory");
}

HRESULT CKXVEAPI::DirectoryCopy(VARIANT, BSTR, BSTR, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI5::DirectoryCopy");
}

HRESULT CKXVEAPI::CopyInProgress(VARIANT_BOOL*) {
  return ReportNotAvailable(u"IVEKXAPI5::CopyInProgress");
}

HRESULT CKXVEAPI::CancelCopy(ULONG) {
  return ReportNotAvailable(u"IVEKXAPI5::CancelCopy");
}

HRESULT CKXVEAPI::SetNetworkManagerLogging(VARIANT_BOOL) {
  return ReportNotAvailable(u"IVEKXAPI6::SetNetworkManagerLogging");
}

HRESULT CKXVEAPI::GetNetworkManagerLogging(VARIANT_BOOL*) {
  return ReportNotAvailable(u"IVEKXAPI6::GetNetworkManagerLogging");
}

HRESULT CKXVEAPI::StartNetworkManagerPacketLogging(BSTR) {
  return ReportNotAvailable(u"IVEKXAPI6::StartNetworkManagerPacketLogging");
}

HRESULT CKXVEAPI::StopNetworkManagerPacketLogging() {
  return ReportNotAvailable(u"IVEKXAPI6::StopNetworkManagerPacketLogging");
}

HRESULT CKXVEAPI::NetworkManagerInfo(VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI6::NetworkManagerInfo");
}

HRESULT CKXVEAPI::FindMiradorTargets(VARIANT) {
  return ReportNotAvailable(u"IVEKXAPI6::FindMiradorTargets");
}

HRESULT CKXVEAPI::CancelFindMiradorTargets() {
  return ReportNotAvailable(u"IVEKXAPI6::CancelFindMiradorTargets");
}

HRESULT CKXVEAPI::FileCopyEx(VARIANT, BSTR, BSTR, VARIANT_BOOL, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI7::FileCopyEx");
}

HRESULT CKXVEAPI::SyncDirectoryEx(VARIANT, BSTR, BSTR, VARIANT_BOOL, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI7::SyncDirectoryEx");
}

HRESULT CKXVEAPI::DirectoryCopyEx(VARIANT, BSTR, BSTR, VARIANT_BOOL, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI7::DirectoryCopyEx");
}

HRESULT CKXVEAPI::GetClientPids(VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI8::GetClientPids");
}

HRESULT CKXVEAPI::GetDistributedCopyTargetsById(ULONG, VARIANT*) {
  return ReportNotAvailable(u"IVEKXAPI8::GetDistributedCopyTargetsById");
}

HRESULT CKXVEAPI::InstallPackageEx(VARIANT, BSTR, ULONG, ULONG, ULONG*) {
  return ReportNotAvailable(u"IVEKXAPI9::InstallPackageEx");
}

HRESULT CKXVEAPI::ConvertFSDPathToTargetAndPath(BSTR, BSTR*, ITarget**) {
  return ReportNotAvailable(u"IVEKXAPI10::ConvertFSDPathToTargetAndPath");
}

HRESULT CKXVEAPI::AllocSyncPoint(IDispatch**) {
  return ReportNotAvailable(u"IVEKXAPI11::AllocSyncPoint");
}

HRESULT CKXVEAPI::AllocControllerConnectivity(IDispatch**) {
  return ReportNotAvailable(u"IVEKXAPI12::AllocControllerConnectivity");
}

}  // namespace qv
