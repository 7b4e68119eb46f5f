#include "api/root_object.h"

#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "api/error_descriptions.h"
#include "api/error_reporting.h"
#include "api/object_lists.h"
#include "api/result_values.h"
#include "api/target_find_rule.h"
#include "api/target_object.h"
#include "api/target_picker.h"
#include "events/event_subscriptions.h"
#include "requests/catalogue.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/result_codes.h"
#include "vekxapi/variant.h"

namespace qv {
namespace {

// The interface generation a client must name in CheckCompatibility.
constexpr ULONG kInterfaceGeneration = 21;
// The library's own version, major to build.
constexpr ULONG kLibraryVersion[4] = {5, 0, 0, 10};

// A string argument that names a host, a file or a name: present and not empty.
HRESULT CheckName(BSTR text) noexcept {
  if (text == nullptr) return E_POINTER;
  if (InString(text).empty()) return E_INVALIDARG;
  return S_OK;
}

// Copies a string into a request field; the one allocation of a method that could throw.
HRESULT Assign(std::u16string& field, std::u16string_view text) noexcept {
  try {
    field.assign(text);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

template <class... Out>
bool AllPresent(Out*... out) noexcept {
  return ((out != nullptr) && ...);
}

// A new target object for `handle`, handed out as ITarget.
HRESULT OutTarget(const SharedClient& client, uint32_t handle, ITarget** out) noexcept {
  return CreateTargetObject(client, handle, IID_ITarget, reinterpret_cast<void**>(out));
}

// Reads the rules of FindTargets from a VARIANT holding an array of ITargetFindRule objects, in
// array order. The first failure ends it: the conversion's code, or a getter's.
HRESULT ReadFindRules(const VARIANT& argument, FindRuleList& rules) noexcept {
  // A copy, so that a client changing its array meanwhile cannot pull elements away.
  vekx::Variant copy;
  if (HRESULT hr = VariantCopyInd(copy.Put(), const_cast<VARIANT*>(&argument)); FAILED(hr)) {
    return hr;
  }
  std::vector<vekx::Variant> elements;
  if (HRESULT hr = vekx::ArrayElements(copy.Get(), elements); FAILED(hr)) return hr;
  try {
    rules.reserve(elements.size());
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (const vekx::Variant& element : elements) {
    const VARIANT& value = element.Get();
    IUnknown* object = value.vt == VT_DISPATCH  ? value.pdispVal
                       : value.vt == VT_UNKNOWN ? value.punkVal
                                                : nullptr;
    if (object == nullptr) return DISP_E_TYPEMISMATCH;
    vekx::ComPtr<ITargetFindRule> rule;
    if (HRESULT hr =
            object->QueryInterface(IID_ITargetFindRule, reinterpret_cast<void**>(rule.Put()));
        FAILED(hr)) {
      return hr;
    }
    ULONG start = 0;
    ULONG end = 0;
    ULONG mask = 0;
    if (HRESULT hr = rule->get_StartAddress(&start); FAILED(hr)) return hr;
    if (HRESULT hr = rule->get_EndAddress(&end); FAILED(hr)) return hr;
    if (HRESULT hr = rule->get_SubnetMask(&mask); FAILED(hr)) return hr;
    FindRule found;
    found.StartAddress = start;
    found.EndAddress = end;
    found.SubnetMask = mask;
    rules.push_back(found);  // reserved above
  }
  return S_OK;
}

}  // namespace

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

HRESULT CKXVEAPI::Begin(SharedClient& client, bool compatibility) const {
  client = Client();
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  if (compatibility && !compatible_.load(std::memory_order_acquire)) {
    return ReportError(KXAPI_INCOMPATIBLE_CLIENT);
  }
  return S_OK;
}

HRESULT CKXVEAPI::NotAvailable(std::u16string_view method) const {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  return ReportNotAvailable(method);
}

template <class Request, class Response>
HRESULT CKXVEAPI::SendFindRules(const VARIANT& rules) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  Request request;
  if (HRESULT hr = ReadFindRules(rules, request.Rules); FAILED(hr)) return ReportError(hr);
  Response response;
  return CallServer(*client, kNoTarget, request, response);
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

HRESULT CKXVEAPI::AddTarget(BSTR bstrHostName, ITarget** ppTarget) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (ppTarget == nullptr) return ReportError(E_POINTER);
  if (HRESULT hr = CheckName(bstrHostName); FAILED(hr)) return ReportError(hr);
  CAddTargetRequest request;
  if (HRESULT hr = Assign(request.TargetType, u"VE"); FAILED(hr)) return ReportError(hr);
  if (HRESULT hr = Assign(request.HostName, InString(bstrHostName)); FAILED(hr)) {
    return ReportError(hr);
  }
  CAddTargetResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutTarget(client, response.Handle, ppTarget));
}

HRESULT CKXVEAPI::get_Targets(VARIANT* pTargets) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pTargets == nullptr) return ReportError(E_POINTER);
  CGetTargetListRequest request;
  CGetTargetListResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutTargetArray(client, response.Targets, pTargets));
}

