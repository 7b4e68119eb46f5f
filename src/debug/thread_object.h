#pragma once
// CKXVEThread: one thread of a process on a target, fixed at creation to its private client,
// target handle, process id and thread id. Like the process object it only sends requests.

#include <cstdint>

#include "api/automation_object.h"
#include "api/server_call.h"
#include "vekxapi/vekxapi.h"

namespace qv {

class CKXVEThread final : public AutomationObject<CKXVEThread, IThread2> {
 public:
  CKXVEThread(SharedClient client, uint32_t target, uint32_t pid, uint32_t tid) noexcept;

  static bool IsFamily(REFIID iid);
  static const IID& DispatchIid() { return IID_IThread2; }

  // IThread
  HRESULT STDMETHODCALLTYPE get_Id(ULONG* pId) override;
  HRESULT STDMETHODCALLTYPE Suspend(eThreadState* pnThreadStatus) override;
  HRESULT STDMETHODCALLTYPE Resume() override;
  // The ids must be a one-dimensional VT_ARRAY | VT_I4, checked before anything else.
  HRESULT STDMETHODCALLTYPE GetRegisters(VARIANT RegistersToGet, VARIANT* pRegisterArray) override;
  // Ids as above; values a one-dimensional VT_ARRAY | VT_UI8 of exactly four per id.
  HRESULT STDMETHODCALLTYPE SetRegisters(VARIANT RegistersToSet, VARIANT RegisterArray) override;
  // IThread2
  HRESULT STDMETHODCALLTYPE DecodeASanError(IASanErrorDescription** ppDescription) override;

 private:
  template <class Request, class Response>
  HRESULT Send(Request& request, Response& response) const noexcept;

  const SharedClient client_;
  const uint32_t target_;
  const uint32_t pid_;
  const uint32_t tid_;
};

HRESULT CreateThreadObject(const SharedClient& client, uint32_t target, uint32_t pid, uint32_t tid,
                           REFIID iid, void** out) noexcept;

}  // namespace qv
