// The debug commands over a target's processes: listing processes, threads, modules, memory
// regions and synchronisation objects; loading a program; attaching, detaching, killing,
// suspending and resuming a process. Memory, registers and breakpoints are in their own files.
#include "debug_commands.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "answer_deadline.h"
#include "debug_values.h"
#include "enum_names.h"
#include "output.h"
#include "process_resolution.h"
#include "process_watch.h"
#include "sync_objects.h"
#include "target_resolution.h"

namespace vesta_ctrl {
namespace {

using Json = nlohmann::ordered_json;

// LOAD_PROCESS's flag: stop every thread at the entry point.
constexpr ULONG kStopAtEntry = 0x1;
// How long `resume --wait` waits by default.
constexpr double kDefaultWaitSeconds = 30;

// A name from the IDL, or the value in hexadecimal when the IDL has none for it.
std::string NameOrHex(std::span<const EnumMember> members, std::uint32_t value) {
  const auto name = NameOf(members, value);
  return name ? std::string(*name) : Hex(value);
}

std::string Joined(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (const std::string& part : parts)
    text += (text.empty() ? "" : separator) + part;
  return text;
}

std::string Cell(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>();
  if (value.is_array()) {
    std::vector<std::string> parts;
    for (const Json& element : value)
      parts.push_back(Cell(element));
    return parts.empty() ? "-" : Joined(parts, ",");
  }
  if (value.is_object() && value.contains("id")) return Cell(value["id"]);
  return value.dump();
}

// Prints `rows` as {"<key>": [row, ...]}, or as a table of `columns` (JSON field, header).
void PrintList(Context& context, const char* key, const Json& rows,
               const std::vector<std::pair<const char*, const char*>>& columns) {
  if (context.json) {
    PrintOrderedJson(context.out, {{key, rows}});
    return;
  }
  std::vector<std::string> headers;
  for (const auto& column : columns)
    headers.emplace_back(column.second);
  Table table(headers);
  for (const Json& row : rows) {
    std::vector<std::string> cells;
    for (const auto& column : columns)
      cells.push_back(column.first == std::string_view("stop_reason")
                          ? StopReasonText(row.value(column.first, Json()))
                          : Cell(row.value(column.first, Json())));
    table.AddRow(cells);
  }
  table.Print(context.out);
}

void Processes(Context& context, const std::string& spec) {
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), spec);
  const vekx::Variant list = Read(*target.Get(), &ITarget::get_ProcessInfoSnapshot);
  Json rows = Json::array();
  for (const auto& info : ObjectsOf<IProcessInfo4>(list.Get(), IID_IProcessInfo4)) {
    IProcessInfo4& p = *info.Get();
    const std::uint32_t attributes = Read(p, &IProcessInfo::get_Attributes);
    rows.push_back({{"pid", Read(p, &IProcessInfo::get_Id)},
                    {"name", Read(p, &IProcessInfo::get_Name)},
                    {"path", Read(p, &IProcessInfo::get_Path)},
                    {"parent", Read(p, &IProcessInfo::get_ParentProcessId)},
                    {"main_thread", Read(p, &IProcessInfo4::get_MainThreadId)},
                    {"attributes", attributes},
                    {"attribute_names", BitNames(ProcessAttributes(), attributes)},
                    {"entry", Hex(Read(p, &IProcessInfo::get_Entry))},
                    {"stop_reason", StopReasonJson(Read(p, &IProcessInfo::get_StopReason))}});
  }
  PrintList(context, "processes", rows,
            {{"pid", "PID"},
             {"name", "NAME"},
             {"parent", "PARENT"},
             {"main_thread", "MAIN THREAD"},
             {"attribute_names", "ATTRIBUTES"},
             {"stop_reason", "STOP REASON"},
             {"path", "PATH"}});
}

