#include "server/debug/elf_symbols.h"

#include <cstring>

namespace qv {
namespace {

// The ELF64 structures as the file lays them out (little-endian x86-64). Declared here rather
// than taken from <elf.h>, which Windows does not have.
struct FileHeader {
  std::uint8_t ident[16];
  std::uint16_t type, machine;
  std::uint32_t version;
  std::uint64_t entry, phoff, shoff;
  std::uint32_t flags;
  std::uint16_t ehsize, phentsize, phnum, shentsize, shnum, shstrndx;
};
struct ProgramHeader {
  std::uint32_t type, flags;
  std::uint64_t offset, vaddr, paddr, filesz, memsz, align;
};
struct SectionHeader {
  std::uint32_t name, type;
  std::uint64_t flags, addr, offset, size;
  std::uint32_t link, info;
  std::uint64_t addralign, entsize;
};
struct Symbol {
  std::uint32_t name;
  std::uint8_t info, other;
  std::uint16_t shndx;
  std::uint64_t value, size;
};
static_assert(sizeof(FileHeader) == 64 && sizeof(ProgramHeader) == 56 &&
              sizeof(SectionHeader) == 64 && sizeof(Symbol) == 24);

constexpr std::uint16_t kTypeShared = 3;       // ET_DYN
constexpr std::uint32_t kLoad = 1;             // PT_LOAD
constexpr std::uint32_t kSymbolTable = 2;      // SHT_SYMTAB
constexpr std::uint32_t kDynamicSymbols = 11;  // SHT_DYNSYM
constexpr std::uint64_t kPageMask = ~std::uint64_t{0xFFF};

// A structure at `offset` of the image; false when the image is too short for it.
template <class T>
bool At(const std::vector<std::uint8_t>& image, std::uint64_t offset, T& value) {
  if (offset > image.size() || image.size() - offset < sizeof(T)) return false;
  std::memcpy(&value, image.data() + offset, sizeof(T));
  return true;
}

// The symbol `name` in the table `table`, whose names are in the section `table.link`.
bool FindIn(const std::vector<std::uint8_t>& image, const FileHeader& header,
            const SectionHeader& table, const std::string& name, std::uint64_t& value) {
  SectionHeader strings{};
  if (!At(image, header.shoff + std::uint64_t{table.link} * sizeof(SectionHeader), strings) ||
      strings.offset > image.size() || image.size() - strings.offset < strings.size) {
    return false;
  }
  const char* names = reinterpret_cast<const char*>(image.data() + strings.offset);
  for (std::uint64_t at = 0; at + sizeof(Symbol) <= table.size; at += sizeof(Symbol)) {
    Symbol symbol{};
    if (!At(image, table.offset + at, symbol)) return false;
    if (symbol.shndx == 0 || symbol.name >= strings.size) continue;  // undefined, or no name
    const std::size_t room = strings.size - symbol.name;
    if (strnlen(names + symbol.name, room) == name.size() &&
        std::memcmp(names + symbol.name, name.data(), name.size()) == 0) {
      value = symbol.value;
      return true;
    }
  }
  return false;
}

}  // namespace

bool FindElfSymbol(const std::vector<std::uint8_t>& image, const std::string& name,
                   ElfSymbol& symbol, std::string& error) {
  FileHeader header{};
  if (!At(image, 0, header) ||
      std::memcmp(header.ident,
                  "\x7f"
                  "ELF",
                  4) != 0 ||
      header.ident[4] != 2 || header.ident[5] != 1) {
    error = "not a 64-bit little-endian ELF file";
    return false;
  }
  symbol = ElfSymbol{};
  symbol.position_independent = header.type == kTypeShared;
  for (std::uint16_t i = 0; i < header.phnum; ++i) {
    ProgramHeader segment{};
    if (!At(image, header.phoff + std::uint64_t{i} * sizeof segment, segment)) break;
    if (segment.type == kLoad) {
      symbol.first_load = segment.vaddr & kPageMask;
      break;
    }
  }
  // The full table first: it has the static functions and the globals a stripped file loses.
  for (const std::uint32_t kind : {kSymbolTable, kDynamicSymbols}) {
    for (std::uint16_t i = 0; i < header.shnum; ++i) {
      SectionHeader section{};
      if (!At(image, header.shoff + std::uint64_t{i} * sizeof section, section)) break;
      if (section.type == kind && section.link < header.shnum &&
          FindIn(image, header, section, name, symbol.value)) {
        return true;
      }
    }
  }
  error = "no symbol '" + name + "'";
  return false;
}

std::uint64_t RunTimeAddress(const ElfSymbol& symbol, std::uint64_t load_base) {
  return symbol.position_independent ? symbol.value + (load_base - symbol.first_load)
                                     : symbol.value;
}

}  // namespace qv
