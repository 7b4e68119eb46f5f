#pragma once
// CKXVEAPI: the root object, the one object a host tool creates by class identity. It owns the
// library's private client until Dispose, hands out target objects, and starts what is not tied
// to one target.

#include <atomic>
#include <mutex>
#include <string_view>

#include "api/automation_object.h"
#include "api/server_call.h"
#include "vekxapi/vekxapi.h"

namespace qv {

class CKXVEAPI final : public AutomationObject<CKXVEAPI, IVEKXAPI12> {
 public:
  explicit CKXVEAPI(SharedClient client) noexcept;

  static bool IsFamily(REFIID iid);
  static const IID& DispatchIid() { return IID_IVEKXAPI12; }

  // IVEKXAPI
  HRESULT STDMETHODCALLTYPE AddTarget(BSTR bstrHostName, ITarget** ppTarget) override;
  HRESULT STDMETHODCALLTYPE get_Targets(VARIANT* pTargets) override;
  HRESULT STDMETHODCALLTYPE ShowTargetPicker(LONGLONG hParent, ITarget** ppTarget) override;
  HRESULT STDMETHODCALLTYPE DiscoverTargets(VARIANT* pAddresses) override;
  HRESULT STDMETHODCALLTYPE GetErrorDescription(LONG hr, BSTR* pbstrDescription) override;
  HRESULT STDMETHODCALLTYPE Dispose() override;
  HRESULT STDMETHODCALLTYPE CheckCompatibility(ULONG uExpectedVersion) override;
  HRESULT STDMETHODCALLTYPE TargetInfo(BSTR bstrHost, VARIANT* pInfo) override;
  HRESULT STDMETHODCALLTYPE AdviseServerEvents(IEventServer* pSink) override;
  HRESULT STDMETHODCALLTYPE UnadviseServerEvents(IEventServer* pSink) override;
  HRESULT STDMETHODCALLTYPE StartPacketLogging(BSTR bstrFilename) override;
  HRESULT STDMETHODCALLTYPE StopPacketLogging() override;
  HRESULT STDMETHODCALLTYPE Version(ULONG* puMajor, ULONG* puMinor, ULONG* puPatch,
                                    ULONG* puBuild) override;
  HRESULT STDMETHODCALLTYPE ServerVersion(ULONG* puMajor, ULONG* puMinor, ULONG* puPatch,
                                          ULONG* puBuild) override;
  HRESULT STDMETHODCALLTYPE LoadCoreDump(BSTR bstrFilename, IEventTarget* pSink,
                                         BSTR bstrPseudoHost, ITarget** ppTarget) override;
  HRESULT STDMETHODCALLTYPE StartRVS(unsigned char chDriveLetter, ULONG uOptions) override;
  HRESULT STDMETHODCALLTYPE StopRVS() override;
  HRESULT STDMETHODCALLTYPE GetRVSDrive(ULONG* puOptions, unsigned char* pchDriveLetter) override;
  HRESULT STDMETHODCALLTYPE GetCoreDumpTargetByHost(BSTR bstrPseudoHost,
                                                    ITarget** ppTarget) override;
  HRESULT STDMETHODCALLTYPE get_DefaultTarget(ITarget** ppTarget) override;
  HRESULT STDMETHODCALLTYPE GetTargetsByHost(BSTR bstrHostName, VARIANT* pTargets) override;
  HRESULT STDMETHODCALLTYPE StartMultiFilePacketLogging(BSTR bstrFile1, BSTR bstrFile2,
                                                        ULONGLONG uSize) override;
  HRESULT STDMETHODCALLTYPE FileSystemDriverVersion(ULONG* puMajor, ULONG* puMinor, ULONG* puPatch,
                                                    ULONG* puBuild, ULONG* puDriver,
                                                    BSTR* pbstrName) override;
  HRESULT STDMETHODCALLTYPE GetTargetsByName(BSTR bstrName, VARIANT* pTargets) override;
  HRESULT STDMETHODCALLTYPE FindTargets(VARIANT arrRules) override;
  HRESULT STDMETHODCALLTYPE AllocTargetFindRule(ITargetFindRule** ppRule) override;
  HRESULT STDMETHODCALLTYPE CancelFindTargets() override;
  // IVEKXAPI2
  HRESULT STDMETHODCALLTYPE SetLoggingLevel(eLoggingLevel level) override;
  HRESULT STDMETHODCALLTYPE GetLoggingLevel(eLoggingLevel* pLevel) override;
  // IVEKXAPI3
  HRESULT STDMETHODCALLTYPE AllocControllerData(IDispatch** ppData) override;
  HRESULT STDMETHODCALLTYPE AllocControllerState(IDispatch** ppState) override;
  HRESULT STDMETHODCALLTYPE AllocTouchData(IDispatch** ppData) override;
  HRESULT STDMETHODCALLTYPE AllocTouchPoint(IDispatch** ppPoint) override;
  // IVEKXAPI4
  HRESULT STDMETHODCALLTYPE EnableHostExec(VARIANT_BOOL bEnable) override;
  HRESULT STDMETHODCALLTYPE HostExecEnabled(VARIANT_BOOL* pbEnabled) override;
  // IVEKXAPI5
  HRESULT STDMETHODCALLTYPE EnableDistributedCopy(VARIANT_BOOL bEnable) override;
  HRESULT STDMETHODCALLTYPE DistributedCopyEnabled(VARIANT_BOOL* pbEnabled) override;
  HRESULT STDMETHODCALLTYPE InstallPackage(VARIANT targets, BSTR bstrPackage,
                                           ULONG* puCopyId) override;
  HRESULT STDMETHODCALLTYPE UpdateKernel(VARIANT targets, BSTR bstrFilename,
                                         ULONG* puCopyId) override;
  HRESULT STDMETHODCALLTYPE FileCopy(VARIANT targets, BSTR bstrHostPath, BSTR bstrTargetPath,
                                     ULONG* puCopyId) override;
  HRESULT STDMETHODCALLTYPE SyncDirectory(VARIANT targets, BSTR bstrHostPath, BSTR bstrTargetPath,
                                          ULONG* puCopyId) override;
  HRESULT STDMETHODCALLTYPE DirectoryCopy(VARIANT targets, BSTR bstrHostPath, BSTR bstrTargetPath,
                                          ULONG* puCopyId) override;
  HRESULT STDMETHODCALLTYPE CopyInProgress(VARIANT_BOOL* pbInProgress) override;
  HRESULT STDMETHODCALLTYPE CancelCopy(ULONG uCopyId) override;
  // IVEKXAPI6
  HRESULT STDMETHODCALLTYPE SetNetworkManagerLogging(VARIANT_BOOL bEnable) override;
  HRESULT STDMETHODCALLTYPE GetNetworkManagerLogging(VARIANT_BOOL* pbEnabled) override;
  HRESULT STDMETHODCALLTYPE StartNetworkManagerPacketLogging(BSTR bstrFilename) override;
  HRESULT STDMETHODCALLTYPE StopNetworkManagerPacketLogging() override;
  HRESULT STDMETHODCALLTYPE NetworkManagerInfo(VARIANT* pInfo) override;
  HRESULT STDMETHODCALLTYPE FindMiradorTargets(VARIANT arrRules) override;
  HRESULT STDMETHODCALLTYPE CancelFindMiradorTargets() override;
  // IVEKXAPI7
  HRESULT STDMETHODCALLTYPE FileCopyEx(VARIANT targets, BSTR bstrHostPath, BSTR bstrTargetPath,
                                       VARIANT_BOOL bForceOverwrite, ULONG* puCopyId) override;
  HRESULT STDMETHODCALLTYPE SyncDirectoryEx(VARIANT targets, BSTR bstrHostPath, BSTR bstrTargetPath,
                                            VARIANT_BOOL bForceOverwrite, ULONG* puCopyId) override;
  HRESULT STDMETHODCALLTYPE DirectoryCopyEx(VARIANT targets, BSTR bstrHostPath, BSTR bstrTargetPath,
                                            VARIANT_BOOL bForceOverwrite, ULONG* puCopyId) override;
  // IVEKXAPI8
  HRESULT STDMETHODCALLTYPE GetClientPids(VARIANT* pPids) override;
  HRESULT STDMETHODCALLTYPE GetDistributedCopyTargetsById(ULONG uCopyId,
                                                          VARIANT* pTargets) override;
  // IVEKXAPI9
  HRESULT STDMETHODCALLTYPE InstallPackageEx(VARIANT targets, BSTR bstrPackage, ULONG uSlotId,
                                             ULONG uFlags, ULONG* puCopyId) override;
  // IVEKXAPI10
  HRESULT STDMETHODCALLTYPE ConvertFSDPathToTargetAndPath(BSTR bstrHostPath, BSTR* pbstrTargetPath,
                                                          ITarget** ppTarget) override;
  // IVEKXAPI11
  HRESULT STDMETHODCALLTYPE AllocSyncPoint(IDispatch** ppSyncPoint) override;
  // IVEKXAPI12
  HRESULT STDMETHODCALLTYPE AllocControllerConnectivity(IDispatch** ppConnectivity) override;

