#include "api_object.h"

#include <charconv>

#include "errors.h"
#include "values.h"
#include "vekxapi/library.h"
#include "vekxapi/result_codes.h"

namespace vekx_python {

namespace py = pybind11;

namespace {

// The interface generation this package is written against.
constexpr ULONG kInterfaceGeneration = 21;

std::vector<Target> TargetsIn(const vekx::Variant& list) {
  std::vector<Target> targets;
  for (auto& target : Library::Objects<ITarget>(list.Get(), IID_ITarget))
    targets.emplace_back(std::move(target));
  return targets;
}

std::optional<ULONG> HandleIn(const std::string& text) {
  ULONG handle = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, handle);
  if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
  return handle;
}

}  // namespace

Api::Api() {
  vekx::ComPtr<IVEKXAPI12> api;
  Unlocked([&] { return VekxCreateRoot(IID_IVEKXAPI12, reinterpret_cast<void**>(api.Put())); });
  Unlocked([&] { return api->CheckCompatibility(kInterfaceGeneration); });
  api_ = std::move(api);
}

Api::~Api() {
  if (!api_) return;
  // A failure no longer matters: the object is going.
  WithoutGil([this] { return api_->Dispose(); });
}

IVEKXAPI12& Api::Root() {
  if (!api_) Raise(Kind::kServer, KXAPI_NOT_CONNECTED, "the connection has been disposed of");
  return *api_.Get();
}

std::vector<Target> Api::Targets() {
  return TargetsIn(Get(Root(), &IVEKXAPI::get_Targets));
}

Target Api::Find(const py::object& spec) {
  IVEKXAPI12& root = Root();
  std::optional<ULONG> handle;
  std::string text;
  if (py::isinstance<py::int_>(spec)) {
    handle = spec.cast<ULONG>();
    text = std::to_string(*handle);
  } else if (py::isinstance<py::str>(spec)) {
    text = spec.cast<std::string>();
    handle = HandleIn(text);
  } else {
    Raise(Kind::kInvalidArgument, E_INVALIDARG, "a target is named by its handle, host or name");
  }
  if (text.empty()) Raise(Kind::kInvalidArgument, E_INVALIDARG, "the target must not be empty");
  if (handle) {
    for (Target& target : Targets()) {
      if (target.handle() == *handle) return std::move(target);
    }
  }
  const vekx::Bstr key = vekx::Bstr::FromUtf8(text);
  const struct {
    HRESULT (STDMETHODCALLTYPE IVEKXAPI::*lookup)(BSTR, VARIANT*);
    const char* what;
  } lookups[] = {{&IVEKXAPI::GetTargetsByHost, "host name"}, {&IVEKXAPI::GetTargetsByName, "name"}};
  for (const auto& lookup : lookups) {
    vekx::Variant list;
    Unlocked([&] { return (root.*lookup.lookup)(key.Get(), list.Put()); });
    std::vector<Target> matches = TargetsIn(list);
    if (matches.size() == 1) return std::move(matches.front());
    if (matches.size() > 1) {
      Raise(Kind::kNotFound, KXAPI_NO_TARGET,
            std::to_string(matches.size()) + " targets have the " + lookup.what + " '" + text +
                "': name one by its handle");
    }
  }
  Raise(Kind::kNotFound, KXAPI_NO_TARGET,
        "no target has the handle, host name or name '" + text + "'");
}

Target Api::Add(const std::string& host) {
  IVEKXAPI12& root = Root();
  const vekx::Bstr name = vekx::Bstr::FromUtf8(host);
  vekx::ComPtr<ITarget> target;
  Unlocked([&] { return root.AddTarget(name.Get(), target.Put()); });
  return Target(std::move(target));
}

std::unique_ptr<Subscription> Api::Subscribe(py::object callback,
                                             const std::optional<std::vector<std::string>>& groups,
                                             const Target* target) {
  IVEKXAPI12& root = Root();
  // No target: every target, listed by the subscription once it hears of new ones.
  std::vector<vekx::ComPtr<ITarget>> targets;
  if (target != nullptr) targets.push_back(target->Pointer());
  std::vector<std::string> wanted = groups.value_or(std::vector<std::string>());
  if (groups && groups->empty())
    Raise(Kind::kInvalidArgument, E_INVALIDARG, "name at least one group, or None for all");
  // With one target and no groups named, the server's group is left out: it is no target's.
  if (target != nullptr && !groups) {
    for (const std::string& name : GroupNames())
      if (name != "server") wanted.push_back(name);
  }
  return std::make_unique<Subscription>(root, targets, wanted, std::move(callback));
}

std::array<std::uint32_t, 4> Api::Version() {
  IVEKXAPI12& root = Root();
  ULONG v[4] = {};
  Unlocked([&] { return root.Version(&v[0], &v[1], &v[2], &v[3]); });
  return {v[0], v[1], v[2], v[3]};
}

std::array<std::uint32_t, 4> Api::ServerVersion() {
  IVEKXAPI12& root = Root();
  ULONG v[4] = {};
  Unlocked([&] { return root.ServerVersion(&v[0], &v[1], &v[2], &v[3]); });
  return {v[0], v[1], v[2], v[3]};
}

std::string Api::Describe(std::int64_t code) {
  IVEKXAPI12& root = Root();
  vekx::Bstr text;
  Unlocked([&] { return root.GetErrorDescription(static_cast<LONG>(code), text.Put()); });
  return text.Utf8();
}

void Api::Dispose() {
  if (!api_) return;
  vekx::ComPtr<IVEKXAPI12> api = std::move(api_);
  Unlocked([&] { return api->Dispose(); });
}

}  // namespace vekx_python