HRESULT CKXVEAPI::ShowTargetPicker(LONGLONG hParent, ITarget** ppTarget) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (ppTarget == nullptr) return ReportError(E_POINTER);
  if (!HasTargetPicker()) {
    return ReportError(E_NOTIMPL, u"This platform has no target picker; use Targets instead.");
  }
  vekx::Variant targets;
  if (HRESULT hr = get_Targets(targets.Put()); FAILED(hr)) return hr;
  PickerOutcome outcome;
  if (HRESULT hr = RunTargetPicker(hParent, targets.Get(), outcome); FAILED(hr)) {
    return ReportError(hr);
  }
  switch (outcome.end) {
    case PickerOutcome::End::kCancelled:
      return S_FALSE;  // the out-argument stays as the caller left it
    case PickerOutcome::End::kNothingChosen:
      return ReportError(E_FAIL, u"No target was chosen.");
    case PickerOutcome::End::kChosen:
      break;
  }
  std::vector<vekx::Variant> elements;
  if (HRESULT hr = vekx::ArrayElements(targets.Get(), elements); FAILED(hr)) {
    return ReportError(hr);
  }
  if (outcome.index >= elements.size() || elements[outcome.index].Type() != VT_DISPATCH ||
      elements[outcome.index].Get().pdispVal == nullptr) {
    return ReportError(E_FAIL, u"The picker chose no target of its list.");
  }
  return ReportError(elements[outcome.index].Get().pdispVal->QueryInterface(
      IID_ITarget, reinterpret_cast<void**>(ppTarget)));
}

HRESULT CKXVEAPI::DiscoverTargets(VARIANT* pAddresses) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pAddresses == nullptr) return ReportError(E_POINTER);
  CDiscoverTargetsRequest request;
  CDiscoverTargetsResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutStringArray(response.Addresses, pAddresses));
}

// Works without the private client and before CheckCompatibility: a client may ask what a code
// means at any time, also after Dispose.
HRESULT CKXVEAPI::GetErrorDescription(LONG hr, BSTR* pbstrDescription) {
  if (pbstrDescription == nullptr) return ReportError(E_POINTER);
  const std::optional<std::u16string> text = ExpandedErrorDescription(hr);
  if (!text) return ReportError(E_INVALIDARG, u"The code has no description.");
  return ReportError(OutString(*text, pbstrDescription));
}

HRESULT CKXVEAPI::Dispose() {
  SharedClient client;
  {
    std::lock_guard lock(client_mutex_);
    client = std::move(client_);
    client_ = nullptr;
  }
  if (client == nullptr) return S_OK;
  // First, so that no object sharing the client sends, reconnects or starts a server from now on.
  client->MarkDisposed();
  HRESULT result = S_OK;
  if (client->IsLinkUp()) {
    client->ShutdownStep();
    result = client->Disconnect();
  }
  // Our reference goes with `client`; target objects still holding one keep the client alive.
  return ReportError(result);
}

HRESULT CKXVEAPI::CheckCompatibility(ULONG uExpectedVersion) {
  SharedClient client;
  if (HRESULT hr = Begin(client, false); FAILED(hr)) return hr;
  if (uExpectedVersion < kInterfaceGeneration) {
    return ReportError(KXAPI_INCOMPATIBLE_CLIENT_TOO_OLD);
  }
  if (uExpectedVersion > kInterfaceGeneration) {
    return ReportError(KXAPI_INCOMPATIBLE_CLIENT_TOO_NEW);
  }
  compatible_.store(true, std::memory_order_release);
  return S_OK;
}