 private:
  // The private client, or null after Dispose. Free-threaded: a Dispose on one thread may race
  // a call on another, so methods take their own reference under the lock.
  SharedClient Client() const;
  // The checks every method but a few starts with: the private client present and not disposed
  // (E_UNEXPECTED), then, when `compatibility` is set, a passed CheckCompatibility
  // (KXAPI_INCOMPATIBLE_CLIENT). On success `client` holds this call's reference; a failure is
  // reported and returned.
  HRESULT Begin(SharedClient& client, bool compatibility = true) const;
  // For a method whose subsystem this library does not have yet: the usual checks first, so that
  // a disposed or unchecked root object answers as it does everywhere else, then E_NOTIMPL.
  HRESULT NotAvailable(std::u16string_view method) const;
  // FindTargets and FindMiradorTargets: the same rule handling, different requests.
  template <class Request, class Response>
  HRESULT SendFindRules(const VARIANT& rules);

  mutable std::mutex client_mutex_;
  SharedClient client_;
  std::atomic<bool> compatible_{false};
};

// Makes a root object with a new private client for the current user's server, and hands out its
// interface `iid`.
HRESULT CreateRootObject(REFIID iid, void** object) noexcept;
// The same around a given private client (tests give one bound to their own server).
HRESULT CreateRootObject(SharedClient client, REFIID iid, void** object) noexcept;

}  // namespace qv
