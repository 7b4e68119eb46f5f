// The target object's calls about processes: loading one, listing them, and the process-level
// reads that the target also offers. They make process and process information objects from
// the answers.

#include <algorithm>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "api/error_reporting.h"
#include "api/result_values.h"
#include "api/target_object.h"
#include "debug/process_object.h"
#include "debug/value_objects.h"
#include "platform/wide_string.h"
#include "requests/catalogue.h"

namespace qv {
namespace {

// The device a process image is loaded from, as LOAD_PROCESS names it: the member's name without
// its prefix, in lower case.
bool DeviceName(eDevice device, WString& name) {
  switch (device) {
    case DEVICE_HOST:
      name = u"host";
      return true;
    case DEVICE_APP:
      name = u"app";
      return true;
    case DEVICE_DATA:
      name = u"data";
      return true;
  }
  return false;
}

// A command line split into arguments: spaces and tabs separate them, double quotes group, and a
// backslash before a double quote makes it part of the argument.
WStringList SplitArguments(std::u16string_view line) {
  WStringList arguments;
  std::u16string current;
  bool in_argument = false;
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char16_t c = line[i];
    if (c == u'\\' && i + 1 < line.size() && line[i + 1] == u'"') {
      current += u'"';
      in_argument = true;
      ++i;
    } else if (c == u'"') {
      quoted = !quoted;
      in_argument = true;
    } else if ((c == u' ' || c == u'\t') && !quoted) {
      if (in_argument) arguments.push_back(std::move(current));
      current.clear();
      in_argument = false;
    } else {
      current += c;
      in_argument = true;
    }
  }
  if (in_argument) arguments.push_back(std::move(current));
  return arguments;
}

// The arguments of LoadProcessArgv: VT_EMPTY or VT_NULL for none, otherwise a one-dimensional
// VT_ARRAY of VT_BSTR, or of VARIANTs that each hold a VT_BSTR.
HRESULT ArgumentList(const VARIANT& value, WStringList& arguments) {
  if (value.vt == VT_EMPTY || value.vt == VT_NULL) return S_OK;
  const bool strings = value.vt == (VT_ARRAY | VT_BSTR);
  if ((!strings && value.vt != (VT_ARRAY | VT_VARIANT)) || value.parray == nullptr ||
      SafeArrayGetDim(value.parray) != 1) {
    return E_INVALIDARG;
  }
  LONG lower = 0;
  LONG upper = -1;
  if (FAILED(SafeArrayGetLBound(value.parray, 1, &lower)) ||
      FAILED(SafeArrayGetUBound(value.parray, 1, &upper))) {
    return E_INVALIDARG;
  }
  arguments.reserve(upper >= lower ? static_cast<size_t>(upper - lower) + 1 : 0);
  void* data = nullptr;
  if (HRESULT hr = SafeArrayAccessData(value.parray, &data); FAILED(hr)) return hr;
  HRESULT hr = S_OK;
  for (LONG i = 0; lower + i <= upper && SUCCEEDED(hr); ++i) {
    BSTR text = nullptr;
    if (strings) {
      text = static_cast<BSTR*>(data)[i];
    } else {
      const VARIANT& element = static_cast<VARIANT*>(data)[i];
      if (element.vt != VT_BSTR) hr = E_INVALIDARG;
      text = element.bstrVal;
    }
    if (SUCCEEDED(hr)) arguments.emplace_back(InString(text));
  }
  SafeArrayUnaccessData(value.parray);
  return hr;
}

HRESULT Load(const SharedClient& client, uint32_t target, eDevice device, BSTR path, ULONG flags,
             ULONG stack_size, WStringList arguments, BSTR working_dir,
             IProcess** process) noexcept {
  try {
    CLoadProcessRequest request;
    if (!DeviceName(device, request.Device)) return ReportError(E_INVALIDARG);
    request.Path.assign(InString(path));
    request.Flags = flags;
    request.StackSize = stack_size;
    request.Args = std::move(arguments);
    request.WorkingDir.assign(InString(working_dir));
    CLoadProcessResponse response;
    if (HRESULT hr = CallServer(*client, target, request, response); FAILED(hr)) return hr;
    return ReportError(CreateProcessObject(client, target, response.Pid, IID_IProcess,
                                           reinterpret_cast<void**>(process)));
  } catch (const std::bad_alloc&) {
    return ReportError(E_OUTOFMEMORY);
  }
}

}  // namespace

