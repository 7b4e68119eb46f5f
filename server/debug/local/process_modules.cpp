#include "server/debug/local/process_modules.h"

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>

#include "platform/wide_string.h"
#include "server/debug/debug_backend.h"
#include "server/debug/record_codes.h"

namespace qv::server {
namespace {

constexpr size_t kNotAModule = SIZE_MAX;  // a file's place in the list when it is no module

uint64_t ModuleId(const ModuleInfoRecord& module) {
  return module.SegmentInfoList.empty() ? 0 : module.SegmentInfoList.front().BaseAddress;
}

bool SameModule(const ModuleInfoRecord& a, const ModuleInfoRecord& b) {
  return a.LoadPath == b.LoadPath && ModuleId(a) == ModuleId(b);
}

}  // namespace

ElfEntry ReadElfEntry(const std::string& path) {
  ElfEntry result;
  std::ifstream file(path, std::ios::binary);
  Elf64_Ehdr header{};
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  if (file.gcount() >= SELFMAG && std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
    result.not_elf = true;
    return result;
  }
  if (!file) return result;
  if (header.e_ident[EI_MAG0] != ELFMAG0 || header.e_ident[EI_MAG1] != ELFMAG1 ||
      header.e_ident[EI_MAG2] != ELFMAG2 || header.e_ident[EI_MAG3] != ELFMAG3 ||
      header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr)) {
    return result;
  }
  result.position_independent = header.e_type == ET_DYN;
  result.entry = header.e_entry;
  file.seekg(static_cast<std::streamoff>(header.e_phoff));
  for (uint16_t i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment{};
    if (!file.read(reinterpret_cast<char*>(&segment), sizeof segment)) break;
    if (segment.p_type == PT_LOAD) {
      result.first_load = segment.p_vaddr & kPageMask;
      break;
    }
  }
  return result;
}

ModuleInfoList ModulesOf(const std::vector<Mapping>& mappings, const std::string& program,
                         std::map<std::string, ElfEntry>* elf_entries) {
  ModuleInfoList modules;
  std::map<std::string, size_t> by_path;
  for (const Mapping& mapping : mappings) {
    if (mapping.path.empty() || mapping.path[0] != '/') continue;  // anonymous, [heap], ...
    auto [it, added] = by_path.emplace(mapping.path, modules.size());
    if (added) {
      ElfEntry elf;
      if (elf_entries == nullptr) {
        elf = ReadElfEntry(mapping.path);
      } else {
        const auto known = elf_entries->find(mapping.path);
        elf = known != elf_entries->end()
                  ? known->second
                  : elf_entries->emplace(mapping.path, ReadElfEntry(mapping.path)).first->second;
      }
      if (elf.not_elf) {
        it->second = kNotAModule;
        continue;
      }
      ModuleInfoRecord module;
      const size_t slash = mapping.path.rfind('/');
      module.ModuleName = platform::Utf8ToUtf16(mapping.path.substr(slash + 1));
      module.LoadPath = platform::Utf8ToUtf16(mapping.path);
      module.OriginalFile = module.LoadPath;
      module.Type = mapping.path == program ? kModuleExecutable : kModuleSharedLibrary;
      module.ReferenceCount = 1;
      // The mapping of the file's start is where its first loadable segment went.
      if (mapping.offset == 0) {
        const uint64_t bias = elf.position_independent ? mapping.start - elf.first_load : 0;
        if (elf.entry != 0) module.StartEntryAddress = elf.entry + bias;
      }
      modules.push_back(std::move(module));
    }
    if (it->second == kNotAModule) continue;
    SegmentInfoRecord segment;
    segment.Attributes = mapping.protection;
    segment.BaseAddress = mapping.start;
    segment.Size = mapping.end - mapping.start;
    modules[it->second].SegmentInfoList.push_back(segment);
  }
  return modules;
}

void ModuleChanges(const ModuleInfoList& before, const ModuleInfoList& now, ModuleInfoList& loaded,
                   U64List& unloaded) {
  for (const ModuleInfoRecord& module : now) {
    bool known = false;
    for (const ModuleInfoRecord& old : before)
      known = known || SameModule(old, module);
    if (!known) loaded.push_back(module);
  }
  for (const ModuleInfoRecord& old : before) {
    bool kept = false;
    for (const ModuleInfoRecord& module : now)
      kept = kept || SameModule(old, module);
    if (!kept) unloaded.push_back(ModuleId(old));
  }
}

}  // namespace qv::server
