// break: setting, listing and clearing a process's software and hardware breakpoints.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "debug_commands.h"
#include "debug_values.h"
#include "output.h"
#include "process_resolution.h"
#include "symbol_address.h"

namespace vesta_ctrl {
namespace {

using Json = nlohmann::ordered_json;

// What a hardware breakpoint watches, by eHardwareBreakPtFlags, as --write/--read and the output
// name it.
struct HardwareKind {
  eHardwareBreakPtFlags flags;
  const char* name;
};
constexpr HardwareKind kHardwareKinds[] = {
    {HWBREAKPT_FLAG_BREAK_ON_EXECUTE, "execute"},
    {HWBREAKPT_FLAG_BREAK_ON_WRITE, "write"},
    {HWBREAKPT_FLAG_BREAK_ON_READ, "read"},
};

std::string KindName(std::uint32_t flags) {
  for (const HardwareKind& kind : kHardwareKinds) {
    if (static_cast<std::uint32_t>(kind.flags) == flags) return kind.name;
  }
  return Hex(flags);
}

struct BreakOptions {
  ProcessArgs process;
  std::string address;
  bool hardware = false;
  bool write = false;
  bool read = false;
  std::string size;
  std::string thread;
  bool list = false;
  std::string clear;
};

void SetSoftware(Context& context, const ProcessRef& ref, std::uint64_t address,
                 std::uint32_t tid) {
  vekx::Variant no_script;
  vekx::Variant original;
  ULONG id = 0;
  Check(ref.process->SetSoftwareBreakpoint(tid, address, static_cast<eSoftwareBreakPtAttr>(0), 0,
                                           no_script.Get(), original.Put(), &id));
  const std::string bytes = HexBytes(BytesOf(original.Get()));
  if (context.json) {
    PrintOrderedJson(context.out, {{"id", id}, {"address", Hex(address)}, {"original", bytes}});
  } else {
    context.out << "Breakpoint " << id << " at " << Hex(address)
                << (tid == 0 ? "" : " for thread " + std::to_string(tid)) << " (original bytes "
                << bytes << ").\n";
  }
}

void SetHardware(Context& context, const ProcessRef& ref, std::uint64_t address,
                 const BreakOptions& options) {
  const HardwareKind& kind = kHardwareKinds[options.write ? 1 : options.read ? 2 : 0];
  const auto size =
      options.size.empty() ? 1u : static_cast<ULONG>(ParseNumber(options.size, "--size", 0xFF));
  ULONG id = 0;
  Check(ref.process->SetHardwareBreakpoint(address, kind.flags, size, &id));
  if (context.json) {
    PrintOrderedJson(context.out, {{"id", id}});
  } else {
    context.out << "Hardware breakpoint " << id << " at " << Hex(address) << ": " << kind.name
                << ", " << size << " byte(s).\n";
  }
}

void List(Context& context, const ProcessRef& ref) {
  Json software = Json::array();
  const vekx::Variant soft_list = Read(*ref.process.Get(), &IProcess::get_SoftwareBreakpoints);
  for (const auto& each :
       ObjectsOf<ISoftwareBreakpoint>(soft_list.Get(), IID_ISoftwareBreakpoint)) {
    ISoftwareBreakpoint& b = *each.Get();
    software.push_back({{"id", Read(b, &ISoftwareBreakpoint::get_Id)},
                        {"address", Hex(Read(b, &ISoftwareBreakpoint::get_Address))},
                        {"thread", Read(b, &ISoftwareBreakpoint::get_ThreadId)},
                        {"hit_count", Read(b, &ISoftwareBreakpoint::get_HitCount)}});
  }
  Json hardware = Json::array();
  const vekx::Variant hard_list = Read(*ref.process.Get(), &IProcess::get_HardwareBreakpoints);
  for (const auto& each :
       ObjectsOf<IHardwareBreakpoint>(hard_list.Get(), IID_IHardwareBreakpoint)) {
    IHardwareBreakpoint& b = *each.Get();
    hardware.push_back({{"id", Read(b, &IHardwareBreakpoint::get_Id)},
                        {"address", Hex(Read(b, &IHardwareBreakpoint::get_Address))},
                        {"kind", KindName(Read(b, &IHardwareBreakpoint::get_Flags))},
                        {"size", Read(b, &IHardwareBreakpoint::get_RegionSize)}});
  }
  if (context.json) {
    PrintOrderedJson(context.out, {{"software", software}, {"hardware", hardware}});
    return;
  }
  Table table({"ID", "KIND", "ADDRESS", "THREAD", "SIZE"});
  for (const Json& b : software) {
    const std::uint32_t tid = b["thread"];
    table.AddRow(
        {b["id"].dump(), "software", b["address"], tid == 0 ? "all" : std::to_string(tid)});
  }
  for (const Json& b : hardware)
    table.AddRow({b["id"].dump(), b["kind"], b["address"], "all", b["size"].dump()});
  table.Print(context.out);
}

void Clear(Context& context, const ProcessRef& ref, bool hardware, std::uint32_t id) {
  Check(hardware ? ref.process->ClearHardwareBreakpoint(id)
                 : ref.process->ClearSoftwareBreakpoint(id));
  if (context.json) {
    PrintOrderedJson(context.out, {{"cleared", id}});
  } else {
    context.out << "Cleared " << (hardware ? "hardware breakpoint " : "breakpoint ") << id << ".\n";
  }
}

void Break(Context& context, const BreakOptions& options) {
  const int actions =
      int{!options.address.empty()} + int{options.list} + int{!options.clear.empty()};
  if (actions != 1) throw UsageError("give one of ADDR, --list and --clear ID");
  if (options.address.empty() &&
      (options.write || options.read || !options.size.empty() || !options.thread.empty())) {
    throw UsageError("--write, --read, --size and --thread go with ADDR only");
  }
  // Everything the user typed is checked before the target is asked anything; a symbol can only
  // be looked up in the process.
  const std::uint32_t pid = Pid(options.process);
  std::optional<std::uint64_t> address;
  const bool symbol = IsSymbolName(options.address);
  if (!options.address.empty() && !symbol) address = ParseNumber(options.address, "ADDR");
  const std::uint32_t tid = options.thread.empty() ? 0 : ParseDecimal(options.thread, "--thread");
  const std::uint32_t clear = options.clear.empty() ? 0 : ParseDecimal(options.clear, "ID");
  const ProcessRef ref = ResolveProcess(context, options.process.spec, pid);
  if (symbol) address = SymbolAddress(ref, options.address);
  if (options.list) {
    List(context, ref);
  } else if (!options.clear.empty()) {
    Clear(context, ref, options.hardware, clear);
  } else if (options.hardware) {
    SetHardware(context, ref, *address, options);
  } else {
    SetSoftware(context, ref, *address, tid);
  }
}

}  // namespace

void AddBreakpointCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<BreakOptions>();
  CLI::App* command = app.add_subcommand(
      "break", "Set a breakpoint at ADDR and print its id; --list them, --clear one");
  AddProcessArgs(*command, options->process);
  command->add_option("ADDR", options->address,
                      "Address (decimal or 0x-hex) or a symbol of the main program");
  CLI::Option* hardware =
      command->add_flag("--hw", options->hardware, "A hardware breakpoint (default: execute)");
  CLI::Option* write =
      command->add_flag("--write", options->write, "With --hw: break on writes")->needs(hardware);
  command->add_flag("--read", options->read, "With --hw: break on reads")
      ->needs(hardware)
      ->excludes(write);
  command->add_option("--size", options->size, "With --hw: bytes watched, 1, 2, 4 or 8 (default 1)")
      ->needs(hardware);
  command->add_option("--thread", options->thread, "Only this thread stops (TID; default: all)")
      ->excludes(hardware);
  command->add_flag("--list", options->list, "List the software and hardware breakpoints");
  command->add_option("--clear", options->clear,
                      "Clear the software breakpoint ID (with --hw: the hardware one)");
  command->callback([&context, options] { Break(context, *options); });
}

}  // namespace vesta_ctrl
