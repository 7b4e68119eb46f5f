#include "symbol_address.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <vector>

#include "debug_values.h"
#include "server/debug/elf_symbols.h"

namespace vesta_ctrl {
namespace {

constexpr std::uint32_t kExecutable = 0;  // MODULE_TYPE_EXECUTABLE

}  // namespace

bool IsSymbolName(std::string_view text) {
  return !text.empty() &&
         (std::isalpha(static_cast<unsigned char>(text[0])) || text[0] == '_' || text[0] == '.');
}

std::uint64_t SymbolAddress(const ProcessRef& ref, const std::string& name) {
  const std::string process = "process " + std::to_string(ref.pid);
  const vekx::Variant list = Read(*ref.process.Get(), &IProcess::get_Modules);
  for (const auto& module : ObjectsOf<IModule>(list.Get(), IID_IModule)) {
    if (Read(*module.Get(), &IModule::get_Type) != kExecutable) continue;
    const std::string path = Read(*module.Get(), &IModule::get_LoadPath);
    std::uint64_t base = UINT64_MAX;
    const vekx::Variant segments = Read(*module.Get(), &IModule::get_Segments);
    for (const auto& segment : ObjectsOf<ISegmentInfo>(segments.Get(), IID_ISegmentInfo))
      base = std::min(base, Read(*segment.Get(), &ISegmentInfo::get_BaseAddress));
    std::ifstream file(path, std::ios::binary);
    const std::vector<std::uint8_t> image{std::istreambuf_iterator<char>(file),
                                          std::istreambuf_iterator<char>()};
    if (!file.is_open() || image.empty()) {
      throw Failure(S_OK, "cannot read " + path + ", the main program of " + process +
                              ", to look up '" + name + "'");
    }
    qv::ElfSymbol symbol;
    std::string error;
    if (!qv::FindElfSymbol(image, name, symbol, error))
      throw Failure(S_OK, path + " (the main program of " + process + "): " + error);
    if (symbol.position_independent && base == UINT64_MAX)
      throw Failure(S_OK, process + " lists no segments of " + path + " to place '" + name + "'");
    return qv::RunTimeAddress(symbol, base);
  }
  throw Failure(S_OK, process + " lists no main program to look up '" + name + "' in");
}

}  // namespace vesta_ctrl
