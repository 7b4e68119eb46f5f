#pragma once
// CKXVEConsoleOutput: one piece of a target's console cache, as CachedConsoleOutput hands it
// out. It is a value copy of the record; its text keeps embedded nulls.

#include "api/automation_object.h"
#include "requests/wire_types.h"
#include "vekxapi/vekxapi.h"

namespace qv {

class CKXVEConsoleOutput final : public AutomationObject<CKXVEConsoleOutput, IConsoleOutput> {
 public:
  explicit CKXVEConsoleOutput(ConsoleCacheRecord record) noexcept;

  static bool IsFamily(REFIID iid) { return IsEqualIID(iid, IID_IConsoleOutput); }
  static const IID& DispatchIid() { return IID_IConsoleOutput; }

  HRESULT STDMETHODCALLTYPE get_Category(eConsoleOutputCategory* pCategory) override;
  HRESULT STDMETHODCALLTYPE get_Port(eConsoleOutputPort* pPort) override;
  HRESULT STDMETHODCALLTYPE get_Timestamp(ULONGLONG* pTimestamp) override;
  HRESULT STDMETHODCALLTYPE get_Text(BSTR* pText) override;
  HRESULT STDMETHODCALLTYPE get_ProcessId(ULONG* pProcessId) override;
  HRESULT STDMETHODCALLTYPE get_ThreadId(ULONG* pThreadId) override;

 private:
  const ConsoleCacheRecord record_;
};

}  // namespace qv
