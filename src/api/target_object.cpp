#include "api/target_object.h"

#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/error_reporting.h"
#include "api/object_lists.h"
#include "api/result_values.h"
#include "events/console_output.h"
#include "events/event_subscriptions.h"
#include "platform/process_identity.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"
#include "services/generic_protocol.h"

namespace qv {

namespace {

// The checks before a request, in their order (the private client, then the out-pointers), and
// the call. Returns the reported failure, or the response's (successful) result.
template <class... Outs>
HRESULT Ask(const SharedClient& client, uint32_t handle, const CRequest& request,
            CResponse& response, const Outs*... outs) noexcept {
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  if ((... || !outs)) return ReportError(E_POINTER);
  return CallServer(*client, handle, request, response);
}

// A request with no body whose response has no fields of its own.
template <class Request, class Response>
HRESULT Command(const SharedClient& client, uint32_t handle) noexcept {
  Request request;
  Response response;
  return Ask(client, handle, request, response);
}

// A method of a subsystem this version does not have; after Dispose it fails like every other.
HRESULT NotAvailable(const SharedClient& client, std::u16string_view method) noexcept {
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  return ReportNotAvailable(method);
}

bool CopyText(std::u16string_view text, std::u16string& copy) noexcept {
  try {
    copy.assign(text);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// Console input: the text up to its first null goes out; an empty text is refused unsent.
template <class Request, class Response>
HRESULT SendConsoleText(const SharedClient& client, uint32_t handle, eConsoleOutputPort port,
                        eConsoleOutputCategory category, ULONG process_id, BSTR text) noexcept {
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  if (text == nullptr) return ReportError(E_POINTER);
  std::u16string_view typed = InString(text);
  if (typed.empty()) return ReportError(E_INVALIDARG);
  typed = typed.substr(0, typed.find(u'\0'));
  Request request;
  request.Port = static_cast<uint32_t>(port);
  request.Category = static_cast<uint32_t>(category);
  request.ProcessId = process_id;
  if (!CopyText(typed, request.Text)) return ReportError(E_OUTOFMEMORY);
  Response response;
  return CallServer(*client, handle, request, response);
}

int HexDigit(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// "02:00:00:00:00:01" or "02-00-00-00-00-01".
bool ParseMacText(std::u16string_view text, Bytes& mac) {
  if (text.size() != 17) return false;
  mac.assign(6, 0);
  for (size_t i = 0; i < 6; ++i) {
    const int high = HexDigit(text[i * 3]);
    const int low = HexDigit(text[i * 3 + 1]);
    if (high < 0 || low < 0) return false;
    if (i < 5 && text[i * 3 + 2] != u':' && text[i * 3 + 2] != u'-') return false;
    mac[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return true;
}

// The 6 bytes of a MAC address given as VT_ARRAY | VT_UI1 or as text; E_INVALIDARG otherwise.
HRESULT MacAddressBytes(const VARIANT& address, Bytes& mac) noexcept {
  try {
    if (address.vt == VT_BSTR) {
      return ParseMacText(InString(address.bstrVal), mac) ? S_OK : E_INVALIDARG;
    }
    if (address.vt != (VT_ARRAY | VT_UI1) || address.parray == nullptr ||
        SafeArrayGetDim(address.parray) != 1) {
      return E_INVALIDARG;
    }
    LONG lower = 0;
    LONG upper = -1;
    if (FAILED(SafeArrayGetLBound(address.parray, 1, &lower)) ||
        FAILED(SafeArrayGetUBound(address.parray, 1, &upper)) || upper - lower + 1 != 6) {
      return E_INVALIDARG;
    }
    mac.resize(6);  // before the array is locked: nothing may throw while it is
    void* data = nullptr;
    if (const HRESULT hr = SafeArrayAccessData(address.parray, &data); FAILED(hr)) return hr;
    std::memcpy(mac.data(), data, 6);
    SafeArrayUnaccessData(address.parray);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace

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
  return Command<CTargetConnectRequest, CTargetConnectResponse>(client_, handle_);
}

HRESULT CKXVETarget::Disconnect() {
  return Command<CTargetDisconnectRequest, CTargetDisconnectResponse>(client_, handle_);
}

HRESULT CKXVETarget::ForceDisconnect() {
  return Command<CForceDisconnectRequest, CForceDisconnectResponse>(client_, handle_);
}

HRESULT CKXVETarget::PowerOff() {
  return Command<CPowerOffRequest, CPowerOffResponse>(client_, handle_);
}

HRESULT CKXVETarget::PowerOn() {
  return Command<CPowerOnRequest, CPowerOnResponse>(client_, handle_);
}

HRESULT CKXVETarget::get_PowerStatus(ePowerStatus* status) {
  CPowerStatusResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CPowerStatusRequest{}, response, status); FAILED(hr))
    return hr;
  *status = static_cast<ePowerStatus>(response.PowerStatus);
  return S_OK;
}

// Kits cannot be suspended from the host; nothing is sent.
HRESULT CKXVETarget::Suspend() {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  return ReportError(E_NOTIMPL);
}

HRESULT CKXVETarget::Reboot() {
  return Command<CRebootRequest, CRebootResponse>(client_, handle_);
}

HRESULT CKXVETarget::ForcePowerOff() {
  return Command<CForcePowerOffRequest, CForcePowerOffResponse>(client_, handle_);
}

HRESULT CKXVETarget::ConnectForNotifications() {
  return Command<CConnectForNotificationsRequest, CConnectForNotificationsResponse>(client_,
                                                                                    handle_);
}

HRESULT CKXVETarget::DisconnectFromNotifications() {
  return Command<CDisconnectFromNotificationsRequest, CDisconnectFromNotificationsResponse>(
      client_, handle_);
}

HRESULT CKXVETarget::get_ConnectionState(eConnectionState* state) {
  CConnectionStateResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CConnectionStateRequest{}, response, state);
      FAILED(hr))
    return hr;
  *state = static_cast<eConnectionState>(response.State);
  return S_OK;
}

HRESULT CKXVETarget::get_HostName(BSTR* host) {
  CGetHostNameResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CGetHostNameRequest{}, response, host); FAILED(hr))
    return hr;
  return ReportError(OutString(response.HostName, host));
}

HRESULT CKXVETarget::Delete() {
  return Command<CDeleteTargetRequest, CDeleteTargetResponse>(client_, handle_);
}

HRESULT CKXVETarget::CancelCurrentCommand() {
  return Command<CCancelCurrentCommandRequest, CCancelCurrentCommandResponse>(client_, handle_);
}

HRESULT CKXVETarget::CancelMyCommands() {
  return Command<CCancelMyCommandsRequest, CCancelMyCommandsResponse>(client_, handle_);
}

HRESULT CKXVETarget::get_TargetInfo(VARIANT* info) {
  CGetTargetInfoResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CGetTargetInfoRequest{}, response, info); FAILED(hr))
    return hr;
  return ReportError(OutNameValueArray(response.Info, info));
}

