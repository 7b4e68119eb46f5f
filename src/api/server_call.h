#pragma once
// The steps every public method shares around one request: the check that the private client is
// still there, the call, and the report of a failure with the server's own text.

#include <cstdint>
#include <memory>

#include "api/error_reporting.h"
#include "requests/private_api.h"
#include "serverlink/frame.h"  // kNoTarget: the server itself rather than one target

namespace qv {

// The private client a public object shares with the root object that made it.
using SharedClient = std::shared_ptr<CKXPrivateAPI>;

// True when `client` may be used: present, and its root object not disposed.
inline bool IsUsable(const SharedClient& client) noexcept {
  return client != nullptr && !client->IsDisposed();
}

// Sends `request` for `handle` and waits for `response`. A failed send or a failing Result is
// reported with the response's text as context and returned; S_OK otherwise.
inline HRESULT CallServer(CKXPrivateAPI& client, uint32_t handle, const CRequest& request,
                          CResponse& response,
                          std::shared_ptr<BulkLanding> landing = nullptr) noexcept {
  const HRESULT hr = client.Call(handle, request, response, std::move(landing));
  if (FAILED(hr)) return ReportError(hr, response.ResultText);
  return hr;
}

}  // namespace qv
