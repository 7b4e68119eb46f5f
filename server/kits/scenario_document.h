#pragma once
// A scenario file as a tree of values, before the scenario's own rules are checked. Two readers
// make it: yaml-cpp where the build has it, and a small reader of the YAML subset that
// docs/scenarios.md describes (the Windows build, which has no yaml-cpp). Both feed the same
// checks, so a file means the same kits, or the same refusal, whichever reads it.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "server/kits/scenario.h"

namespace qv::server {

struct DocNode {
  enum class Kind { kNull, kScalar, kMap, kList };
  Kind kind = Kind::kNull;
  int line = 1;                                      // where the value starts, counted from 1
  std::string scalar;                                // kScalar
  std::vector<std::pair<DocNode, DocNode>> entries;  // kMap, keys and values in file order
  std::vector<DocNode> items;                        // kList

  friend bool operator==(const DocNode&, const DocNode&) = default;
};

// What a reader or the scenario checks refuse, and the line (from 1) it concerns.
struct DocumentError {
  int line;
  std::string what;
};

// The readers throw DocumentError for text they cannot read.
DocNode ReadYamlSubset(const std::string& text);
#ifdef VEKX_SERVER_HAVE_YAML
DocNode ReadYamlWithYamlCpp(const std::string& text);
#endif

// The kits a document describes; throws DocumentError for a mistake.
Scenario ScenarioFromDocument(const DocNode& root);

using DocumentReader = DocNode (*)(const std::string& text);
// ParseScenario with the given reader.
ScenarioResult ParseScenarioWith(DocumentReader reader, const std::string& text,
                                 const std::string& file_name) noexcept;

}  // namespace qv::server
