// core-load FILE PSEUDOHOST: a core file on the server's host opened as a read-only target named
// PSEUDOHOST, which every reading command then takes as its TARGET (ps, threads, modules, vm,
// mem read, regs). The target stays with the server after the tool ends; `delete` removes it.
#include <filesystem>
#include <memory>
#include <string>

#include "debug_commands.h"
#include "debug_values.h"
#include "output.h"
#include "vekxapi/event_sink.h"

namespace vesta_ctrl {
namespace {

struct CoreLoadOptions {
  std::string file;
  std::string host;
};

void CoreLoad(Context& context, const CoreLoadOptions& options) {
  if (options.file.empty() || options.host.empty())
    throw UsageError("FILE and PSEUDOHOST must not be empty");
  // The server opens the file; its working directory is not the tool's.
  std::error_code error;
  const std::string file = std::filesystem::absolute(options.file, error).string();
  const auto sink = vekx::MakeSink<vekx::EventSink<IEventTarget>>();
  vekx::ComPtr<ITarget> target;
  Check(context.session.Api().LoadCoreDump(vekx::Bstr::FromUtf8(file).Get(), sink.Get(),
                                           vekx::Bstr::FromUtf8(options.host).Get(), target.Put()));
  target->UnadviseTargetEvents(sink.Get());
  const vekx::Variant list = Read(*target.Get(), &ITarget::get_ProcessInfoSnapshot);
  const auto processes = ObjectsOf<IProcessInfo>(list.Get(), IID_IProcessInfo);
  if (processes.empty()) Check(E_UNEXPECTED);
  const std::uint32_t pid = Read(*processes[0].Get(), &IProcessInfo::get_Id);
  const std::string name = Read(*processes[0].Get(), &IProcessInfo::get_Name);
  const std::uint32_t handle = Read(*target.Get(), &ITarget::get_Handle);
  if (context.json) {
    PrintOrderedJson(
        context.out,
        {{"handle", handle}, {"host", options.host}, {"file", file}, {"pid", pid}, {"name", name}});
  } else {
    context.out << "Loaded " << file << " as target " << handle << " ('" << options.host
                << "'): process " << pid << " (" << name << ").\n";
  }
}

}  // namespace

void AddCoreLoadCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<CoreLoadOptions>();
  CLI::App* command = app.add_subcommand(
      "core-load", "Open a core file as a read-only target named PSEUDOHOST (ps, regs, mem read)");
  command->add_option("FILE", options->file, "An ELF core file on the server's host")->required();
  command->add_option("PSEUDOHOST", options->host, "The name the core's target gets")->required();
  command->callback([&context, options] { CoreLoad(context, *options); });
}

}  // namespace vesta_ctrl
