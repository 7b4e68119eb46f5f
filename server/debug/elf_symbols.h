#pragma once
// Symbols of an ELF file, read from the file itself: vesta-ctrl's commands that take a symbol
// where an address goes (`break localhost 4242 main`), and the local target's hook in the dynamic
// linker. Portable code: vesta-ctrl builds it on Windows too.

#include <cstdint>
#include <string>
#include <vector>

namespace qv {

// What a symbol lookup needs of a file: where a name was linked, and how the file moves.
struct ElfSymbol {
  std::uint64_t value = 0;            // the address the symbol was linked at
  bool position_independent = false;  // ET_DYN: loaded wherever the loader chose
  std::uint64_t first_load = 0;       // p_vaddr of the first PT_LOAD, page-aligned
};

// Finds the defined symbol `name` in a 64-bit little-endian ELF image: in its full symbol table,
// else in its dynamic one (a stripped program keeps only the latter). On failure returns false
// with `error` saying why ("no symbol 'x'", "not an ELF file").
bool FindElfSymbol(const std::vector<std::uint8_t>& image, const std::string& name,
                   ElfSymbol& symbol, std::string& error);

// Where the symbol is in a process whose copy of the file begins at `load_base` (its lowest
// mapping): a position-independent file is moved by the load bias, any other stays where linked.
std::uint64_t RunTimeAddress(const ElfSymbol& symbol, std::uint64_t load_base);

}  // namespace qv
