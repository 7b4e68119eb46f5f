#include "target_object.h"

#include <cstring>
#include <filesystem>

#include "errors.h"
#include "values.h"
#include "vekxapi/state_names.h"

namespace vekx_python {

namespace py = pybind11;

namespace {

// LOAD_PROCESS's flag: stop every thread at the entry point.
constexpr ULONG kStopAtEntry = 0x1;

std::string PowerName(std::uint32_t status) {
  const char* name = vekx::PowerStatusName(status);
  return name != nullptr ? name : "unknown";
}

std::string ConnectionName(std::uint32_t state) {
  const char* name = vekx::ConnectionStateName(state);
  return name != nullptr ? name : std::to_string(state);
}

}  // namespace

Target::Target(vekx::ComPtr<ITarget> target) : target_(std::move(target)) {
  handle_ = vekx_python::Get(*target_.Get(), &ITarget::get_Handle);
}

std::string Target::name() const {
  return vekx_python::Get(*target_.Get(), &ITarget::get_Name);
}

std::string Target::host() const {
  return vekx_python::Get(*target_.Get(), &ITarget::get_HostName);
}

std::string Target::power() const {
  return PowerName(vekx_python::Get(*target_.Get(), &ITarget::get_PowerStatus));
}

std::string Target::connection() const {
  return ConnectionName(vekx_python::Get(*target_.Get(), &ITarget::get_ConnectionState));
}

std::uint32_t Target::console_index() const {
  return vekx_python::Get(*target_.Get(), &ITarget::get_ConsoleCacheIndex);
}

py::dict Target::info() const {
  const vekx::Variant list = vekx_python::Get(*target_.Get(), &ITarget::get_TargetInfo);
  py::dict facts;
  for (const auto& pair : Library::Objects<INameValuePair>(list.Get(), IID_INameValuePair)) {
    const std::string name = vekx_python::Get(*pair.Get(), &INameValuePair::get_Name);
    const vekx::Variant value = vekx_python::Get(*pair.Get(), &INameValuePair::get_Value);
    facts[py::str(name)] = ValueOf(value.Get());
  }
  return facts;
}

void Target::Act(HRESULT (STDMETHODCALLTYPE ITarget::*action)()) const {
  Unlocked([&] { return ((*target_.Get()).*action)(); });
}

std::unique_ptr<ConsoleStream> Target::Console(bool follow, std::uint32_t since,
                                               std::optional<double> timeout) const {
  if (timeout && !(*timeout >= 0))
    Raise(Kind::kInvalidArgument, E_INVALIDARG, "the timeout must not be negative");
  return std::make_unique<ConsoleStream>(target_, since, follow, timeout);
}

void Target::SendConsole(const std::string& text, std::uint32_t port) const {
  const vekx::Bstr input = vekx::Bstr::FromUtf8(text);
  eConsoleOutputPort on{};
  std::memcpy(&on, &port, sizeof on);
  // Input for every process on the port, as a person typing at the console means it.
  const auto every = static_cast<ULONG>(BROADCAST_PID);
  Unlocked([&] { return target_->SendConsoleInput(on, PROCESS_OUTPUT, every, input.Get()); });
}

Process Target::Load(const std::string& path, const std::vector<std::string>& args,
                     bool stop_at_entry, const std::string& cwd) const {
  if (path.empty()) Raise(Kind::kInvalidArgument, E_INVALIDARG, "the path must not be empty");
  vekx::ComPtr<ITarget12> loader;
  Check(target_.QueryInto(IID_ITarget12, loader));
  std::error_code error;
  const bool on_host = std::filesystem::is_regular_file(path, error);
  const std::string program = on_host ? std::filesystem::absolute(path, error).string() : path;
  const vekx::Variant argv = Library::TextArray(args);
  const vekx::Bstr bpath = vekx::Bstr::FromUtf8(program);
  const vekx::Bstr bcwd = vekx::Bstr::FromUtf8(cwd);
  vekx::ComPtr<IProcess> process;
  Unlocked([&] {
    return loader->LoadProcessArgv(on_host ? DEVICE_HOST : DEVICE_APP, bpath.Get(),
                                   stop_at_entry ? kStopAtEntry : 0, 0, argv.Get(), bcwd.Get(),
                                   process.Put());
  });
  const ULONG pid = vekx_python::Get(*process.Get(), &IProcess::get_Id);
  return Process(target_, process, pid);
}

std::vector<Process> Target::Processes() const {
  const vekx::Variant list = vekx_python::Get(*target_.Get(), &ITarget::get_ProcessInfoSnapshot);
  std::vector<Process> processes;
  for (const auto& info : Library::Objects<IProcessInfo>(list.Get(), IID_IProcessInfo)) {
    const ULONG pid = vekx_python::Get(*info.Get(), &IProcessInfo::get_Id);
    processes.emplace_back(target_,
                           vekx_python::Get(*info.Get(), &IProcessInfo::get_ProcessInterface), pid);
  }
  return processes;
}

}  // namespace vekx_python
