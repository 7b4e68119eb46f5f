#include "server/kits/scenario_fields.h"

namespace qv::server {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string FieldName(const char* label) {
  std::string name(label);
  if (!name.empty() && name.back() == ':') name.pop_back();
  return name;
}

bool detail::ParseMagnitude(const std::string& text, bool& negative, uint64_t& magnitude) {
  size_t pos = 0;
  negative = !text.empty() && text[0] == '-';
  if (negative) ++pos;
  unsigned base = 10;
  if (text.compare(pos, 2, "0x") == 0 || text.compare(pos, 2, "0X") == 0) {
    base = 16;
    pos += 2;
  }
  if (pos == text.size()) return false;
  magnitude = 0;
  for (; pos < text.size(); ++pos) {
    const int digit = HexDigit(text[pos]);
    if (digit < 0 || static_cast<unsigned>(digit) >= base) return false;
    if (magnitude > (UINT64_MAX - static_cast<unsigned>(digit)) / base) return false;
    magnitude = magnitude * base + static_cast<unsigned>(digit);
  }
  return true;
}

Bytes ByteString(const DocNode& node, const std::string& name) {
  if (node.kind == DocNode::Kind::kNull) return {};
  const std::string text = Single(node, name);
  Bytes bytes;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == ':' || text[i] == ' ') {
      ++i;
      continue;
    }
    const int high = HexDigit(text[i]);
    const int low = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
    if (high < 0 || low < 0) {
      Refuse(node,
             "'" + name + "' must be hex byte pairs (for example de:ad:be:ef), not '" + text + "'");
    }
    bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    i += 2;
  }
  return bytes;
}

SyncObjectKind SyncKind(const DocNode& node) {
  const std::string name = Single(node, "kind");
  for (size_t i = 0; i < kSyncObjectKindCount; ++i) {
    if (kSyncObjectKindNames[i] == name) return static_cast<SyncObjectKind>(i);
  }
  std::string known;
  for (std::string_view kind : kSyncObjectKindNames)
    known += (known.empty() ? "" : ", ") + std::string(kind);
  Refuse(node, "'" + name + "' is not a kind of synchronisation object (" + known + ")");
}

}  // namespace qv::server