HRESULT CKXVEAPI::TargetInfo(BSTR bstrHost, VARIANT* pInfo) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pInfo == nullptr) return ReportError(E_POINTER);
  if (HRESULT hr = CheckName(bstrHost); FAILED(hr)) return ReportError(hr);
  CGetTargetSummaryRequest request;
  if (HRESULT hr = Assign(request.Host, InString(bstrHost)); FAILED(hr)) return ReportError(hr);
  CGetTargetSummaryResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutNameValueArray(response.Summary, pInfo));
}

HRESULT CKXVEAPI::AdviseServerEvents(IEventServer* pSink) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  return AdviseEvents<EventGroup::Server>(client, kNoTarget, pSink, IID_IEventServer);
}

HRESULT CKXVEAPI::UnadviseServerEvents(IEventServer* pSink) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  return UnadviseEvents<EventGroup::Server>(client, kNoTarget, pSink);
}

HRESULT CKXVEAPI::StartPacketLogging(BSTR bstrFilename) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (HRESULT hr = CheckName(bstrFilename); FAILED(hr)) return ReportError(hr);
  CStartPacketLoggingRequest request;
  if (HRESULT hr = Assign(request.FileName, InString(bstrFilename)); FAILED(hr)) {
    return ReportError(hr);
  }
  CStartPacketLoggingResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::StopPacketLogging() {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CStopPacketLoggingRequest request;
  CStopPacketLoggingResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

// Needs neither the private client nor CheckCompatibility.
HRESULT CKXVEAPI::Version(ULONG* puMajor, ULONG* puMinor, ULONG* puPatch, ULONG* puBuild) {
  if (!AllPresent(puMajor, puMinor, puPatch, puBuild)) return ReportError(E_POINTER);
  *puMajor = kLibraryVersion[0];
  *puMinor = kLibraryVersion[1];
  *puPatch = kLibraryVersion[2];
  *puBuild = kLibraryVersion[3];
  return S_OK;
}

// Before CheckCompatibility too: a client may want to know whom it talks to first.
HRESULT CKXVEAPI::ServerVersion(ULONG* puMajor, ULONG* puMinor, ULONG* puPatch, ULONG* puBuild) {
  SharedClient client;
  if (HRESULT hr = Begin(client, false); FAILED(hr)) return hr;
  if (!AllPresent(puMajor, puMinor, puPatch, puBuild)) return ReportError(E_POINTER);
  CGetServerVersionRequest request;
  CGetServerVersionResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  *puMajor = response.Major;
  *puMinor = response.Minor;
  *puPatch = response.Patch;
  *puBuild = response.Build;
  return S_OK;
}

HRESULT CKXVEAPI::LoadCoreDump(BSTR bstrFilename, IEventTarget* pSink, BSTR bstrPseudoHost,
                               ITarget** ppTarget) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (ppTarget == nullptr) return ReportError(E_POINTER);
  if (HRESULT hr = CheckName(bstrFilename); FAILED(hr)) return ReportError(hr);
  if (HRESULT hr = CheckName(bstrPseudoHost); FAILED(hr)) return ReportError(hr);

  CLoadCoreDumpRequest load;  // filled first: nothing can fail between the steps but a call
  if (HRESULT hr = Assign(load.FileName, InString(bstrFilename)); FAILED(hr)) {
    return ReportError(hr);
  }
  CAddTargetRequest add;
  if (HRESULT hr = Assign(add.TargetType, u"CoreDump"); FAILED(hr)) return ReportError(hr);
  if (HRESULT hr = Assign(add.HostName, InString(bstrPseudoHost)); FAILED(hr)) {
    return ReportError(hr);
  }
  CAddTargetResponse added;
  if (HRESULT hr = CallServer(*client, kNoTarget, add, added); FAILED(hr)) return hr;
  vekx::ComPtr<ITarget> target;
  if (HRESULT hr = OutTarget(client, added.Handle, target.Put()); FAILED(hr)) {
    return ReportError(hr);
  }
  // The sink hears the dump's events from the start; the target reports its own failure.
  if (HRESULT hr = target->AdviseTargetEvents(pSink); FAILED(hr)) return hr;

  CLoadCoreDumpResponse loaded;
  const HRESULT hr = client->Call(added.Handle, load, loaded);
  if (FAILED(hr)) {
    target->UnadviseTargetEvents(pSink);
    // After the unadvise, which may set an error object of its own.
    return ReportError(hr, loaded.ResultText);
  }
  *ppTarget = target.Detach();
  return S_OK;
}

