// Lists the development kits the server knows: make the root object, check that the library
// speaks the interface generation this program was written for, and walk the target list.
// The library starts the server, vesta-kx, when it is not running.
#include <cstdio>
#include <vector>

#include "vekxapi/bstr.h"
#include "vekxapi/com_ptr.h"
#include "vekxapi/library.h"
#include "vekxapi/status.h"
#include "vekxapi/variant.h"
#include "vekxapi/vekxapi.h"

namespace {

// Prints the failure with the library's description; true when `result` is a failure.
bool Failed(HRESULT result, const char* what) {
  const vekx::Status status = vekx::Status::Of(result);
  if (status.ok()) return false;
  std::fprintf(stderr, "list_targets: %s: %s\n", what, status.message().c_str());
  return true;
}

}  // namespace

int main() {
  vekx::ComPtr<IVEKXAPI> api;
  if (Failed(VekxCreateRoot(IID_IVEKXAPI, reinterpret_cast<void**>(api.Put())), "create")) return 1;
  // Generation 21 is the one these headers describe.
  if (Failed(api->CheckCompatibility(21), "check compatibility")) return 1;

  vekx::Variant list;
  std::vector<vekx::Variant> targets;
  if (Failed(api->get_Targets(list.Put()), "list targets") ||
      Failed(vekx::ArrayElements(list.Get(), targets), "read the list")) {
    api->Dispose();
    return 1;
  }
  std::printf("%zu targets\n", targets.size());
  for (const vekx::Variant& element : targets) {
    vekx::ComPtr<ITarget> target;
    if (element.Type() != VT_DISPATCH ||
        Failed(element.Get().pdispVal->QueryInterface(IID_ITarget,
                                                      reinterpret_cast<void**>(target.Put())),
               "ask for ITarget")) {
      continue;
    }
    ULONG handle = 0;
    vekx::Bstr host;
    if (Failed(target->get_Handle(&handle), "handle") ||
        Failed(target->get_HostName(host.Put()), "host name")) {
      continue;
    }
    std::printf("%u  %s\n", static_cast<unsigned>(handle), host.Utf8().c_str());
  }
  api->Dispose();
  return 0;
}