void Threads(Context& context, const ProcessArgs& args) {
  const ProcessRef ref = ResolveProcess(context, args.spec, Pid(args));
  const vekx::Variant list = Read(*ref.process.Get(), &IProcess::get_ThreadInfoSnapshot);
  Json rows = Json::array();
  for (const auto& info : ObjectsOf<IThreadInfo2>(list.Get(), IID_IThreadInfo2)) {
    IThreadInfo2& t = *info.Get();
    const std::uint32_t wait = Read(t, &IThreadInfo::get_WaitState);
    rows.push_back(
        {{"tid", Read(t, &IThreadInfo::get_Id)},
         {"name", Read(t, &IThreadInfo::get_Name)},
         {"state", NameOrHex(ThreadStates(), Read(t, &IThreadInfo::get_State))},
         {"wait_state", wait == 0 ? Json(nullptr) : Json(NameOrHex(ThreadWaitStates(), wait))},
         {"rip", Hex(Read(t, &IThreadInfo2::get_RIP))},
         {"stop_reason", StopReasonJson(Read(t, &IThreadInfo::get_StopReason))}});
  }
  PrintList(context, "threads", rows,
            {{"tid", "TID"},
             {"name", "NAME"},
             {"state", "STATE"},
             {"wait_state", "WAIT"},
             {"rip", "RIP"},
             {"stop_reason", "STOP REASON"}});
}

void Modules(Context& context, const ProcessArgs& args) {
  const ProcessRef ref = ResolveProcess(context, args.spec, Pid(args));
  const vekx::Variant list = Read(*ref.process.Get(), &IProcess::get_Modules);
  Json rows = Json::array();
  for (const auto& module : ObjectsOf<IModule>(list.Get(), IID_IModule)) {
    IModule& m = *module.Get();
    Json segments = Json::array();
    const vekx::Variant segment_list = Read(m, &IModule::get_Segments);
    for (const auto& segment : ObjectsOf<ISegmentInfo>(segment_list.Get(), IID_ISegmentInfo)) {
      segments.push_back({{"base", Hex(Read(*segment.Get(), &ISegmentInfo::get_BaseAddress))},
                          {"size", Hex(Read(*segment.Get(), &ISegmentInfo::get_Size))},
                          {"attributes", Read(*segment.Get(), &ISegmentInfo::get_Attributes)}});
    }
    rows.push_back({{"id", Hex(Read(m, &IModule::get_Id))},
                    {"name", Read(m, &IModule::get_Name)},
                    {"path", Read(m, &IModule::get_LoadPath)},
                    {"type", NameOrHex(ModuleTypes(), Read(m, &IModule::get_Type))},
                    {"status", NameOrHex(ModuleStatuses(), Read(m, &IModule::get_Status))},
                    {"entry", Hex(Read(m, &IModule::get_StartEntryAddress))},
                    {"segments", segments}});
  }
  PrintList(context, "modules", rows,
            {{"id", "ID"},
             {"name", "NAME"},
             {"type", "TYPE"},
             {"status", "STATUS"},
             {"entry", "ENTRY"},
             {"path", "PATH"}});
}

void VirtualMemory(Context& context, const ProcessArgs& args) {
  const ProcessRef ref = ResolveProcess(context, args.spec, Pid(args));
  vekx::ComPtr<IProcess4> process;
  Check(ref.process.QueryInto(IID_IProcess4, process));
  const vekx::Variant list = Read(*process.Get(), &IProcess4::get_VirtualMemoryInfo);
  Json rows = Json::array();
  for (const auto& region : ObjectsOf<IVirtualMemory>(list.Get(), IID_IVirtualMemory)) {
    IVirtualMemory& r = *region.Get();
    rows.push_back({{"name", Read(r, &IVirtualMemory::get_Name)},
                    {"start", Hex(Read(r, &IVirtualMemory::get_StartAddress))},
                    {"end", Hex(Read(r, &IVirtualMemory::get_EndAddress))},
                    {"protection", Hex(Read(r, &IVirtualMemory::get_Protection))},
                    {"flags", Hex(Read(r, &IVirtualMemory::get_Flags))},
                    {"type", Read(r, &IVirtualMemory::get_MemoryType)},
                    {"offset", Hex(Read(r, &IVirtualMemory::get_Offset))},
                    {"resident", Read(r, &IVirtualMemory::get_ResidentSize)}});
  }
  PrintList(context, "regions", rows,
            {{"start", "START"},
             {"end", "END"},
             {"protection", "PROTECTION"},
             {"resident", "RESIDENT"},
             {"name", "NAME"}});
}