HRESULT CKXVEAPI::StartRVS(unsigned char chDriveLetter, ULONG uOptions) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CStartFileSystemDriverRequest request;
  request.DriveLetter = chDriveLetter;
  request.Options = uOptions;
  CStartFileSystemDriverResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::StopRVS() {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CStopFileSystemDriverRequest request;
  CStopFileSystemDriverResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::GetRVSDrive(ULONG* puOptions, unsigned char* pchDriveLetter) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (!AllPresent(puOptions, pchDriveLetter)) return ReportError(E_POINTER);
  CGetFileSystemDriveRequest request;
  CGetFileSystemDriveResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  *puOptions = response.Options;
  *pchDriveLetter = response.DriveLetter;
  return S_OK;
}

HRESULT CKXVEAPI::GetCoreDumpTargetByHost(BSTR bstrPseudoHost, ITarget** ppTarget) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (ppTarget == nullptr) return ReportError(E_POINTER);
  if (HRESULT hr = CheckName(bstrPseudoHost); FAILED(hr)) return ReportError(hr);
  CGetCoreDumpTargetByHostRequest request;
  if (HRESULT hr = Assign(request.PseudoHost, InString(bstrPseudoHost)); FAILED(hr)) {
    return ReportError(hr);
  }
  CGetCoreDumpTargetByHostResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutTarget(client, response.Handle, ppTarget));
}

HRESULT CKXVEAPI::get_DefaultTarget(ITarget** ppTarget) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (ppTarget == nullptr) return ReportError(E_POINTER);
  CGetDefaultTargetRequest request;
  CGetDefaultTargetResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutTarget(client, response.Handle, ppTarget));
}

HRESULT CKXVEAPI::GetTargetsByHost(BSTR bstrHostName, VARIANT* pTargets) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pTargets == nullptr) return ReportError(E_POINTER);
  if (HRESULT hr = CheckName(bstrHostName); FAILED(hr)) return ReportError(hr);
  CGetTargetsByHostRequest request;
  if (HRESULT hr = Assign(request.HostName, InString(bstrHostName)); FAILED(hr)) {
    return ReportError(hr);
  }
  CGetTargetsByHostResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutTargetArray(client, response.Targets, pTargets));
}

HRESULT CKXVEAPI::StartMultiFilePacketLogging(BSTR bstrFile1, BSTR bstrFile2, ULONGLONG uSize) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (HRESULT hr = CheckName(bstrFile1); FAILED(hr)) return ReportError(hr);
  if (HRESULT hr = CheckName(bstrFile2); FAILED(hr)) return ReportError(hr);
  CStartMultiFilePacketLoggingRequest request;
  if (HRESULT hr = Assign(request.FileName1, InString(bstrFile1)); FAILED(hr)) {
    return ReportError(hr);
  }
  if (HRESULT hr = Assign(request.FileName2, InString(bstrFile2)); FAILED(hr)) {
    return ReportError(hr);
  }
  request.Size = uSize;
  CStartMultiFilePacketLoggingResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

// Before CheckCompatibility too, like ServerVersion.
HRESULT CKXVEAPI::FileSystemDriverVersion(ULONG* puMajor, ULONG* puMinor, ULONG* puPatch,
                                          ULONG* puBuild, ULONG* puDriver, BSTR* pbstrName) {
  SharedClient client;
  if (HRESULT hr = Begin(client, false); FAILED(hr)) return hr;
  if (!AllPresent(puMajor, puMinor, puPatch, puBuild, puDriver, pbstrName)) {
    return ReportError(E_POINTER);
  }
  CGetFileSystemDriverVersionRequest request;
  CGetFileSystemDriverVersionResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  if (HRESULT hr = OutString(response.Name, pbstrName); FAILED(hr)) return ReportError(hr);
  *puMajor = response.Major;
  *puMinor = response.Minor;
  *puPatch = response.Patch;
  *puBuild = response.Build;
  *puDriver = response.Driver;
  return S_OK;
}