// The server keeps one default for all clients; this object is it when the handles match.
HRESULT CKXVETarget::get_Default(VARIANT_BOOL* is_default) {
  CGetDefaultTargetResponse response;
  if (const HRESULT hr = Ask(client_, kNoTarget, CGetDefaultTargetRequest{}, response, is_default);
      FAILED(hr))
    return hr;
  *is_default = response.Handle == handle_ ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

// Any value makes this target the default: there is no "no default" to go back to.
HRESULT CKXVETarget::put_Default(VARIANT_BOOL) {
  CSetDefaultTargetRequest request;
  request.Handle = handle_;
  CSetDefaultTargetResponse response;
  return Ask(client_, kNoTarget, request, response);
}

HRESULT CKXVETarget::get_ConnectionInfo(BSTR* info) {
  CGetConnectionInfoResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CGetConnectionInfoRequest{}, response, info);
      FAILED(hr))
    return hr;
  return ReportError(OutString(response.ConnectionInfo, info));
}

HRESULT CKXVETarget::RequestConnection() {
  return Command<CRequestConnectionRequest, CRequestConnectionResponse>(client_, handle_);
}

HRESULT CKXVETarget::ReleaseConnection() {
  return Command<CReleaseConnectionRequest, CReleaseConnectionResponse>(client_, handle_);
}

