#include "server/debug/local/linker_hook.h"

#include <elf.h>
#include <sys/ptrace.h>
#include <sys/user.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "server/debug/elf_symbols.h"
#include "server/debug/local/proc_files.h"
#include "server/debug/reporting.h"

namespace qv::server {
namespace {

constexpr char kHookSymbol[] = "_dl_debug_state";

// `ret`, alone or after `endbr64`.
bool IsBareReturn(const Bytes& code) {
  static const uint8_t kEndbr64Ret[] = {0xF3, 0x0F, 0x1E, 0xFA, 0xC3};
  return (!code.empty() && code[0] == 0xC3) ||
         (code.size() >= sizeof kEndbr64Ret &&
          std::memcmp(code.data(), kEndbr64Ret, sizeof kEndbr64Ret) == 0);
}

}  // namespace

std::optional<uint64_t> LinkerHookAddress(pid_t pid, ProcessMemory& memory) {
  const uint64_t base = AuxiliaryValue(pid, AT_BASE);  // the interpreter's; 0 without one
  if (base == 0) return std::nullopt;
  std::string path;
  for (const Mapping& mapping : ReadMappings(pid)) {
    if (mapping.start == base) path = mapping.path;
  }
  if (path.empty() || path[0] != '/') return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  const std::vector<uint8_t> image{std::istreambuf_iterator<char>(file),
                                   std::istreambuf_iterator<char>()};
  ElfSymbol symbol;
  std::string error;
  if (!FindElfSymbol(image, kHookSymbol, symbol, error)) return std::nullopt;
  const uint64_t address = RunTimeAddress(symbol, base);
  Bytes code;
  uint32_t bad = 0;
  memory.Read(address, 5, code, bad);
  if (bad != 0 || !IsBareReturn(code)) return std::nullopt;
  return address;
}

Status ReturnFromHook(pid_t tid, ProcessMemory& memory) {
  user_regs_struct regs{};
  if (ptrace(PTRACE_GETREGS, tid, nullptr, &regs) != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_STOPPED, u"thread " +
                                                         Decimal(static_cast<uint64_t>(tid)) +
                                                         u" cannot return from the linker's hook");
  }
  uint64_t return_address = 0;
  uint32_t bad = 0;
  memory.Read(regs.rsp, sizeof return_address, reinterpret_cast<uint8_t*>(&return_address), bad);
  if (bad != 0) {
    return Status::Fail(
        KXAPI_COMMS_ERR_INVALID_ADDRESS,
        u"the stack of thread " + Decimal(static_cast<uint64_t>(tid)) + u" cannot be read");
  }
  regs.rip = return_address;
  regs.rsp += sizeof return_address;
  if (ptrace(PTRACE_SETREGS, tid, nullptr, &regs) != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_STOPPED, u"thread " +
                                                         Decimal(static_cast<uint64_t>(tid)) +
                                                         u" cannot return from the linker's hook");
  }
  return Status::Ok();
}

}  // namespace qv::server
