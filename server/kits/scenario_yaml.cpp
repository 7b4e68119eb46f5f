// Reading scenario files with yaml-cpp, where the build has it.
#include "server/kits/scenario_document.h"

#include <yaml-cpp/yaml.h>

namespace qv::server {
namespace {

// `null_line` is where an empty value was written: yaml-cpp marks it where the next token starts.
DocNode Convert(const YAML::Node& node, int null_line) {
  DocNode out;
  out.line = node.Mark().line + 1;
  switch (node.Type()) {
    case YAML::NodeType::Undefined:
    case YAML::NodeType::Null:
      out.line = null_line;
      break;
    case YAML::NodeType::Scalar:
      out.kind = DocNode::Kind::kScalar;
      out.scalar = node.Scalar();
      break;
    case YAML::NodeType::Sequence:
      out.kind = DocNode::Kind::kList;
      for (const YAML::Node& item : node)
        out.items.push_back(Convert(item, item.Mark().line + 1));
      break;
    case YAML::NodeType::Map:
      out.kind = DocNode::Kind::kMap;
      for (const auto& entry : node) {
        DocNode key = Convert(entry.first, entry.first.Mark().line + 1);
        const int key_line = key.line;
        out.entries.emplace_back(std::move(key), Convert(entry.second, key_line));
      }
      break;
  }
  return out;
}

}  // namespace

DocNode ReadYamlWithYamlCpp(const std::string& text) {
  try {
    const YAML::Node root = YAML::Load(text);
    return Convert(root, 1);
  } catch (const YAML::Exception& error) {
    throw DocumentError{error.mark.line + 1, error.msg};
  }
}

}  // namespace qv::server
