#pragma once
// The documents qXfer reads: the thread list and the library list as XML, and the slicing of a
// document into the "m"/"l" replies a debugger pages through.

#include <cstdint>
#include <string>
#include <vector>

#include "target_session.h"

namespace vesta_gdb {

std::string ThreadsDocument(const std::vector<ThreadEntry>& threads);
// Each module but the executable, at the address of its lowest segment.
std::string LibrariesDocument(const std::vector<ModuleEntry>& modules,
                              const std::string& executable);
// "m<part>" while more follows, "l<part>" for the last part, escaped for the packet.
std::string XferSlice(const std::string& document, std::uint64_t offset, std::uint64_t length);

}  // namespace vesta_gdb
