#include "events/console_output.h"

#include <utility>

#include "api/error_reporting.h"
#include "api/result_values.h"

namespace qv {
namespace {

template <class Out, class Value>
HRESULT Put(Out* out, Value value) noexcept {
  if (out == nullptr) return ReportError(E_POINTER);
  *out = static_cast<Out>(value);
  return S_OK;
}

}  // namespace

CKXVEConsoleOutput::CKXVEConsoleOutput(ConsoleCacheRecord record) noexcept
    : record_(std::move(record)) {}

HRESULT CKXVEConsoleOutput::get_Category(eConsoleOutputCategory* pCategory) {
  return Put(pCategory, record_.Category);
}

HRESULT CKXVEConsoleOutput::get_Port(eConsoleOutputPort* pPort) {
  return Put(pPort, record_.Port);
}

HRESULT CKXVEConsoleOutput::get_Timestamp(ULONGLONG* pTimestamp) {
  return Put(pTimestamp, record_.Timestamp);
}

HRESULT CKXVEConsoleOutput::get_Text(BSTR* pText) {
  if (pText == nullptr) return ReportError(E_POINTER);
  return ReportError(OutString(record_.Text, pText));
}

HRESULT CKXVEConsoleOutput::get_ProcessId(ULONG* pProcessId) {
  return Put(pProcessId, record_.ProcessId);
}

HRESULT CKXVEConsoleOutput::get_ThreadId(ULONG* pThreadId) {
  return Put(pThreadId, record_.ThreadId);
}

}  // namespace qv