void SyncObjects(Context& context, const ProcessArgs& args) {
  const ProcessRef ref = ResolveProcess(context, args.spec, Pid(args));
  const vekx::Variant list = Read(*ref.process.Get(), &IProcess::get_SyncPrimitives);
  Json rows = Json::array();
  for (const auto& object : ObjectsOf<IDispatch>(list.Get(), IID_IDispatch))
    rows.push_back(DescribeSyncObject(*object.Get()));
  PrintList(context, "objects", rows,
            {{"kind", "KIND"},
             {"kernel_id", "KERNEL ID"},
             {"name", "NAME"},
             {"owner", "OWNER"},
             {"waiters", "WAITERS"}});
}

struct LoadOptions {
  std::string spec;
  std::string path;
  std::string cwd;
  bool stop_at_entry = false;
  std::vector<std::string> args;
};

void Load(Context& context, const LoadOptions& options) {
  if (options.path.empty()) throw UsageError("PATH must not be empty");
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), options.spec);
  vekx::ComPtr<ITarget12> loader;
  Check(target.QueryInto(IID_ITarget12, loader));
  const auto [on_host, path] = ProgramPathOf(options.path);
  const vekx::Variant args = BstrArray(options.args);
  vekx::ComPtr<IProcess> process;
  Check(loader->LoadProcessArgv(on_host ? DEVICE_HOST : DEVICE_APP,
                                vekx::Bstr::FromUtf8(path).Get(),
                                options.stop_at_entry ? kStopAtEntry : 0, 0, args.Get(),
                                vekx::Bstr::FromUtf8(options.cwd).Get(), process.Put()));
  const ULONG pid = Read(*process.Get(), &IProcess::get_Id);
  if (context.json) {
    PrintOrderedJson(context.out, {{"pid", pid}});
  } else {
    context.out << "Loaded " << path << " as process " << pid
                << (options.stop_at_entry ? ", stopped at its entry point.\n" : ".\n");
  }
}

// attach, detach, kill: one call and a sentence.
struct RunControl {
  const char* name;
  const char* help;
  const char* json_key;
  const char* done;
  HRESULT (*call)(IProcess& process);
};
const RunControl kRunControls[] = {
    {"attach", "Attach to a process, as a debugger does", "attached", "Attached to",
     [](IProcess& p) { return p.Attach(0); }},
    {"detach", "Detach from a process", "detached", "Detached from",
     [](IProcess& p) { return p.Detach(0); }},
    {"kill", "End a process", "killed", "Killed", [](IProcess& p) { return p.Kill(); }},
};

void Control(Context& context, const ProcessArgs& args, const RunControl& control) {
  const ProcessRef ref = ResolveProcess(context, args.spec, Pid(args));
  Check(control.call(*ref.process.Get()));
  if (context.json) {
    PrintOrderedJson(context.out, {{"pid", ref.pid}, {control.json_key, true}});
  } else {
    context.out << control.done << " process " << ref.pid << ".\n";
  }
}

// Threads the target could not stop or start, as a sentence's end.
std::string FailedText(const std::vector<std::uint32_t>& failed, const char* what) {
  if (failed.empty()) return ".\n";
  std::vector<std::string> tids;
  for (std::uint32_t tid : failed)
    tids.push_back(std::to_string(tid));
  return "; the target could not " + std::string(what) + " thread(s) " + Joined(tids, ", ") + ".\n";
}