HRESULT CKXVETarget::get_IsBusy(VARIANT_BOOL* busy) {
  CGetTargetBusyStateResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CGetTargetBusyStateRequest{}, response, busy);
      FAILED(hr))
    return hr;
  *busy = response.BusyCount > 0 ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT CKXVETarget::get_Name(BSTR* name) {
  CGetTargetNameResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CGetTargetNameRequest{}, response, name); FAILED(hr))
    return hr;
  return ReportError(OutString(response.Name, name));
}

HRESULT CKXVETarget::put_Name(BSTR name) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  if (name == nullptr) return ReportError(E_POINTER);
  if (InString(name).empty()) return ReportError(E_INVALIDARG);
  CSetTargetNameRequest request;
  if (!CopyText(InString(name), request.Name)) return ReportError(E_OUTOFMEMORY);
  CSetTargetNameResponse response;
  return CallServer(*client_, handle_, request, response);
}

HRESULT CKXVETarget::get_CachedName(BSTR* name) {
  CGetCachedTargetNameResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CGetCachedTargetNameRequest{}, response, name);
      FAILED(hr))
    return hr;
  return ReportError(OutString(response.Name, name));
}

// VT_ARRAY | VT_UI1 holding the address's bytes in wire order (6 of them; none when the server
// knows no address), the form put_MacAddress takes back.
HRESULT CKXVETarget::get_MacAddress(VARIANT* address) {
  CGetMacAddressResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CGetMacAddressRequest{}, response, address);
      FAILED(hr))
    return hr;
  return ReportError(OutByteArray(response.MacAddress, address));
}

// Takes the 6 bytes as VT_ARRAY | VT_UI1, or as text "02:00:00:00:00:01" (':' or '-' between the
// pairs), which is what scripts can make.
HRESULT CKXVETarget::put_MacAddress(VARIANT address) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CSetCachedMacAddressRequest request;
  if (const HRESULT hr = MacAddressBytes(address, request.MacAddress); FAILED(hr))
    return ReportError(hr);
  CSetCachedMacAddressResponse response;
  return CallServer(*client_, handle_, request, response);
}

HRESULT CKXVETarget::put_SubnetMask(ULONG mask) {
  CSetCachedSubnetMaskRequest request;
  request.SubnetMask = mask;
  CSetCachedSubnetMaskResponse response;
  return Ask(client_, handle_, request, response);
}

HRESULT CKXVETarget::SDKVersion(ULONG* major, ULONG* minor, ULONG* patch, ULONG* build) {
  CGetSdkVersionResponse response;
  if (const HRESULT hr =
          Ask(client_, handle_, CGetSdkVersionRequest{}, response, major, minor, patch, build);
      FAILED(hr))
    return hr;
  *major = response.Major;
  *minor = response.Minor;
  *patch = response.Patch;
  *build = response.Build;
  return S_OK;
}

HRESULT CKXVETarget::AdviseTargetEvents(IEventTarget* pSink) {
  return AdviseEvents<EventGroup::Target>(client_, handle_, pSink, IID_IEventTarget);
}

HRESULT CKXVETarget::UnadviseTargetEvents(IEventTarget* pSink) {
  return UnadviseEvents<EventGroup::Target>(client_, handle_, pSink);
}

HRESULT CKXVETarget::AdviseDebugEvents(IEventDebug* pSink) {
  return AdviseEvents<EventGroup::Debug>(client_, handle_, pSink, IID_IEventDebug);
}

HRESULT CKXVETarget::UnadviseDebugEvents(IEventDebug* pSink) {
  return UnadviseEvents<EventGroup::Debug>(client_, handle_, pSink);
}

HRESULT CKXVETarget::AdviseConsoleOutputEvents(IEventConsoleOutput* pSink) {
  return AdviseEvents<EventGroup::ConsoleOutput>(client_, handle_, pSink, IID_IEventConsoleOutput);
}