HRESULT CKXVETarget::LoadProcess(eDevice efs, BSTR bstrPath, ULONG uFlags, ULONG uStackSize,
                                 BSTR bstrArgs, BSTR bstrWorkingDir, IProcess** ppProcess) {
  if (ppProcess == nullptr) return ReportError(E_POINTER);
  *ppProcess = nullptr;
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  WStringList arguments;
  try {
    arguments = SplitArguments(InString(bstrArgs));
  } catch (const std::bad_alloc&) {
    return ReportError(E_OUTOFMEMORY);
  }
  return Load(client_, handle_, efs, bstrPath, uFlags, uStackSize, std::move(arguments),
              bstrWorkingDir, ppProcess);
}

HRESULT CKXVETarget::LoadProcessArgv(eDevice efs, BSTR bstrPath, ULONG uFlags, ULONG uStackSize,
                                     VARIANT varArgs, BSTR bstrWorkingDir, IProcess** ppProcess) {
  if (ppProcess == nullptr) return ReportError(E_POINTER);
  *ppProcess = nullptr;
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  WStringList arguments;
  try {
    if (HRESULT hr = ArgumentList(varArgs, arguments); FAILED(hr)) return ReportError(hr);
  } catch (const std::bad_alloc&) {
    return ReportError(E_OUTOFMEMORY);
  }
  return Load(client_, handle_, efs, bstrPath, uFlags, uStackSize, std::move(arguments),
              bstrWorkingDir, ppProcess);
}

HRESULT CKXVETarget::get_ProcessInfoSnapshot(VARIANT* pProcesses) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  if (pProcesses == nullptr) return ReportError(E_POINTER);
  CGetProcessInfoSnapshotRequest request;
  CGetProcessInfoSnapshotResponse response;
  if (HRESULT hr = CallServer(*client_, handle_, request, response); FAILED(hr)) return hr;
  return ReportError(
      OutProcessInfoArray(response.ProcessInfoList, {client_, handle_, 0}, pProcesses));
}

// One element per thread: a VT_ARRAY | VT_VARIANT of its id (VT_UI4) and its name (VT_BSTR).
HRESULT CKXVETarget::GetThreadNames(ULONG uProcessId, VARIANT* pNames) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  if (pNames == nullptr) return ReportError(E_POINTER);
  CThreadNamesRequest request;
  request.ProcessID = uProcessId;
  CThreadNamesResponse response;
  if (HRESULT hr = CallServer(*client_, handle_, request, response); FAILED(hr)) return hr;
  const size_t count = std::min(response.PidTidList.size(), response.Names.size());
  return ReportError(OutVariantArray(count, pNames, [&](VARIANT* elements) noexcept {
    for (size_t i = 0; i < count; ++i) {
      const uint32_t tid = response.PidTidList[i].ThreadId;
      const std::u16string name = platform::Utf8ToUtf16(response.Names[i]);
      HRESULT hr = OutVariantArray(2, &elements[i], [&](VARIANT* pair) noexcept {
        pair[0].vt = VT_UI4;
        pair[0].ulVal = tid;
        pair[1].vt = VT_BSTR;
        return OutString(name, &pair[1].bstrVal);
      });
      if (FAILED(hr)) return hr;
    }
    return S_OK;
  }));
}

// The target's ranges of mapped memory, as one VT_ARRAY | VT_UI8 of base and size pairs.
HRESULT CKXVETarget::MemoryRanges(ULONG, VARIANT* pRanges) {
  if (!IsUsable(client_)) return ReportError(E_UNEXPECTED);
  if (pRanges == nullptr) return ReportError(E_POINTER);
  CGetMemoryRangesRequest request;
  CGetMemoryRangesResponse response;
  if (HRESULT hr = CallServer(*client_, handle_, request, response); FAILED(hr)) return hr;
  U64List pairs;
  try {
    for (const MemoryRangeRecord& range : response.MemoryRanges) {
      pairs.push_back(range.BaseAddress);
      pairs.push_back(range.Size);
    }
  } catch (const std::bad_alloc&) {
    return ReportError(E_OUTOFMEMORY);
  }
  return ReportError(OutU64Array(pairs, pRanges));
}

HRESULT CKXVETarget::GetCompressedMemory(ULONG uProcessId, ULONGLONG nAddress, ULONG nByteCount,
                                         ULONG nCompression, VARIANT_BOOL bDecompress,
                                         VARIANT* pBuffer) {
  return GetCompressedMemoryOf(client_, handle_, uProcessId, nAddress, nByteCount, nCompression,
                               bDecompress, pBuffer);
}

}  // namespace qv