void Suspend(Context& context, const ProcessArgs& args) {
  const ProcessRef ref = ResolveProcess(context, args.spec, Pid(args));
  vekx::ComPtr<IProcessInfo> info;
  vekx::Variant threads;
  vekx::Variant failed_list;
  Check(ref.process->Suspend(info.Put(), threads.Put(), failed_list.Put()));
  const std::vector<std::uint32_t> failed = NumbersOf(failed_list.Get());
  if (context.json) {
    PrintOrderedJson(context.out,
                     {{"pid", ref.pid}, {"suspended", true}, {"failed_threads", failed}});
  } else {
    context.out << "Suspended process " << ref.pid << FailedText(failed, "suspend");
  }
}

struct ResumeOptions {
  ProcessArgs process;
  std::vector<std::string> step;
  bool wait = false;
  std::string timeout;
};

void PrintOutcome(Context& context, const Json& outcome) {
  if (context.json) {
    PrintOrderedJson(context.out, outcome);
    return;
  }
  const std::string pid = outcome["pid"].dump();
  if (outcome["event"] == "stop") {
    Json reason = nullptr;
    if (!outcome["reason"].is_null())
      reason = {{"code", outcome["reason"]}, {"name", outcome["reason_name"]}};
    context.out << "Process " << pid << " stopped: thread " << outcome["tid"].dump() << " at "
                << Cell(outcome["rip"]) << ", " << StopReasonText(reason) << ".\n";
  } else if (outcome["event"] == "exit") {
    context.out << "Process " << pid << " exited with code " << outcome["exit_code"].dump()
                << ".\n";
  } else {
    context.out << "Process " << pid << " was killed.\n";
  }
}

void Resume(Context& context, const ResumeOptions& options) {
  std::vector<std::uint32_t> step;
  for (const std::string& tid : options.step)
    step.push_back(ParseDecimal(tid, "TID"));
  const double seconds =
      options.timeout.empty() ? kDefaultWaitSeconds : ParseSeconds("--timeout", options.timeout);
  const ProcessRef ref = ResolveProcess(context, options.process.spec, Pid(options.process));
  // Subscribed before resuming: the stop may follow at once.
  std::unique_ptr<ProcessWatch> watch;
  if (options.wait) watch = std::make_unique<ProcessWatch>(ref.target, ref.pid);
  vekx::Variant threads;
  if (!step.empty()) threads = U32Array(step);
  vekx::Variant failed_list;
  Check(ref.process->Resume(threads.Get(), failed_list.Put()));
  const std::vector<std::uint32_t> failed = NumbersOf(failed_list.Get());
  if (!watch) {
    if (context.json) {
      PrintOrderedJson(context.out,
                       {{"pid", ref.pid}, {"resumed", true}, {"failed_threads", failed}});
    } else {
      context.out << "Resumed process " << ref.pid << FailedText(failed, "start");
    }
    return;
  }
  if (!failed.empty()) std::cerr << "vesta-ctrl: " << FailedText(failed, "start").substr(2);
  const auto timeout = std::chrono::milliseconds(std::llround(seconds * 1000));
  const std::optional<Json> outcome = watch->Wait(timeout);
  if (!outcome) {
    std::ostringstream text;
    text << seconds;
    throw Failure(S_OK, "process " + std::to_string(ref.pid) +
                            " neither stopped nor ended within " + text.str() + " s");
  }
  PrintOutcome(context, *outcome);
}

}  // namespace

ProgramPath ProgramPathOf(const std::string& typed) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(typed, error)) return {false, typed};
  return {true, std::filesystem::absolute(typed, error).string()};
}

void AddProcessArgs(CLI::App& command, ProcessArgs& args) {
  command.add_option("TARGET", args.spec, "Handle, host name or name")->required();
  command.add_option("PID", args.pid, "Process id (decimal)")->required();
}

std::uint32_t Pid(const ProcessArgs& args) {
  return ParseDecimal(args.pid, "PID");
}