HRESULT CKXVETarget::UnadviseConsoleOutputEvents(IEventConsoleOutput* pSink) {
  return UnadviseEvents<EventGroup::ConsoleOutput>(client_, handle_, pSink);
}

HRESULT CKXVETarget::AdviseCacheUpdateEvents(IEventCacheUpdate* pSink) {
  return AdviseEvents<EventGroup::CacheUpdate>(client_, handle_, pSink, IID_IEventCacheUpdate);
}

HRESULT CKXVETarget::UnadviseCacheUpdateEvents(IEventCacheUpdate* pSink) {
  return UnadviseEvents<EventGroup::CacheUpdate>(client_, handle_, pSink);
}

HRESULT CKXVETarget::AdviseControllerEvents(IEventController* pSink) {
  return AdviseEvents<EventGroup::Controller>(client_, handle_, pSink, IID_IEventController);
}

HRESULT CKXVETarget::UnadviseControllerEvents(IEventController* pSink) {
  return UnadviseEvents<EventGroup::Controller>(client_, handle_, pSink);
}

HRESULT CKXVETarget::SendConsoleInput(eConsoleOutputPort port, eConsoleOutputCategory category,
                                      ULONG uProcessId, BSTR bstrInputText) {
  return SendConsoleText<CSendConsoleInputRequest, CSendConsoleInputResponse>(
      client_, handle_, port, category, uProcessId, bstrInputText);
}
HRESULT CKXVETarget::CachedConsoleOutput(ULONG* puIndex, VARIANT* pOutput) {
  CFetchConsoleCacheRequest request;
  CFetchConsoleCacheResponse response;
  // The null index is reported before a missing private client, as callers have always seen.
  if (puIndex == nullptr || pOutput == nullptr) return ReportError(E_POINTER);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  request.StartIndex = *puIndex;
  if (HRESULT hr = CallServer(*client_, handle_, request, response); FAILED(hr)) return hr;
  std::vector<vekx::ComPtr<IDispatch>> pieces;
  try {
    pieces.reserve(response.Records.size());
    for (ConsoleCacheRecord& record : response.Records) {
      IDispatch* piece = nullptr;
      if (HRESULT hr = CreateObject<CKXVEConsoleOutput>(
              IID_IDispatch, reinterpret_cast<void**>(&piece), std::move(record));
          FAILED(hr)) {
        return ReportError(hr);
      }
      pieces.push_back(vekx::ComPtr<IDispatch>::Adopt(piece));
    }
  } catch (const std::bad_alloc&) {
    return ReportError(E_OUTOFMEMORY);
  }
  VARIANT records;
  if (HRESULT hr = OutObjectArray(pieces, &records); FAILED(hr)) return ReportError(hr);
  // Only now, with everything made: a failure above leaves the caller's index and output as they
  // were.
  VariantClear(pOutput);
  *pOutput = records;
  *puIndex = response.NextIndex;
  return S_OK;
}
HRESULT CKXVETarget::get_ConsoleCacheIndex(ULONG* puIndex) {
  CGetConsoleCacheUBoundResponse response;
  if (HRESULT hr = Ask(client_, handle_, CGetConsoleCacheUBoundRequest{}, response, puIndex);
      FAILED(hr))
    return hr;
  *puIndex = response.UpperBound;
  return S_OK;
}
HRESULT CKXVETarget::ClearConsoleCache() {
  return Command<CClearConsoleCacheRequest, CClearConsoleCacheResponse>(client_, handle_);
}
// VT_ARRAY | VT_UI4: the protocols this client holds in use on the target, ascending.
HRESULT CKXVETarget::get_ProtocolRegistrationInfo(VARIANT* registrations) {
  CProtocolRegistrationInfoResponse response;
  if (const HRESULT hr =
          Ask(client_, handle_, CProtocolRegistrationInfoRequest{}, response, registrations);
      FAILED(hr))
    return hr;
  return ReportError(OutU32Array(response.Protocols, registrations));
}

