#pragma once
// ADDR as the debug commands take it: a number, or the name of a symbol of the process's main
// program, looked up in the ELF file the target says the program was loaded from.

#include <cstdint>
#include <string>
#include <string_view>

#include "process_resolution.h"

namespace vesta_ctrl {

// Whether `text` is a symbol's name rather than a number: it begins with a letter, '_' or '.'.
bool IsSymbolName(std::string_view text);

// The address of the symbol `name` in the process: its main program (the module of type
// MODULE_TYPE_EXECUTABLE) is read from its load path, and a position-independent one is moved by
// where its lowest segment lies. Throws Failure when the process lists no main program, its file
// cannot be read, or it has no such symbol.
std::uint64_t SymbolAddress(const ProcessRef& ref, const std::string& name);

}  // namespace vesta_ctrl
