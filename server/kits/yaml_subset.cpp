// Reading scenario files without yaml-cpp: the YAML subset docs/scenarios.md describes. Block
// mappings and lists nest by indentation; flow mappings and lists, and quoted values, stay on one
// line; anything else YAML offers is refused with its line rather than read differently.
#include "server/kits/scenario_document.h"

#include <cstring>

namespace qv::server {
namespace {

using Kind = DocNode::Kind;

[[noreturn]] void Refuse(int line, std::string what) {
  throw DocumentError{line, std::move(what)};
}

// Scenarios nest four deep; a limit keeps hostile nesting from exhausting the stack.
constexpr int kMaxDepth = 32;
const char kTooDeep[] = "values nest deeper than 32 levels";
const char kMisplaced[] = "this line's indentation matches no key or list item above it";

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

void SkipBlanks(const std::string& s, size_t& pos) {
  while (pos < s.size() && IsBlank(s[pos]))
    ++pos;
}

// Skips blanks; true when nothing but a comment is left on the line.
bool RestIsEmpty(const std::string& s, size_t& pos) {
  SkipBlanks(s, pos);
  return pos == s.size() || (s[pos] == '#' && (pos == 0 || IsBlank(s[pos - 1])));
}

// '-', '?' or ':' followed by a blank (or the end) is YAML syntax, not the start of a value.
bool IsIndicator(const std::string& s, size_t pos) {
  return std::strchr("-?:", s[pos]) != nullptr && (pos + 1 == s.size() || IsBlank(s[pos + 1]));
}

DocNode Scalar(int line, std::string text) {
  DocNode node;
  node.kind = Kind::kScalar;
  node.line = line;
  node.scalar = std::move(text);
  return node;
}

DocNode Null(int line) {
  DocNode node;
  node.line = line;
  return node;
}

DocNode Quoted(const std::string& s, size_t& pos, int line) {
  const char quote = s[pos++];
  std::string text;
  for (;;) {
    if (pos >= s.size()) Refuse(line, "a quoted value must end on its line");
    const char c = s[pos++];
    if (c == quote) {
      // In single quotes, '' stands for one quote.
      if (quote == '\'' && pos < s.size() && s[pos] == '\'') {
        text += '\'';
        ++pos;
        continue;
      }
      return Scalar(line, std::move(text));
    }
    if (c == '\\' && quote == '"') {
      const char escaped = pos < s.size() ? s[pos++] : '\0';
      switch (escaped) {
        case '"':
        case '\\':
        case '/':
          text += escaped;
          break;
        case 'n':
          text += '\n';
          break;
        case 't':
          text += '\t';
          break;
        default:
          Refuse(line, std::string("unsupported escape '\\") + escaped +
                           "' in a quoted value (known: \\\" \\\\ \\/ \\n \\t)");
      }
      continue;
    }
    text += c;
  }
}

// A plain value ends before ": " and " #"; inside a flow collection also before ',', ']', '}'.
DocNode Plain(const std::string& s, size_t& pos, int line, bool flow) {
  const char first = s[pos];
  if (std::strchr("&*!|>%@`", first) != nullptr || IsIndicator(s, pos)) {
    Refuse(line, std::string("'") + first +
                     "' starts YAML that scenario files do not use; put the value in quotes");
  }
  const char* flow_ends = ",]}";
  size_t end = pos;
  while (end < s.size()) {
    const char c = s[end];
    const char next = end + 1 < s.size() ? s[end + 1] : ' ';
    if (c == ':' && (IsBlank(next) || (flow && std::strchr(flow_ends, next) != nullptr))) break;
    if (c == '#' && end > pos && IsBlank(s[end - 1])) break;
    if (flow && std::strchr(flow_ends, c) != nullptr) break;
    ++end;
  }
  size_t last = end;
  while (last > pos && IsBlank(s[last - 1]))
    --last;
  std::string text = s.substr(pos, last - pos);
  pos = end;
  if (text.empty() || text == "~" || text == "null" || text == "Null" || text == "NULL") {
    return Null(line);
  }
  return Scalar(line, std::move(text));
}

DocNode Value(const std::string& s, size_t& pos, int line, bool flow, bool key, int depth);

// {a: 1, b: 2} or [a, b], closed on the same line.
DocNode Flow(const std::string& s, size_t& pos, int line, int depth) {
  if (depth > kMaxDepth) Refuse(line, kTooDeep);
  const char open = s[pos++];
  const char close = open == '{' ? '}' : ']';
  DocNode node;
  node.kind = open == '{' ? Kind::kMap : Kind::kList;
  node.line = line;
  for (;;) {
    SkipBlanks(s, pos);
    if (pos >= s.size()) break;
    if (s[pos] == close) {
      ++pos;
      return node;
    }
    if (open == '{') {
      DocNode key = Value(s, pos, line, true, true, depth + 1);
      SkipBlanks(s, pos);
      DocNode value = Null(line);
      if (pos < s.size() && s[pos] == ':') {
        ++pos;
        SkipBlanks(s, pos);
        if (pos < s.size() && s[pos] != ',' && s[pos] != '}')
          value = Value(s, pos, line, true, false, depth + 1);
      }
      node.entries.emplace_back(std::move(key), std::move(value));
    } else {
      node.items.push_back(Value(s, pos, line, true, false, depth + 1));
    }
    SkipBlanks(s, pos);
    if (pos >= s.size()) break;
    if (s[pos] == close) continue;
    if (s[pos] != ',') {
      Refuse(line, std::string("expected ',' or '") + close + "' but found '" + s[pos] + "'");
    }
    ++pos;
  }
  Refuse(line, std::string("'") + open + "' must be closed with '" + close + "' on the same line");
}

DocNode Value(const std::string& s, size_t& pos, int line, bool flow, bool key, int depth) {
  const char first = s[pos];
  if (first == '{' || first == '[') {
    if (key) Refuse(line, "a key must be a single value");
    return Flow(s, pos, line, depth);
  }
  if (first == '"' || first == '\'') return Quoted(s, pos, line);
  return Plain(s, pos, line, flow);
}

// One line that holds more than a comment.
struct Line {
  int number;
  size_t indent;  // where its content starts; moved past "- " once that is read
  std::string text;
};

class BlockReader {
 public:
  explicit BlockReader(const std::string& text) {
    size_t start = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    for (int number = 1; start <= text.size(); ++number) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      std::string s = text.substr(start, end - start);
      start = end + 1;
      if (!s.empty() && s.back() == '\r') s.pop_back();
      size_t indent = s.find_first_not_of(' ');
      if (indent == std::string::npos) continue;
      size_t content = indent;
      if (RestIsEmpty(s, content)) continue;
      if (content != indent) Refuse(number, "tabs cannot indent; use spaces");
      // A document start marker may open the file.
      if (lines_.empty() && s.compare(0, 3, "---") == 0) {
        size_t after = 3;
        if (RestIsEmpty(s, after)) continue;
      }
      lines_.push_back({number, indent, std::move(s)});
    }
  }