HRESULT CKXVEAPI::GetTargetsByName(BSTR bstrName, VARIANT* pTargets) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pTargets == nullptr) return ReportError(E_POINTER);
  if (HRESULT hr = CheckName(bstrName); FAILED(hr)) return ReportError(hr);
  CGetTargetsByNameRequest request;
  if (HRESULT hr = Assign(request.Name, InString(bstrName)); FAILED(hr)) return ReportError(hr);
  CGetTargetsByNameResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutTargetArray(client, response.Targets, pTargets));
}

HRESULT CKXVEAPI::FindTargets(VARIANT arrRules) {
  return SendFindRules<CFindTargetsRequest, CFindTargetsResponse>(arrRules);
}

HRESULT CKXVEAPI::AllocTargetFindRule(ITargetFindRule** ppRule) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (ppRule == nullptr) return ReportError(E_POINTER);
  return ReportError(
      CreateObject<CKXVETargetFindRule>(IID_ITargetFindRule, reinterpret_cast<void**>(ppRule)));
}

HRESULT CKXVEAPI::CancelFindTargets() {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CCancelFindTargetsRequest request;
  CCancelFindTargetsResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::SetLoggingLevel(eLoggingLevel level) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  // A script may pass any 32-bit number: read it as one, not as the enumeration.
  uint32_t value = 0;
  static_assert(sizeof value == sizeof level);
  std::memcpy(&value, &level, sizeof value);
  if (value > LOGGING_LEVEL_REQUESTS) {
    return ReportError(E_INVALIDARG, u"The logging level is not one of eLoggingLevel.");
  }
  CSetLoggingLevelRequest request;
  request.Level = value;
  CSetLoggingLevelResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::GetLoggingLevel(eLoggingLevel* pLevel) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pLevel == nullptr) return ReportError(E_POINTER);
  CGetLoggingLevelRequest request;
  CGetLoggingLevelResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  *pLevel = static_cast<eLoggingLevel>(response.Level);
  return S_OK;
}

HRESULT CKXVEAPI::AllocControllerData(IDispatch**) {
  return NotAvailable(u"IVEKXAPI3::AllocControllerData");
}

HRESULT CKXVEAPI::AllocControllerState(IDispatch**) {
  return NotAvailable(u"IVEKXAPI3::AllocControllerState");
}

HRESULT CKXVEAPI::AllocTouchData(IDispatch**) {
  return NotAvailable(u"IVEKXAPI3::AllocTouchData");
}

HRESULT CKXVEAPI::AllocTouchPoint(IDispatch**) {
  return NotAvailable(u"IVEKXAPI3::AllocTouchPoint");
}

HRESULT CKXVEAPI::EnableHostExec(VARIANT_BOOL bEnable) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CEnableHostExecRequest request;
  request.Enable = bEnable != VARIANT_FALSE;
  CEnableHostExecResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::HostExecEnabled(VARIANT_BOOL* pbEnabled) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pbEnabled == nullptr) return ReportError(E_POINTER);
  CHostExecEnabledRequest request;
  CHostExecEnabledResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  *pbEnabled = response.Enabled ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT CKXVEAPI::EnableDistributedCopy(VARIANT_BOOL) {
  return NotAvailable(u"IVEKXAPI5::EnableDistributedCopy");
}

HRESULT CKXVEAPI::DistributedCopyEnabled(VARIANT_BOOL*) {
  return NotAvailable(u"IVEKXAPI5::DistributedCopyEnabled");
}

HRESULT CKXVEAPI::InstallPackage(VARIANT, BSTR, ULONG*) {
  return NotAvailable(u"IVEKXAPI5::InstallPackage");
}

HRESULT CKXVEAPI::UpdateKernel(VARIANT, BSTR, ULONG*) {
  return NotAvailable(u"IVEKXAPI5::UpdateKernel");
}

HRESULT CKXVEAPI::FileCopy(VARIANT, BSTR, BSTR, ULONG*) {
  return NotAvailable(u"IVEKXAPI5::FileCopy");
}

HRESULT CKXVEAPI::SyncDirectory(VARIANT, BSTR, BSTR, ULONG*) {
  return NotAvailable(u"IVEKXAPI5::SyncDirectory");
}

HRESULT CKXVEAPI::DirectoryCopy(VARIANT, BSTR, BSTR, ULONG*) {
  return NotAvailable(u"IVEKXAPI5::DirectoryCopy");
}

HRESULT CKXVEAPI::CopyInProgress(VARIANT_BOOL*) {
  return NotAvailable(u"IVEKXAPI5::CopyInProgress");
}

