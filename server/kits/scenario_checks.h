#pragma once
// The small checks that every part of a scenario is read with: each refuses a value with its line
// and a text that names the key (DocumentError, caught where the scenario is parsed).

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "server/kits/scenario.h"
#include "server/kits/scenario_document.h"

namespace qv::server {

[[noreturn]] void Refuse(const DocNode& node, std::string what);
// The value of `key` in `map`, or nullptr.
const DocNode* Find(const DocNode& map, std::string_view key);
// The node's text; refused unless it is a single value.
std::string Single(const DocNode& node, const std::string& key);
// true/yes/on or false/no/off.
bool Flag(const DocNode& node, const std::string& key);
uint32_t Milliseconds(const DocNode& node, const std::string& key);
// Unknown keys are refused (a misspelt one would otherwise be ignored), and so are repeated ones
// (which value counts would be a guess).
void CheckKeys(const DocNode& map, const std::set<std::string>& known, const char* what);

// The `scripts` list of a kit (docs/scenarios.md).
std::vector<KitScript> ReadScripts(const DocNode& node);
// The `protocols` list of a kit, or of the local target when `local` (which alone may forward).
std::vector<ProtocolEndpoint> ReadProtocols(const DocNode& node, bool local);
// The `images` list of a kit: the programs it can load.
std::vector<ProgramImage> ReadImages(const DocNode& node);
// The modules, synchronisation and application objects, sockets and files of the image `node`
// describes, and what its threads wait on; `image` has its threads, named, already.
void ReadImageObjects(const DocNode& node, ProgramImage& image);

}  // namespace qv::server
