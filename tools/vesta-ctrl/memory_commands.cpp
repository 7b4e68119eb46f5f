// A process's memory and a thread's registers: mem read, mem write, regs.
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "debug_commands.h"
#include "debug_values.h"
#include "output.h"
#include "process_resolution.h"
#include "register_names.h"
#include "symbol_address.h"

namespace vesta_ctrl {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kDumpWidth = 16;

struct MemoryOptions {
  ProcessArgs process;
  std::string address;
  std::string length;
  std::string out;
  std::string hex;
};

// 16 bytes a line: the address, the bytes in hexadecimal and as text.
void HexDump(std::ostream& out, std::uint64_t address, const std::vector<std::uint8_t>& bytes) {
  for (size_t line = 0; line < bytes.size(); line += kDumpWidth) {
    char text[24];
    std::snprintf(text, sizeof text, "%016llx ", static_cast<unsigned long long>(address + line));
    std::string hex = text;
    std::string printable;
    for (size_t i = line; i < line + kDumpWidth; ++i) {
      if (i - line == kDumpWidth / 2) hex += ' ';
      if (i >= bytes.size()) {
        hex += "   ";
        continue;
      }
      std::snprintf(text, sizeof text, " %02x", bytes[i]);
      hex += text;
      printable += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
    }
    out << hex << "  |" << printable << "|\n";
  }
}

void ReadMemory(Context& context, const MemoryOptions& options) {
  const bool symbol = IsSymbolName(options.address);
  std::uint64_t address = symbol ? 0 : ParseNumber(options.address, "ADDR");
  const auto length = static_cast<ULONG>(ParseNumber(options.length, "LEN", UINT32_MAX));
  const ProcessRef ref = ResolveProcess(context, options.process.spec, Pid(options.process));
  if (symbol) address = SymbolAddress(ref, options.address);
  ULONG bad = 0;
  vekx::Variant buffer;
  Check(ref.process->GetMemory(address, length, &bad, buffer.Put()));
  const std::vector<std::uint8_t> bytes = BytesOf(buffer.Get());
  const std::string unread =
      bad == 0 ? "" : std::to_string(bad) + " of the bytes could not be read and show as 00.\n";
  if (!options.out.empty()) {
    std::ofstream file(options.out, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) throw Failure(S_OK, "cannot write '" + options.out + "'");
    if (context.json) {
      PrintOrderedJson(context.out, {{"address", Hex(address)},
                                     {"length", bytes.size()},
                                     {"bad", bad},
                                     {"out", options.out}});
    } else {
      context.out << "Wrote " << bytes.size() << " bytes from " << Hex(address) << " to "
                  << options.out << ".\n"
                  << unread;
    }
    return;
  }
  if (context.json) {
    PrintOrderedJson(context.out,
                     {{"address", Hex(address)}, {"data", HexBytes(bytes)}, {"bad", bad}});
  } else {
    HexDump(context.out, address, bytes);
    context.out << unread;
  }
}

void WriteMemory(Context& context, const MemoryOptions& options) {
  const bool symbol = IsSymbolName(options.address);
  std::uint64_t address = symbol ? 0 : ParseNumber(options.address, "ADDR");
  const std::vector<std::uint8_t> bytes = ParseHexBytes(options.hex, "HEX");
  const ProcessRef ref = ResolveProcess(context, options.process.spec, Pid(options.process));
  if (symbol) address = SymbolAddress(ref, options.address);
  ULONG written = 0;
  Check(ref.process->SetMemory(address, ByteArray(bytes).Get(), &written));
  if (context.json) {
    PrintOrderedJson(context.out, {{"written", written}});
  } else {
    context.out << "Wrote " << written << " bytes at " << Hex(address) << ".\n";
  }
}

struct RegisterOptions {
  ProcessArgs process;
  std::string tid;
  std::vector<std::string> names;
  std::vector<std::string> assignments;
};

Register Named(const std::string& name) {
  if (std::optional<Register> known = RegisterByName(name)) return *known;
  throw UsageError("no register is named '" + name +
                   "' (rax ... r15, rip, rflags, trapno, err, fsbase, st0 ... st7, ymm0 ... "
                   "ymm15, dr0 ... dr15, fcw, fsw, ftw, fzero, fop, fip, fdp, mxcsr, mxcsr_mask)");
}

std::vector<std::uint32_t> IdsOf(const std::vector<Register>& registers) {
  std::vector<std::uint32_t> ids;
  for (const Register& each : registers)
    ids.push_back(each.id);
  return ids;
}

void PrintRegisters(Context& context, IThread& thread, const std::vector<Register>& registers) {
  vekx::Variant values;
  Check(thread.GetRegisters(I32Array(IdsOf(registers)).Get(), values.Put()));
  const std::vector<std::uint64_t> words = WordsOf(values.Get());
  if (words.size() != registers.size() * 4) {
    throw Failure(S_OK, "the target answered " + std::to_string(words.size()) + " words for " +
                            std::to_string(registers.size()) + " registers");
  }
  Json document = Json::object();
  std::vector<std::pair<std::string, std::string>> fields;
  for (size_t i = 0; i < registers.size(); ++i) {
    const std::string value = WideHex(&words[i * 4], 4);
    document[registers[i].name] = value;
    fields.emplace_back(registers[i].name, value);
  }
  if (context.json) {
    PrintOrderedJson(context.out, document);
  } else {
    PrintFields(context.out, fields);
  }
}

void Registers(Context& context, const RegisterOptions& options) {
  const std::uint32_t tid = ParseDecimal(options.tid, "TID");
  std::vector<Register> registers;
  std::vector<std::uint64_t> words;
  if (!options.assignments.empty()) {
    if (!options.names.empty()) throw UsageError("NAME... and --set do not go together");
    for (const std::string& assignment : options.assignments) {
      const size_t equals = assignment.find('=');
      if (equals == std::string::npos)
        throw UsageError("--set takes NAME=VALUE, not '" + assignment + "'");
      registers.push_back(Named(assignment.substr(0, equals)));
      const auto value = ParseWideNumber(assignment.substr(equals + 1), registers.back().name,
                                         registers.back().width_bits);
      words.insert(words.end(), value.begin(), value.end());
    }
  } else if (options.names.empty()) {
    registers = GeneralRegisters();
  } else {
    for (const std::string& name : options.names)
      registers.push_back(Named(name));
  }
  const ProcessRef ref = ResolveProcess(context, options.process.spec, Pid(options.process));
  const vekx::ComPtr<IThread> thread = ResolveThread(ref, tid);
  if (!words.empty())
    Check(thread->SetRegisters(I32Array(IdsOf(registers)).Get(), U64Array(words).Get()));
  // After --set, what the thread holds now.
  PrintRegisters(context, *thread.Get(), registers);
}

}  // namespace