nlohmann::ordered_json StopReasonJson(const vekx::ComPtr<IStopReason>& reason) {
  if (!reason) return nullptr;
  const std::uint32_t code = Read(*reason.Get(), &IStopReason::get_Code);
  if (code == 0) return nullptr;
  const auto name = NameOf(StopReasons(), code);
  return {{"code", code}, {"name", name ? Json(*name) : Json(nullptr)}};
}

std::string StopReasonText(const nlohmann::ordered_json& reason) {
  if (reason.is_null()) return "-";
  const std::string code = reason["code"].dump();
  return reason["name"].is_null() ? code : reason["name"].get<std::string>() + " (" + code + ")";
}

void AddDebugCommands(CLI::App& app, Context& context) {
  auto spec = std::make_shared<std::string>();
  CLI::App* ps = app.add_subcommand("ps", "The processes of a target");
  ps->add_option("TARGET", *spec, "Handle, host name or name")->required();
  ps->callback([&context, spec] { Processes(context, *spec); });

  using Lister = void (*)(Context&, const ProcessArgs&);
  const struct {
    const char* name;
    const char* help;
    Lister list;
  } listers[] = {
      {"threads", "The threads of a process: state, rip, stop reason", Threads},
      {"modules", "The modules a process has loaded", Modules},
      {"vm", "The mapped memory regions of a process", VirtualMemory},
      {"sync", "The synchronisation objects of a process: owners and waiters", SyncObjects},
  };
  for (const auto& lister : listers) {
    auto args = std::make_shared<ProcessArgs>();
    CLI::App* command = app.add_subcommand(lister.name, lister.help);
    AddProcessArgs(*command, *args);
    command->callback([&context, args, list = lister.list] { list(context, *args); });
  }

  auto load = std::make_shared<LoadOptions>();
  CLI::App* load_command = app.add_subcommand(
      "load", "Load a program as a new process and print its pid; ARGS after '--'");
  load_command->add_option("TARGET", load->spec, "Handle, host name or name")->required();
  load_command
      ->add_option("PATH", load->path,
                   "The program: a file of this machine is loaded from the host, any other path "
                   "from the kit's application file system")
      ->required();
  load_command->add_option("ARGS", load->args, "The program's arguments");
  load_command->add_option("--cwd", load->cwd, "The process's working directory");
  load_command->add_flag("--stop-at-entry", load->stop_at_entry,
                         "Stop every thread at the entry point");
  load_command->callback([&context, load] { Load(context, *load); });

  for (const RunControl& control : kRunControls) {
    auto args = std::make_shared<ProcessArgs>();
    CLI::App* command = app.add_subcommand(control.name, control.help);
    AddProcessArgs(*command, *args);
    command->callback([&context, args, &control] { Control(context, *args, control); });
  }

  auto suspend = std::make_shared<ProcessArgs>();
  CLI::App* suspend_command = app.add_subcommand("suspend", "Stop every thread of a process");
  AddProcessArgs(*suspend_command, *suspend);
  suspend_command->callback([&context, suspend] { Suspend(context, *suspend); });

  auto resume = std::make_shared<ResumeOptions>();
  CLI::App* resume_command =
      app.add_subcommand("resume", "Let a process run on; --wait returns at its next stop or end");
  AddProcessArgs(*resume_command, resume->process);
  resume_command->add_option("--step", resume->step,
                             "Run only these threads, one step each (TIDs, decimal)");
  CLI::Option* wait = resume_command->add_flag(
      "--wait", resume->wait, "Wait for the process's next stop or end and print it");
  resume_command
      ->add_option("--timeout", resume->timeout,
                   "With --wait: give up after S seconds, exit status 1 (default 30)")
      ->needs(wait);
  resume_command->callback([&context, resume] { Resume(context, *resume); });

  AddMemoryCommands(app, context);
  AddBreakpointCommands(app, context);
  AddRunCommand(app, context);
  AddCoreCommand(app, context);
  AddCoreLoadCommand(app, context);
}

}  // namespace vesta_ctrl
