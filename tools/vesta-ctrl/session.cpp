#include "session.h"

#include "failure.h"
#include "vekxapi/library.h"
#include "vekxapi/status.h"

namespace vesta_ctrl {
namespace {

// The interface generation this tool is written against.
constexpr ULONG kInterfaceGeneration = 21;

}  // namespace

void Check(HRESULT result) {
  if (SUCCEEDED(result)) return;
  const vekx::Status status = vekx::Status::Of(result);
  throw Failure(result, status.message());
}

Session::~Session() {
  if (api_) api_->Dispose();
}

IVEKXAPI12& Session::Api() {
  if (!api_) {
    vekx::ComPtr<IVEKXAPI12> api;
    Check(VekxCreateRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(api.Put())));
    Check(api->CheckCompatibility(kInterfaceGeneration));
    api_ = std::move(api);
  }
  return *api_.Get();
}

}  // namespace vesta_ctrl
