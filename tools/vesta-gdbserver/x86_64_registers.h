#pragma once
// gdb's view of an x86-64 thread: its register numbers, in the order of the "g" packet, laid
// over the library's register ids; the target description that tells gdb and lldb that layout
// (gdb's standard i386 core, sse, linux and avx features); and the conversion between the
// library's four 64-bit words per register and the bytes of the "g" packet.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesta_gdb {

// Where a gdb register's bytes come from.
enum class RegisterSource {
  kWhole,      // the low `bits` of the library register
  kUpperHalf,  // bits 128-255 (ymm0h ...)
  kHigh32,     // bits 32-63 (fiseg, foseg: the upper half of the FPU's 64-bit pointers)
  kTagWord,    // the full x87 tag word, made from the abridged one FXSAVE keeps
  kNone,       // nothing behind it (segment selectors, orig_rax): a fixed value, writes ignored
};

struct GdbRegister {
  const char* name;
  unsigned bits;
  std::uint32_t id;  // the library's register id (kNone: unused)
  RegisterSource source;
  std::uint64_t fixed;  // kNone: the value it reads as
};

// Every register gdb numbers, in that order.
const std::vector<GdbRegister>& GdbRegisters();

// The library ids one fetch asks for, each once, to fill every register above.
const std::vector<std::uint32_t>& LibraryRegisterIds();

// A thread's registers as the library gave them: id -> four words, lowest first.
using RegisterWords = std::map<std::uint32_t, std::array<std::uint64_t, 4>>;

// gdb register `number`'s bytes (little-endian, bits/8 of them); nullopt for no such number.
std::optional<std::string> RegisterBytes(const RegisterWords& words, std::uint32_t number);
// Writes `bytes` into `words` for register `number`; false for a wrong number or size. Registers
// of kNone accept and drop their bytes. `changed` gets the library id that must be written.
bool StoreRegisterBytes(RegisterWords& words, std::uint32_t number, std::string_view bytes,
                        std::optional<std::uint32_t>& changed);

// The "g" packet's bytes: every register in order.
std::string AllRegisterBytes(const RegisterWords& words);
// gdb register numbers of the program counter, stack and frame pointer (for stop replies).
inline constexpr std::uint32_t kGdbRbp = 6;
inline constexpr std::uint32_t kGdbRsp = 7;
inline constexpr std::uint32_t kGdbRip = 16;

// target.xml.
const std::string& TargetDescription();

}  // namespace vesta_gdb
