#include "services/generic_protocol.h"

#include <utility>

#include "api/byte_array_landing.h"
#include "api/error_reporting.h"
#include "api/result_values.h"
#include "debug/variant_arguments.h"
#include "events/notify_clients.h"
#include "requests/catalogue.h"

namespace qv {

CKXVEGenericProtocol::CKXVEGenericProtocol(SharedClient client, uint32_t target,
                                           uint32_t protocol) noexcept
    : client_(std::move(client)), target_(target), protocol_(protocol) {}

bool CKXVEGenericProtocol::IsFamily(REFIID iid) {
  return IsEqualIID(iid, IID_IGenericProtocol);
}

HRESULT CKXVEGenericProtocol::Close() {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CGenericProtocolCloseRequest request;
  request.Protocol = protocol_;
  CGenericProtocolCloseResponse response;
  return CallServer(*client_, target_, request, response);
}

HRESULT CKXVEGenericProtocol::Write(VARIANT arrData, LONG uOffset, ULONG* puWritten) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CGenericProtocolWriteRequest request;
  request.Protocol = protocol_;
  if (HRESULT hr = ByteRangeArgument(arrData, uOffset, kMaxProtocolWrite, request.Data); FAILED(hr))
    return ReportError(hr);
  CGenericProtocolWriteResponse response;
  if (HRESULT hr = CallServer(*client_, target_, request, response); FAILED(hr)) return hr;
  if (puWritten == nullptr) return ReportError(E_POINTER);
  *puWritten = response.Written;
  return S_OK;
}

HRESULT CKXVEGenericProtocol::Read(ULONG uBytes, VARIANT* parrData) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  if (parrData == nullptr) return ReportError(E_POINTER);
  CGenericProtocolReadRequest request;
  request.Protocol = protocol_;
  request.Size = uBytes;
  CGenericProtocolReadResponse response;
  const auto landing = ByteArrayLanding::Make(uBytes);
  if (HRESULT hr = CallServer(*client_, target_, request, response, landing); FAILED(hr)) return hr;
  return ReportError(ByteArrayLanding::Out(landing, response.Data, parrData));
}

HRESULT CKXVEGenericProtocol::get_Status(VARIANT_BOOL* pStatus) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  CGenericProtocolStatusRequest request;
  request.Protocol = protocol_;
  CGenericProtocolStatusResponse response;
  if (HRESULT hr = CallServer(*client_, target_, request, response); FAILED(hr)) return hr;
  if (pStatus == nullptr) return ReportError(E_POINTER);
  *pStatus = response.Status > 0 ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT OpenGenericProtocol(const SharedClient& client, uint32_t target, uint32_t protocol,
                            IEventGenericProtocol* sink, IGenericProtocol** channel) noexcept {
  if (!IsUsable(client)) return ReportError(E_UNEXPECTED);
  if (sink == nullptr || channel == nullptr) return ReportError(E_POINTER);
  *channel = nullptr;
  vekx::ComPtr<IEventGenericProtocol> typed;
  if (HRESULT hr =
          sink->QueryInterface(IID_IEventGenericProtocol, reinterpret_cast<void**>(typed.Put()));
      FAILED(hr)) {
    return ReportError(hr);
  }
  auto notify_client = CVEGenericProtocolEventNotifyClient::Make(client, typed.Get());
  if (notify_client == nullptr) return ReportError(E_OUTOFMEMORY);
  if (HRESULT hr = client->Advise(EventGroup::GenericProtocol, notify_client, target); FAILED(hr))
    return ReportError(hr);

  CGenericProtocolOpenRequest request;
  request.Protocol = protocol;
  CGenericProtocolOpenResponse response;
  if (HRESULT hr = CallServer(*client, target, request, response); FAILED(hr)) {
    // No cancel goes out: the open's failure is what the caller hears about.
    client->Withdraw(EventGroup::GenericProtocol, *notify_client, target);
    return hr;
  }
  return ReportError(CreateObject<CKXVEGenericProtocol>(
      IID_IGenericProtocol, reinterpret_cast<void**>(channel), client, target, protocol));
}

}  // namespace qv
