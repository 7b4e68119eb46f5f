// The ELF symbol lookup behind symbols in place of addresses, on bytes that are made to fail in
// one way each; the real programs are looked up in local_commands_test.cpp.
#include "server/debug/elf_symbols.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qv {
namespace {

// A minimal ELF64 file: header, one PT_LOAD at `load`, a symbol table with `symbol` at 0x1139
// (defined unless `undefined`) and its string table.
std::vector<std::uint8_t> Image(std::uint16_t type, std::uint64_t load, bool undefined = false) {
  std::vector<std::uint8_t> image(0x200, 0);
  const auto put = [&](size_t at, auto value) { std::memcpy(&image[at], &value, sizeof value); };
  std::memcpy(image.data(),
              "\x7f"
              "ELF\x02\x01\x01",
              7);
  put(16, type);
  put(32, std::uint64_t{0x40});   // phoff
  put(40, std::uint64_t{0x100});  // shoff
  put(54, std::uint16_t{56});     // phentsize
  put(56, std::uint16_t{1});      // phnum
  put(58, std::uint16_t{64});     // shentsize
  put(60, std::uint16_t{3});      // shnum: null, symtab, strtab
  put(0x40, std::uint32_t{1});    // PT_LOAD
  put(0x40 + 16, load);
  // Section 1: SHT_SYMTAB at 0x1C0, two entries (the null symbol and ours), names in section 2.
  put(0x140 + 4, std::uint32_t{2});
  put(0x140 + 24, std::uint64_t{0x1C0});
  put(0x140 + 32, std::uint64_t{48});
  put(0x140 + 40, std::uint32_t{2});
  // Section 2: the names at 0x1F0.
  put(0x180 + 4, std::uint32_t{3});
  put(0x180 + 24, std::uint64_t{0x1F0});
  put(0x180 + 32, std::uint64_t{16});
  std::memcpy(&image[0x1F1], "main", 5);
  put(0x1C0 + 24, std::uint32_t{1});  // name
  put(0x1C0 + 24 + 6, static_cast<std::uint16_t>(undefined ? 0 : 14));
  put(0x1C0 + 24 + 8, std::uint64_t{0x1139});
  return image;
}

TEST(ElfSymbols, FindsAndPlacesTheSymbol) {
  struct Case {
    const char* what;
    std::uint16_t type;
    std::uint64_t load, base, address;
  };
  for (const Case& c : {
           Case{"fixed address: stays where linked", 2, 0x400000, 0x400000, 0x1139},
           Case{"position independent: moved by the bias", 3, 0, 0x555555554000, 0x555555555139},
           Case{"bias from a page-aligned first segment", 3, 0x10F0, 0x7f0000001000,
                0x7f0000001139},
       }) {
    ElfSymbol symbol;
    std::string error;
    ASSERT_TRUE(FindElfSymbol(Image(c.type, c.load), "main", symbol, error)) << c.what << error;
    EXPECT_EQ(RunTimeAddress(symbol, c.base), c.address) << c.what;
  }
}

TEST(ElfSymbols, SaysWhyItFindsNothing) {
  std::vector<std::uint8_t> truncated_table = Image(2, 0);
  truncated_table.resize(0x1D0);
  std::vector<std::uint8_t> not_elf = Image(2, 0);
  not_elf[1] = 'X';
  struct Case {
    const char* what;
    std::vector<std::uint8_t> image;
    const char* name;
    const char* error;
  };
  for (const Case& c : {
           Case{"another name", Image(2, 0), "mai", "no symbol 'mai'"},
           Case{"a prefix of the name", Image(2, 0), "main2", "no symbol 'main2'"},
           Case{"undefined here", Image(2, 0, true), "main", "no symbol 'main'"},
           Case{"table past the end", truncated_table, "main", "no symbol 'main'"},
           Case{"not ELF", not_elf, "main", "not a 64-bit"},
           Case{"empty", {}, "main", "not a 64-bit"},
       }) {
    ElfSymbol symbol;
    std::string error;
    EXPECT_FALSE(FindElfSymbol(c.image, c.name, symbol, error)) << c.what;
    EXPECT_NE(error.find(c.error), std::string::npos) << c.what << ": " << error;
  }
}

}  // namespace
}  // namespace qv