  DocNode Document() {
    if (lines_.empty()) return Null(1);
    DocNode root = Block(0);
    if (next_ < lines_.size()) Refuse(lines_[next_].number, kMisplaced);
    return root;
  }

 private:
  bool More() const { return next_ < lines_.size(); }

  static bool IsDash(const Line& line) {
    return line.text[line.indent] == '-' && IsIndicator(line.text, line.indent);
  }

  // Whether the line, from its indentation on, is "key: ...".
  static bool IsKeyLine(const Line& line) {
    const char first = line.text[line.indent];
    if (first == '{' || first == '[' || IsDash(line)) return false;
    size_t pos = line.indent;
    Value(line.text, pos, line.number, false, true, 0);
    SkipBlanks(line.text, pos);
    return pos < line.text.size() && line.text[pos] == ':';
  }

  // The value that starts at the current line.
  DocNode Block(int depth) {
    Line& line = lines_[next_];
    if (IsDash(line)) return List(line.indent, depth);
    if (IsKeyLine(line)) return Map(line.indent, depth);
    size_t pos = line.indent;
    ++next_;
    return InlineValue(line, pos, depth);
  }

  DocNode List(size_t indent, int depth) {
    if (depth > kMaxDepth) Refuse(lines_[next_].number, kTooDeep);
    DocNode list;
    list.kind = Kind::kList;
    list.line = lines_[next_].number;
    while (More() && lines_[next_].indent == indent && IsDash(lines_[next_])) {
      Line& line = lines_[next_];
      size_t pos = indent + 1;
      if (RestIsEmpty(line.text, pos)) {
        ++next_;
        const bool nested = More() && lines_[next_].indent > indent;
        list.items.push_back(nested ? Block(depth + 1) : Null(line.number));
      } else {
        // The item starts on the dash's line: read on as if the line began there.
        line.indent = pos;
        list.items.push_back(Block(depth + 1));
      }
    }
    return list;
  }

  DocNode Map(size_t indent, int depth) {
    if (depth > kMaxDepth) Refuse(lines_[next_].number, kTooDeep);
    DocNode map;
    map.kind = Kind::kMap;
    map.line = lines_[next_].number;
    while (More() && lines_[next_].indent == indent) {
      const Line& line = lines_[next_];
      if (!IsKeyLine(line)) Refuse(line.number, "expected 'key: value'");
      size_t pos = line.indent;
      DocNode key = Value(line.text, pos, line.number, false, true, depth);
      SkipBlanks(line.text, pos);
      ++pos;  // the ':'
      DocNode value = Null(line.number);
      if (RestIsEmpty(line.text, pos)) {
        ++next_;
        // A list may sit at the key's own indentation.
        if (More() && (lines_[next_].indent > indent ||
                       (lines_[next_].indent == indent && IsDash(lines_[next_])))) {
          value = Block(depth + 1);
        }
      } else {
        ++next_;
        value = InlineValue(line, pos, depth + 1);
      }
      map.entries.emplace_back(std::move(key), std::move(value));
    }
    if (More() && lines_[next_].indent > indent) {
      Refuse(lines_[next_].number, kMisplaced);
    }
    return map;
  }

  static DocNode InlineValue(const Line& line, size_t& pos, int depth) {
    DocNode value = Value(line.text, pos, line.number, false, false, depth);
    if (!RestIsEmpty(line.text, pos)) {
      Refuse(line.number, line.text[pos] == ':'
                              ? "a value that holds ': ' must be in quotes"
                              : "unexpected '" + line.text.substr(pos) + "' after a value");
    }
    return value;
  }

  std::vector<Line> lines_;
  size_t next_ = 0;
};

}  // namespace

DocNode ReadYamlSubset(const std::string& text) {
  return BlockReader(text).Document();
}

}  // namespace qv::server
