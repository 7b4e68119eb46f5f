#include "target_resolution.h"

#include <charconv>
#include <optional>

#include "failure.h"
#include "vekxapi/bstr.h"
#include "vekxapi/variant.h"

namespace vesta_ctrl {
namespace {

// The targets in a list the library returned (a safe array of VARIANTs holding dispatch
// pointers).
std::vector<vekx::ComPtr<ITarget>> TargetsIn(const vekx::Variant& list) {
  std::vector<vekx::Variant> elements;
  Check(vekx::ArrayElements(list.Get(), elements));
  std::vector<vekx::ComPtr<ITarget>> targets;
  for (const vekx::Variant& element : elements) {
    if (element.Type() != VT_DISPATCH || element.Get().pdispVal == nullptr) {
      Check(DISP_E_TYPEMISMATCH);
    }
    vekx::ComPtr<ITarget> target;
    Check(element.Get().pdispVal->QueryInterface(IID_ITarget,
                                                 reinterpret_cast<void**>(target.Put())));
    targets.push_back(std::move(target));
  }
  return targets;
}

std::optional<ULONG> ParseHandle(const std::string& spec) {
  ULONG handle = 0;
  const char* end = spec.data() + spec.size();
  const auto [stop, error] = std::from_chars(spec.data(), end, handle);
  if (error != std::errc() || stop != end || spec.empty()) return std::nullopt;
  return handle;
}

// The single target in `matches`; nullptr when there is none.
vekx::ComPtr<ITarget> OnlyOne(std::vector<vekx::ComPtr<ITarget>> matches, const std::string& spec,
                              const char* what) {
  if (matches.empty()) return nullptr;
  if (matches.size() > 1) {
    throw Failure(S_OK, std::to_string(matches.size()) + " targets have the " + what + " '" + spec +
                            "': name one by its handle (see 'vesta-ctrl targets')");
  }
  return std::move(matches.front());
}

}  // namespace

std::vector<vekx::ComPtr<ITarget>> ListTargets(IVEKXAPI12& api) {
  vekx::Variant list;
  Check(api.get_Targets(list.Put()));
  return TargetsIn(list);
}

vekx::ComPtr<ITarget> ResolveTarget(IVEKXAPI12& api, const std::string& spec) {
  if (spec.empty()) throw UsageError("TARGET must not be empty");
  if (const std::optional<ULONG> handle = ParseHandle(spec)) {
    for (auto& target : ListTargets(api)) {
      ULONG each = 0;
      Check(target->get_Handle(&each));
      if (each == *handle) return std::move(target);
    }
  }
  const vekx::Bstr text = vekx::Bstr::FromUtf8(spec);
  vekx::Variant by_host;
  Check(api.GetTargetsByHost(text.Get(), by_host.Put()));
  if (auto target = OnlyOne(TargetsIn(by_host), spec, "host name")) return target;
  vekx::Variant by_name;
  Check(api.GetTargetsByName(text.Get(), by_name.Put()));
  if (auto target = OnlyOne(TargetsIn(by_name), spec, "name")) return target;
  throw Failure(S_OK, "no target has the handle, host name or name '" + spec +
                          "' (see 'vesta-ctrl targets')");
}

}  // namespace vesta_ctrl
