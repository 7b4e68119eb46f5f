#include "x86_64_registers.h"

#include <cstring>

#include "vekxapi/vekxapi.h"

namespace vesta_gdb {
namespace {

constexpr std::uint32_t kNoId = 0;

std::vector<GdbRegister> MakeRegisters() {
  using S = RegisterSource;
  std::vector<GdbRegister> r = {
      {"rax", 64, REG_ID_RAX, S::kWhole, 0}, {"rbx", 64, REG_ID_RBX, S::kWhole, 0},
      {"rcx", 64, REG_ID_RCX, S::kWhole, 0}, {"rdx", 64, REG_ID_RDX, S::kWhole, 0},
      {"rsi", 64, REG_ID_RSI, S::kWhole, 0}, {"rdi", 64, REG_ID_RDI, S::kWhole, 0},
      {"rbp", 64, REG_ID_RBP, S::kWhole, 0}, {"rsp", 64, REG_ID_RSP, S::kWhole, 0},
  };
  static const char* const kHigh[] = {"r8", "r9", "r10", "r11", "r12", "r13", "r14", "r15"};
  for (std::uint32_t i = 0; i < 8; ++i)
    r.push_back({kHigh[i], 64, REG_ID_R8 + i, S::kWhole, 0});
  r.push_back({"rip", 64, REG_ID_RIP, S::kWhole, 0});
  r.push_back({"eflags", 32, REG_ID_RFLAGS, S::kWhole, 0});
  // The library has no segment selectors; user code runs with these flat selectors.
  for (const char* name : {"cs", "ss", "ds", "es", "fs", "gs"})
    r.push_back({name, 32, kNoId, S::kNone, 0});
  static const char* const kSt[] = {"st0", "st1", "st2", "st3", "st4", "st5", "st6", "st7"};
  for (std::uint32_t i = 0; i < 8; ++i)
    r.push_back({kSt[i], 80, REG_ID_FP_ACC0 + i, S::kWhole, 0});
  r.push_back({"fctrl", 32, REG_ID_EN_CW, S::kWhole, 0});
  r.push_back({"fstat", 32, REG_ID_EN_SW, S::kWhole, 0});
  r.push_back({"ftag", 32, REG_ID_EN_TW, S::kTagWord, 0});
  r.push_back({"fiseg", 32, REG_ID_EN_RIP, S::kHigh32, 0});
  r.push_back({"fioff", 32, REG_ID_EN_RIP, S::kWhole, 0});
  r.push_back({"foseg", 32, REG_ID_EN_RDP, S::kHigh32, 0});
  r.push_back({"fooff", 32, REG_ID_EN_RDP, S::kWhole, 0});
  r.push_back({"fop", 32, REG_ID_EN_OPCODE, S::kWhole, 0});
  static const char* const kXmm[] = {"xmm0",  "xmm1",  "xmm2",  "xmm3", "xmm4",  "xmm5",
                                     "xmm6",  "xmm7",  "xmm8",  "xmm9", "xmm10", "xmm11",
                                     "xmm12", "xmm13", "xmm14", "xmm15"};
  for (std::uint32_t i = 0; i < 16; ++i)
    r.push_back({kXmm[i], 128, REG_ID_YMM0 + i, S::kWhole, 0});
  r.push_back({"mxcsr", 32, REG_ID_EN_MXCSR, S::kWhole, 0});
  // Not a syscall: what a debugger writes back when it changes the pc.
  r.push_back({"orig_rax", 64, kNoId, S::kNone, ~std::uint64_t{0}});
  static const char* const kYmmh[] = {"ymm0h",  "ymm1h",  "ymm2h",  "ymm3h", "ymm4h",  "ymm5h",
                                      "ymm6h",  "ymm7h",  "ymm8h",  "ymm9h", "ymm10h", "ymm11h",
                                      "ymm12h", "ymm13h", "ymm14h", "ymm15h"};
  for (std::uint32_t i = 0; i < 16; ++i)
    r.push_back({kYmmh[i], 128, REG_ID_YMM0 + i, S::kUpperHalf, 0});
  return r;
}

size_t ByteOffset(RegisterSource source) {
  switch (source) {
    case RegisterSource::kUpperHalf:
      return 16;
    case RegisterSource::kHigh32:
      return 4;
    default:
      return 0;
  }
}

std::string Image(const std::array<std::uint64_t, 4>& words) {
  std::string bytes(32, '\0');
  std::memcpy(bytes.data(), words.data(), 32);  // x86-64 and the wire are little-endian
  return bytes;
}

std::array<std::uint64_t, 4> Words(const RegisterWords& words, std::uint32_t id) {
  const auto it = words.find(id);
  return it == words.end() ? std::array<std::uint64_t, 4>{} : it->second;
}

// The full tag word (two bits per physical register: valid 0, zero 1, special 2, empty 3) from
// FXSAVE's abridged one (a bit per register: not empty), looking at each register's value.
std::uint32_t FullTagWord(const RegisterWords& words) {
  const std::uint64_t abridged = Words(words, REG_ID_EN_TW)[0];
  const unsigned top = static_cast<unsigned>(Words(words, REG_ID_EN_SW)[0] >> 11) & 7;
  std::uint32_t full = 0;
  for (unsigned physical = 0; physical < 8; ++physical) {
    unsigned tag = 3;
    if (abridged >> physical & 1) {
      const auto value = Words(words, REG_ID_FP_ACC0 + ((physical - top) & 7));
      const std::uint64_t mantissa = value[0];
      const unsigned exponent = static_cast<unsigned>(value[1]) & 0x7FFF;
      if (exponent == 0x7FFF) {
        tag = 2;
      } else if (exponent == 0) {
        tag = mantissa == 0 ? 1 : 2;
      } else {
        tag = mantissa >> 63 ? 0 : 2;
      }
    }
    full |= tag << (2 * physical);
  }
  return full;
}

std::string Little(std::uint64_t value, size_t size) {
  std::string bytes(8, '\0');
  std::memcpy(bytes.data(), &value, 8);
  return bytes.substr(0, size);
}

std::string MakeDescription() {
  std::string xml =
      "<?xml version=\"1.0\"?>\n<!DOCTYPE target SYSTEM \"gdb-target.dtd\">\n<target>\n"
      "<architecture>i386:x86-64</architecture>\n<osabi>GNU/Linux</osabi>\n"
      "<feature name=\"org.gnu.gdb.i386.core\">\n"
      "<flags id=\"i386_eflags\" size=\"4\">\n";
  static const std::pair<const char*, int> kFlags[] = {
      {"CF", 0},  {"", 1},    {"PF", 2},   {"AF", 4},   {"ZF", 6},  {"SF", 7},
      {"TF", 8},  {"IF", 9},  {"DF", 10},  {"OF", 11},  {"NT", 14}, {"RF", 16},
      {"VM", 17}, {"AC", 18}, {"VIF", 19}, {"VIP", 20}, {"ID", 21}};
  for (const auto& [name, bit] : kFlags) {
    xml += "<field name=\"" + std::string(name) + "\" start=\"" + std::to_string(bit) +
           "\" end=\"" + std::to_string(bit) + "\"/>\n";
  }
  xml += "</flags>\n";
  const auto& registers = GdbRegisters();
  auto reg = [&](size_t number, const char* type, const char* group) {
    const GdbRegister& r = registers[number];
    xml += "<reg name=\"" + std::string(r.name) + "\" bitsize=\"" + std::to_string(r.bits) +
           "\" type=\"" + type + "\" regnum=\"" + std::to_string(number) + "\"";
    if (group != nullptr) xml += " group=\"" + std::string(group) + "\"";
    xml += "/>\n";
  };
  size_t n = 0;
  for (; n < 16; ++n)
    reg(n, n == kGdbRbp || n == kGdbRsp ? "data_ptr" : "int64", nullptr);
  reg(n++, "code_ptr", nullptr);
  reg(n++, "i386_eflags", nullptr);
  for (int i = 0; i < 6; ++i)
    reg(n++, "int32", nullptr);
  for (int i = 0; i < 8; ++i)
    reg(n++, "i387_ext", nullptr);
  for (int i = 0; i < 8; ++i)
    reg(n++, "int", "float");
  xml +=
      "</feature>\n<feature name=\"org.gnu.gdb.i386.sse\">\n"
      "<vector id=\"v4f\" type=\"ieee_single\" count=\"4\"/>\n"
      "<vector id=\"v2d\" type=\"ieee_double\" count=\"2\"/>\n"
      "<vector id=\"v16i8\" type=\"int8\" count=\"16\"/>\n"
      "<vector id=\"v8i16\" type=\"int16\" count=\"8\"/>\n"
      "<vector id=\"v4i32\" type=\"int32\" count=\"4\"/>\n"
      "<vector id=\"v2i64\" type=\"int64\" count=\"2\"/>\n"
      "<union id=\"vec128\">\n<field name=\"v4_float\" type=\"v4f\"/>\n"
      "<field name=\"v2_double\" type=\"v2d\"/>\n<field name=\"v16_int8\" type=\"v16i8\"/>\n"
      "<field name=\"v8_int16\" type=\"v8i16\"/>\n<field name=\"v4_int32\" type=\"v4i32\"/>\n"
      "<field name=\"v2_int64\" type=\"v2i64\"/>\n<field name=\"uint128\" type=\"uint128\"/>\n"
      "</union>\n<flags id=\"i386_mxcsr\" size=\"4\">\n";
  static const char* const kMxcsr[] = {"IE", "DE", "ZE", "OE", "UE", "PE", "DAZ",
                                       "IM", "DM", "ZM", "OM", "UM", "PM", "FZ"};
  for (int bit = 0; bit < 14; ++bit) {
    xml += "<field name=\"" + std::string(kMxcsr[bit]) + "\" start=\"" + std::to_string(bit) +
           "\" end=\"" + std::to_string(bit) + "\"/>\n";
  }
  xml += "</flags>\n";
  for (int i = 0; i < 16; ++i)
    reg(n++, "vec128", nullptr);
  reg(n++, "i386_mxcsr", "vector");
  xml += "</feature>\n<feature name=\"org.gnu.gdb.i386.linux\">\n";
  reg(n++, "int", nullptr);
  xml += "</feature>\n<feature name=\"org.gnu.gdb.i386.avx\">\n";
  for (int i = 0; i < 16; ++i)
    reg(n++, "uint128", nullptr);
  xml += "</feature>\n</target>\n";
  return xml;
}

}  // namespace

const std::vector<GdbRegister>& GdbRegisters() {
  static const std::vector<GdbRegister> registers = MakeRegisters();
  return registers;
}

const std::vector<std::uint32_t>& LibraryRegisterIds() {
  static const std::vector<std::uint32_t> ids = [] {
    std::vector<std::uint32_t> list;
    for (const GdbRegister& r : GdbRegisters()) {
      if (r.source == RegisterSource::kNone) continue;
      bool seen = false;
      for (std::uint32_t id : list)
        seen = seen || id == r.id;
      if (!seen) list.push_back(r.id);
    }
    return list;
  }();
  return ids;
}

std::optional<std::string> RegisterBytes(const RegisterWords& words, std::uint32_t number) {
  const auto& registers = GdbRegisters();
  if (number >= registers.size()) return std::nullopt;
  const GdbRegister& r = registers[number];
  switch (r.source) {
    case RegisterSource::kNone:
      return Little(r.fixed, r.bits / 8);
    case RegisterSource::kTagWord:
      return Little(FullTagWord(words), r.bits / 8);
    default:
      return Image(Words(words, r.id)).substr(ByteOffset(r.source), r.bits / 8);
  }
}

bool StoreRegisterBytes(RegisterWords& words, std::uint32_t number, std::string_view bytes,
                        std::optional<std::uint32_t>& changed) {
  changed.reset();
  const auto& registers = GdbRegisters();
  if (number >= registers.size()) return false;
  const GdbRegister& r = registers[number];
  if (bytes.size() != r.bits / 8) return false;
  if (r.source == RegisterSource::kNone) return true;
  std::array<std::uint64_t, 4>& target = words[r.id];
  if (r.source == RegisterSource::kTagWord) {
    std::uint32_t full = 0;
    std::memcpy(&full, bytes.data(), 4);
    std::uint64_t abridged = 0;
    for (unsigned physical = 0; physical < 8; ++physical) {
      if ((full >> (2 * physical) & 3) != 3) abridged |= std::uint64_t{1} << physical;
    }
    target = {abridged, 0, 0, 0};
  } else {
    std::string image = Image(target);
    image.replace(ByteOffset(r.source), bytes.size(), bytes);
    std::memcpy(target.data(), image.data(), 32);
  }
  changed = r.id;
  return true;
}

std::string AllRegisterBytes(const RegisterWords& words) {
  std::string bytes;
  for (std::uint32_t number = 0; number < GdbRegisters().size(); ++number)
    bytes += *RegisterBytes(words, number);
  return bytes;
}

const std::string& TargetDescription() {
  static const std::string xml = MakeDescription();
  return xml;
}

}  // namespace vesta_gdb