HRESULT CKXVEAPI::CancelCopy(ULONG) {
  return NotAvailable(u"IVEKXAPI5::CancelCopy");
}

HRESULT CKXVEAPI::SetNetworkManagerLogging(VARIANT_BOOL bEnable) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CSetNetworkManagerLoggingRequest request;
  request.Enable = bEnable != VARIANT_FALSE;
  CSetNetworkManagerLoggingResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::GetNetworkManagerLogging(VARIANT_BOOL* pbEnabled) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pbEnabled == nullptr) return ReportError(E_POINTER);
  CGetNetworkManagerLoggingRequest request;
  CGetNetworkManagerLoggingResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  *pbEnabled = response.Enabled ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT CKXVEAPI::StartNetworkManagerPacketLogging(BSTR bstrFilename) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (HRESULT hr = CheckName(bstrFilename); FAILED(hr)) return ReportError(hr);
  CStartNetMngrPacketLoggingRequest request;
  if (HRESULT hr = Assign(request.FileName, InString(bstrFilename)); FAILED(hr)) {
    return ReportError(hr);
  }
  CStartNetMngrPacketLoggingResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::StopNetworkManagerPacketLogging() {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CStopNetMngrPacketLoggingRequest request;
  CStopNetMngrPacketLoggingResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::NetworkManagerInfo(VARIANT* pInfo) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pInfo == nullptr) return ReportError(E_POINTER);
  CGetNetworkManagerInfoRequest request;
  CGetNetworkManagerInfoResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutNameValueArray(response.Info, pInfo));
}

HRESULT CKXVEAPI::FindMiradorTargets(VARIANT arrRules) {
  return SendFindRules<CFindMiradorTargetsRequest, CFindMiradorTargetsResponse>(arrRules);
}

HRESULT CKXVEAPI::CancelFindMiradorTargets() {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  CCancelFindMiradorTargetsRequest request;
  CCancelFindMiradorTargetsResponse response;
  return CallServer(*client, kNoTarget, request, response);
}

HRESULT CKXVEAPI::FileCopyEx(VARIANT, BSTR, BSTR, VARIANT_BOOL, ULONG*) {
  return NotAvailable(u"IVEKXAPI7::FileCopyEx");
}

HRESULT CKXVEAPI::SyncDirectoryEx(VARIANT, BSTR, BSTR, VARIANT_BOOL, ULONG*) {
  return NotAvailable(u"IVEKXAPI7::SyncDirectoryEx");
}

HRESULT CKXVEAPI::DirectoryCopyEx(VARIANT, BSTR, BSTR, VARIANT_BOOL, ULONG*) {
  return NotAvailable(u"IVEKXAPI7::DirectoryCopyEx");
}

HRESULT CKXVEAPI::GetClientPids(VARIANT* pPids) {
  SharedClient client;
  if (HRESULT hr = Begin(client); FAILED(hr)) return hr;
  if (pPids == nullptr) return ReportError(E_POINTER);
  CGetClientPidsRequest request;
  CGetClientPidsResponse response;
  if (HRESULT hr = CallServer(*client, kNoTarget, request, response); FAILED(hr)) return hr;
  return ReportError(OutU32Array(response.ProcessIds, pPids));
}

HRESULT CKXVEAPI::GetDistributedCopyTargetsById(ULONG, VARIANT*) {
  return NotAvailable(u"IVEKXAPI8::GetDistributedCopyTargetsById");
}

HRESULT CKXVEAPI::InstallPackageEx(VARIANT, BSTR, ULONG, ULONG, ULONG*) {
  return NotAvailable(u"IVEKXAPI9::InstallPackageEx");
}

HRESULT CKXVEAPI::ConvertFSDPathToTargetAndPath(BSTR, BSTR*, ITarget**) {
  return NotAvailable(u"IVEKXAPI10::ConvertFSDPathToTargetAndPath");
}

HRESULT CKXVEAPI::AllocSyncPoint(IDispatch**) {
  return NotAvailable(u"IVEKXAPI11::AllocSyncPoint");
}

HRESULT CKXVEAPI::AllocControllerConnectivity(IDispatch**) {
  return NotAvailable(u"IVEKXAPI12::AllocControllerConnectivity");
}

}  // namespace qv
