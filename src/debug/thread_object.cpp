#include "debug/thread_object.h"

#include <cstring>
#include <utility>

#include "api/error_reporting.h"
#include "api/result_values.h"
#include "debug/value_objects.h"
#include "debug/variant_arguments.h"
#include "requests/catalogue.h"

namespace qv {
namespace {

// Every register value is four 64-bit words.
constexpr size_t kWordsPerRegister = 4;

}  // namespace

CKXVEThread::CKXVEThread(SharedClient client, uint32_t target, uint32_t pid, uint32_t tid) noexcept
    : client_(std::move(client)), target_(target), pid_(pid), tid_(tid) {}

bool CKXVEThread::IsFamily(REFIID iid) {
  static const IID* const kFamily[] = {&IID_IThread, &IID_IThread2};
  return IsOneOf(iid, kFamily);
}

HRESULT CreateThreadObject(const SharedClient& client, uint32_t target, uint32_t pid, uint32_t tid,
                           REFIID iid, void** out) noexcept {
  return CreateObject<CKXVEThread>(iid, out, client, target, pid, tid);
}

template <class Request, class Response>
HRESULT CKXVEThread::Send(Request& request, Response& response) const noexcept {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  request.ProcessID = pid_;
  request.ThreadID = tid_;
  return CallServer(*client_, target_, request, response);
}

HRESULT CKXVEThread::get_Id(ULONG* pId) {
  if (pId == nullptr) return ReportError(E_POINTER);
  *pId = tid_;
  return S_OK;
}

HRESULT CKXVEThread::Suspend(eThreadState* pnThreadStatus) {
  if (pnThreadStatus == nullptr) return ReportError(E_POINTER);
  CSuspendThreadRequest request;
  CSuspendThreadResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  // A state the enumeration does not name is stored as its 32 bits.
  std::memcpy(pnThreadStatus, &response.ThreadStatus, sizeof response.ThreadStatus);
  return S_OK;
}

HRESULT CKXVEThread::Resume() {
  CResumeThreadRequest request;
  CResumeThreadResponse response;
  return Send(request, response);
}

HRESULT CKXVEThread::GetRegisters(VARIANT RegistersToGet, VARIANT* pRegisterArray) {
  CGetRegistersRequest request;
  if (HRESULT hr = RegisterIdsArgument(RegistersToGet, request.RegisterIndices); FAILED(hr))
    return ReportError(hr);
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  if (pRegisterArray == nullptr) return ReportError(E_POINTER);
  CGetRegistersResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(OutU64Array(response.RegisterValues, pRegisterArray));
}

HRESULT CKXVEThread::SetRegisters(VARIANT RegistersToSet, VARIANT RegisterArray) {
  CSetRegistersRequest request;
  if (HRESULT hr = RegisterIdsArgument(RegistersToSet, request.RegisterIndices); FAILED(hr))
    return ReportError(hr);
  if (HRESULT hr = RegisterValuesArgument(RegisterArray, request.RegisterValues); FAILED(hr))
    return ReportError(hr);
  if (request.RegisterValues.size() != request.RegisterIndices.size() * kWordsPerRegister)
    return ReportError(E_INVALIDARG);
  CSetRegistersResponse response;
  return Send(request, response);
}

HRESULT CKXVEThread::DecodeASanError(IASanErrorDescription** ppDescription) {
  if (ppDescription == nullptr) return ReportError(E_POINTER);
  CGetCoredumpUserDataRequest request;
  CGetCoredumpUserDataResponse response;
  if (HRESULT hr = Send(request, response); FAILED(hr)) return hr;
  return ReportError(CreateASanErrorObject(response, ppDescription));
}

}  // namespace qv
