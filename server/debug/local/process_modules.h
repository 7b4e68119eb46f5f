#pragma once
// The modules of a local process: each file mapped into it is one module, described from the
// mappings and the file's ELF header (its segments, where it was loaded, its entry point).

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "requests/debug_records.h"
#include "server/debug/local/proc_files.h"

namespace qv::server {

// What a module's ELF file says about where its code begins: the entry point as linked, and the
// address the first loadable segment was linked at (both 0 when the file is not a readable ELF).
struct ElfEntry {
  bool not_elf = false;  // readable, and not an ELF file: a mapped data file, not a module
  bool position_independent = false;  // ET_DYN: moved by the load bias
  uint64_t entry = 0;
  uint64_t first_load = 0;  // p_vaddr of the first PT_LOAD, page-aligned
};
ElfEntry ReadElfEntry(const std::string& path);

// One module per file in `mappings` (in address order of its first mapping) that is not plainly
// something other than an ELF file (the loader's cache, a data file): its name, load
// path, one segment per mapping, and its entry point. `program` is the path of the process's
// executable, which becomes MODULE_TYPE_EXECUTABLE; the others are shared libraries. The
// module's id, as the library gives it, is the base of its first segment. With `elf_entries`,
// each file's ELF header is read once and kept there by path.
ModuleInfoList ModulesOf(const std::vector<Mapping>& mappings, const std::string& program,
                         std::map<std::string, ElfEntry>* elf_entries = nullptr);

// The modules of `now` not in `before`, and the ids of those of `before` gone from `now`.
void ModuleChanges(const ModuleInfoList& before, const ModuleInfoList& now, ModuleInfoList& loaded,
                   U64List& unloaded);

}  // namespace qv::server