void AddMemoryCommands(CLI::App& app, Context& context) {
  CLI::App* mem = app.add_subcommand("mem", "Read or write a process's memory");
  mem->require_subcommand(1);

  auto read = std::make_shared<MemoryOptions>();
  CLI::App* read_command =
      mem->add_subcommand("read", "LEN bytes from ADDR, as a hex dump (or into a file)");
  AddProcessArgs(*read_command, read->process);
  read_command
      ->add_option("ADDR", read->address,
                   "Address (decimal or 0x-hex) or a symbol of the main program")
      ->required();
  read_command->add_option("LEN", read->length, "Number of bytes (decimal or 0x-hex)")->required();
  read_command->add_option("--out", read->out, "Write the raw bytes to FILE instead");
  read_command->callback([&context, read] { ReadMemory(context, *read); });

  auto write = std::make_shared<MemoryOptions>();
  CLI::App* write_command = mem->add_subcommand("write", "Write bytes at ADDR");
  AddProcessArgs(*write_command, write->process);
  write_command
      ->add_option("ADDR", write->address,
                   "Address (decimal or 0x-hex) or a symbol of the main program")
      ->required();
  write_command
      ->add_option("HEX", write->hex, "The bytes: pairs of hex digits (\"9090\", \"90 90\")")
      ->required();
  write_command->callback([&context, write] { WriteMemory(context, *write); });

  auto regs = std::make_shared<RegisterOptions>();
  CLI::App* regs_command = app.add_subcommand(
      "regs", "A thread's registers (default: rax ... r15, rip, rflags), or --set them");
  AddProcessArgs(*regs_command, regs->process);
  regs_command->add_option("TID", regs->tid, "Thread id (decimal)")->required();
  regs_command->add_option("NAME", regs->names, "Registers to show: rax, rip, ymm0, dr7, ...");
  regs_command->add_option("--set", regs->assignments,
                           "NAME=VALUE...: set registers (decimal or 0x-hex values)");
  regs_command->callback([&context, regs] { Registers(context, *regs); });
}

}  // namespace vesta_ctrl