HRESULT CKXVETarget::SetProtocolInUse(ULONG protocol) {
  CSetProtocolInUseRequest request;
  request.Protocol = protocol;
  CSetProtocolInUseResponse response;
  return Ask(client_, handle_, request, response);
}

HRESULT CKXVETarget::ClearProtocolInUse(ULONG protocol) {
  CClearProtocolInUseRequest request;
  request.Protocol = protocol;
  CClearProtocolInUseResponse response;
  return Ask(client_, handle_, request, response);
}

// True when any client holds the protocol, this one included.
HRESULT CKXVETarget::QueryProtocolInUse(ULONG protocol, VARIANT_BOOL* in_use) {
  CQueryProtocolInUseRequest request;
  request.Protocol = protocol;
  CQueryProtocolInUseResponse response;
  if (const HRESULT hr = Ask(client_, handle_, request, response, in_use); FAILED(hr)) return hr;
  *in_use = response.InUse ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

// INameValuePair objects: Protocol, InUse, ProcessId (of the holder) and HeldByCaller.
HRESULT CKXVETarget::GetProtocolInfo(ULONG protocol, VARIANT* info) {
  CGetProtocolInfoRequest request;
  request.Protocol = protocol;
  CGetProtocolInfoResponse response;
  if (const HRESULT hr = Ask(client_, handle_, request, response, info); FAILED(hr)) return hr;
  return ReportError(OutNameValueArray(response.Info, info));
}

HRESULT CKXVETarget::get_ConsoleCacheSize(ULONG* puSize) {
  CGetConsoleCacheSizeResponse response;
  if (HRESULT hr = Ask(client_, handle_, CGetConsoleCacheSizeRequest{}, response, puSize);
      FAILED(hr))
    return hr;
  *puSize = response.Size;
  return S_OK;
}
HRESULT CKXVETarget::put_ConsoleCacheSize(ULONG uSize) {
  CSetConsoleCacheSizeRequest request;
  request.Size = uSize;
  CSetConsoleCacheSizeResponse response;
  return Ask(client_, handle_, request, response);
}
HRESULT CKXVETarget::ScreenShot(BSTR) {
  return NotAvailable(client_, u"ITarget4::ScreenShot");
}

HRESULT CKXVETarget::AdviseEventViewerEvents(IEventViewer* pSink) {
  return AdviseEvents<EventGroup::Viewer>(client_, handle_, pSink, IID_IEventViewer);
}

HRESULT CKXVETarget::UnadviseEventViewerEvents(IEventViewer* pSink) {
  return UnadviseEvents<EventGroup::Viewer>(client_, handle_, pSink);
}

HRESULT CKXVETarget::get_ControllerInterface(IDispatch**) {
  return NotAvailable(client_, u"ITarget7::get_ControllerInterface");
}

HRESULT CKXVETarget::OpenGenericProtocol(ULONG uProtocolNumber, IEventGenericProtocol* pEventSink,
                                         IGenericProtocol** ppConnection) {
  return qv::OpenGenericProtocol(client_, handle_, uProtocolNumber, pEventSink, ppConnection);
}

HRESULT CKXVETarget::UnadviseGenericProtocolEvents(IEventGenericProtocol* pSink) {
  return UnadviseEvents<EventGroup::GenericProtocol>(client_, handle_, pSink);
}

HRESULT CKXVETarget::AdviseTrickleEvents(IEventTrickle* pSink) {
  return AdviseEvents<EventGroup::Trickle>(client_, handle_, pSink, IID_IEventTrickle);
}

HRESULT CKXVETarget::UnadviseTrickleEvents(IEventTrickle* pSink) {
  return UnadviseEvents<EventGroup::Trickle>(client_, handle_, pSink);
}

HRESULT CKXVETarget::SendConsoleInputWithEcho(eConsoleOutputPort port,
                                              eConsoleOutputCategory category, ULONG uProcessId,
                                              BSTR bstrInputText) {
  return SendConsoleText<CSendConsoleInputWithEchoRequest, CSendConsoleInputWithEchoResponse>(
      client_, handle_, port, category, uProcessId, bstrInputText);
}
HRESULT CKXVETarget::AdviseProcessLockEvents(IEventProcessLock* pSink) {
  return AdviseEvents<EventGroup::ProcessLock>(client_, handle_, pSink, IID_IEventProcessLock);
}

HRESULT CKXVETarget::UnadviseProcessLockEvents(IEventProcessLock* pSink) {
  return UnadviseEvents<EventGroup::ProcessLock>(client_, handle_, pSink);
}

HRESULT CKXVETarget::GetSettings(VARIANT, VARIANT*) {
  return NotAvailable(client_, u"ITarget13::GetSettings");
}

HRESULT CKXVETarget::SetSettings(VARIANT) {
  return NotAvailable(client_, u"ITarget13::SetSettings");
}

HRESULT CKXVETarget::GetDefaultSettings(VARIANT, VARIANT*) {
  return NotAvailable(client_, u"ITarget14::GetDefaultSettings");
}

HRESULT CKXVETarget::GetSettingsLayout(BSTR*) {
  return NotAvailable(client_, u"ITarget14::GetSettingsLayout");
}

HRESULT CKXVETarget::AllocSetting(IDispatch**) {
  return NotAvailable(client_, u"ITarget15::AllocSetting");
}

HRESULT CKXVETarget::get_GetSoftwareInfo(VARIANT*) {
  return NotAvailable(client_, u"ITarget16::get_GetSoftwareInfo");
}

HRESULT CKXVETarget::get_Configuration(VARIANT*) {
  return NotAvailable(client_, u"ITarget17::get_Configuration");
}

HRESULT CKXVETarget::GetNetworkSystemInfo(VARIANT*) {
  return NotAvailable(client_, u"ITarget18::GetNetworkSystemInfo");
}

HRESULT CKXVETarget::GetNetworkResolverInfo(VARIANT*) {
  return NotAvailable(client_, u"ITarget19::GetNetworkResolverInfo");
}

HRESULT CKXVETarget::GetNetworkInterfaceInfo(VARIANT*) {
  return NotAvailable(client_, u"ITarget20::GetNetworkInterfaceInfo");
}

HRESULT CKXVETarget::TraceCreate(VARIANT, ULONG*) {
  return NotAvailable(client_, u"ITarget22::TraceCreate");
}

HRESULT CKXVETarget::TraceReset(ULONG) {
  return NotAvailable(client_, u"ITarget22::TraceReset");
}

HRESULT CKXVETarget::IBSTraceCreate(VARIANT, ULONG*) {
  return NotAvailable(client_, u"ITarget23::IBSTraceCreate");
}

HRESULT CKXVETarget::WriteTracePacket(ULONG, VARIANT) {
  return NotAvailable(client_, u"ITarget24::WriteTracePacket");
}

HRESULT CKXVETarget::MonoVmInfo(ULONG, VARIANT*) {
  return NotAvailable(client_, u"ITarget25::MonoVmInfo");
}

HRESULT CKXVETarget::UpdateKernel(BSTR) {
  return NotAvailable(client_, u"ITarget26::UpdateKernel");
}

HRESULT CKXVETarget::get_FileServingRoot(BSTR*) {
  return NotAvailable(client_, u"ITarget27::get_FileServingRoot");
}

HRESULT CKXVETarget::put_FileServingRoot(BSTR) {
  return NotAvailable(client_, u"ITarget27::put_FileServingRoot");
}

HRESULT CKXVETarget::get_CaseSensitiveFileServing(VARIANT_BOOL*) {
  return NotAvailable(client_, u"ITarget28::get_CaseSensitiveFileServing");
}

HRESULT CKXVETarget::put_CaseSensitiveFileServing(VARIANT_BOOL) {
  return NotAvailable(client_, u"ITarget28::put_CaseSensitiveFileServing");
}

HRESULT CKXVETarget::AdviseHighFreqFileCopyEvents(IEventHighFreqFileCopy* pSink) {
  return AdviseEvents<EventGroup::HighFreqFileCopy>(client_, handle_, pSink,
                                                    IID_IEventHighFreqFileCopy);
}

HRESULT CKXVETarget::UnadviseHighFreqFileCopyEvents(IEventHighFreqFileCopy* pSink) {
  return UnadviseEvents<EventGroup::HighFreqFileCopy>(client_, handle_, pSink);
}

HRESULT CKXVETarget::AdviseLowFreqFileCopyEvents(IEventLowFreqFileCopy* pSink) {
  return AdviseEvents<EventGroup::LowFreqFileCopy>(client_, handle_, pSink,
                                                   IID_IEventLowFreqFileCopy);
}

HRESULT CKXVETarget::UnadviseLowFreqFileCopyEvents(IEventLowFreqFileCopy* pSink) {
  return UnadviseEvents<EventGroup::LowFreqFileCopy>(client_, handle_, pSink);
}

HRESULT CKXVETarget::InstallPackage(BSTR) {
  return NotAvailable(client_, u"ITarget30::InstallPackage");
}

HRESULT CKXVETarget::UninstallPackage(BSTR) {
  return NotAvailable(client_, u"ITarget30::UninstallPackage");
}

HRESULT CKXVETarget::ListInstalledPackages(VARIANT*) {
  return NotAvailable(client_, u"ITarget30::ListInstalledPackages");
}

HRESULT CKXVETarget::AppList(VARIANT*) {
  return NotAvailable(client_, u"ITarget31::AppList");
}

HRESULT CKXVETarget::AppSpawn(BSTR, ULONG*) {
  return NotAvailable(client_, u"ITarget31::AppSpawn");
}

HRESULT CKXVETarget::AppKill(ULONG) {
  return NotAvailable(client_, u"ITarget31::AppKill");
}

HRESULT CKXVETarget::AppSuspend(ULONG) {
  return NotAvailable(client_, u"ITarget31::AppSuspend");
}

HRESULT CKXVETarget::AppResume(ULONG) {
  return NotAvailable(client_, u"ITarget31::AppResume");
}

HRESULT CKXVETarget::get_RealTimeClock(ULONGLONG*) {
  return NotAvailable(client_, u"ITarget32::get_RealTimeClock");
}

HRESULT CKXVETarget::get_SystemTime(ULONGLONG*) {
  return NotAvailable(client_, u"ITarget32::get_SystemTime");
}

HRESULT CKXVETarget::MountBluray(BSTR) {
  return NotAvailable(client_, u"ITarget33::MountBluray");
}

HRESULT CKXVETarget::UnmountBluray() {
  return NotAvailable(client_, u"ITarget33::UnmountBluray");
}

HRESULT CKXVETarget::get_BlurayMountStatus(VARIANT_BOOL*) {
  return NotAvailable(client_, u"ITarget33::get_BlurayMountStatus");
}

// The target object's process lock covers all of the target's processes (process 0 on the
// wire); the owner is named after this process in the lock's events.
HRESULT CKXVETarget::RequestProcessLock() {
  CRequestProcessLockRequest request;
  request.Requester =
      u"process " + platform::Utf8ToUtf16(std::to_string(platform::CurrentProcessId()));
  CRequestProcessLockResponse response;
  return Ask(client_, handle_, request, response);
}

HRESULT CKXVETarget::ReleaseProcessLock() {
  CReleaseProcessLockResponse response;
  return Ask(client_, handle_, CReleaseProcessLockRequest{}, response);
}

HRESULT CKXVETarget::get_IsProcessLocked(VARIANT_BOOL* locked) {
  CIsProcessLockedResponse response;
  if (const HRESULT hr = Ask(client_, handle_, CIsProcessLockedRequest{}, response, locked);
      FAILED(hr))
    return hr;
  *locked = response.Locked ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT CKXVETarget::TransferProcessLock(ULONG uClientPid) {
  CTransferProcessLockRequest request;
  request.ClientPid = uClientPid;
  CTransferProcessLockResponse response;
  return Ask(client_, handle_, request, response);
}

HRESULT CKXVETarget::ReclaimProcessLock() {
  CReclaimProcessLockResponse response;
  return Ask(client_, handle_, CReclaimProcessLockRequest{}, response);
}

HRESULT CKXVETarget::GetEventViewerXML(BSTR*) {
  return NotAvailable(client_, u"ITarget35::GetEventViewerXML");
}

HRESULT CKXVETarget::get_EventViewerFilter(BSTR*) {
  return NotAvailable(client_, u"ITarget35::get_EventViewerFilter");
}

HRESULT CKXVETarget::put_EventViewerFilter(BSTR) {
  return NotAvailable(client_, u"ITarget35::put_EventViewerFilter");
}

HRESULT CKXVETarget::StartRecording(BSTR) {
  return NotAvailable(client_, u"ITarget36::StartRecording");
}

HRESULT CKXVETarget::StopRecording() {
  return NotAvailable(client_, u"ITarget36::StopRecording");
}

HRESULT CKXVETarget::StartPlayback(BSTR) {
  return NotAvailable(client_, u"ITarget36::StartPlayback");
}

HRESULT CKXVETarget::StopPlayback() {
  return NotAvailable(client_, u"ITarget36::StopPlayback");
}

HRESULT CKXVETarget::get_NetworkEmulationSettings(VARIANT*) {
  return NotAvailable(client_, u"ITarget37::get_NetworkEmulationSettings");
}

HRESULT CKXVETarget::put_NetworkEmulationSettings(VARIANT) {
  return NotAvailable(client_, u"ITarget37::put_NetworkEmulationSettings");
}

HRESULT CKXVETarget::Standby() {
  return NotAvailable(client_, u"ITarget38::Standby");
}

HRESULT CKXVETarget::get_ToolType(BSTR*) {
  return NotAvailable(client_, u"ITarget39::get_ToolType");
}

HRESULT CKXVETarget::get_CachedToolType(BSTR*) {
  return NotAvailable(client_, u"ITarget39::get_CachedToolType");
}

HRESULT CKXVETarget::get_OutputDisplayMode(VARIANT*) {
  return NotAvailable(client_, u"ITarget40::get_OutputDisplayMode");
}

HRESULT CKXVETarget::get_TitleSafeAreaInfo(VARIANT*) {
  return NotAvailable(client_, u"ITarget40::get_TitleSafeAreaInfo");
}

HRESULT CKXVETarget::GenerateSystemCoredump(BSTR) {
  return NotAvailable(client_, u"ITarget41::GenerateSystemCoredump");
}

HRESULT CKXVETarget::get_SystemFrequencies(VARIANT*) {
  return NotAvailable(client_, u"ITarget42::get_SystemFrequencies");
}

HRESULT CKXVETarget::get_SystemTimestamps(VARIANT*) {
  return NotAvailable(client_, u"ITarget42::get_SystemTimestamps");
}

HRESULT CKXVETarget::MoveTitle(BSTR, BSTR) {
  return NotAvailable(client_, u"ITarget43::MoveTitle");
}

HRESULT CKXVETarget::get_HMDVersionInfo(VARIANT*) {
  return NotAvailable(client_, u"ITarget44::get_HMDVersionInfo");
}

HRESULT CKXVETarget::UpdateCpFirmware(BSTR) {
  return NotAvailable(client_, u"ITarget45::UpdateCpFirmware");
}

HRESULT CKXVETarget::PerfCounterOpen(ULONG, ULONG*) {
  return NotAvailable(client_, u"ITarget46::PerfCounterOpen");
}

HRESULT CKXVETarget::PerfCounterClose(ULONG) {
  return NotAvailable(client_, u"ITarget46::PerfCounterClose");
}

HRESULT CKXVETarget::get_DebugAgentLogging(VARIANT_BOOL*) {
  return NotAvailable(client_, u"ITarget47::get_DebugAgentLogging");
}

HRESULT CKXVETarget::put_DebugAgentLogging(VARIANT_BOOL) {
  return NotAvailable(client_, u"ITarget47::put_DebugAgentLogging");
}

}  // namespace qv
