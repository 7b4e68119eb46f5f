#include "xfer_documents.h"

#include <cstdio>
#include <filesystem>

#include "packet_framing.h"

namespace vesta_gdb {
namespace {

std::string XmlText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool SameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  if (a == b) return true;
  return std::filesystem::equivalent(a, b, error) && !error;
}

}  // namespace

std::string ThreadsDocument(const std::vector<ThreadEntry>& threads) {
  std::string xml = "<?xml version=\"1.0\"?>\n<threads>\n";
  for (const ThreadEntry& thread : threads) {
    xml += "<thread id=\"" + HexNumber(thread.tid) + "\"";
    if (!thread.name.empty()) xml += " name=\"" + XmlText(thread.name) + "\"";
    xml += "/>\n";
  }
  return xml + "</threads>\n";
}

std::string LibrariesDocument(const std::vector<ModuleEntry>& modules,
                              const std::string& executable) {
  std::string xml = "<library-list>\n";
  for (const ModuleEntry& module : modules) {
    if (module.path.empty() || SameFile(module.path, executable)) continue;
    xml += "<library name=\"" + XmlText(module.path) + "\"><segment address=\"0x" +
           HexNumber(module.base) + "\"/></library>\n";
  }
  return xml + "</library-list>\n";
}

std::string XferSlice(const std::string& document, std::uint64_t offset, std::uint64_t length) {
  if (offset >= document.size()) return "l";
  const std::string part = document.substr(offset, length);
  const bool last = offset + part.size() >= document.size();
  return (last ? "l" : "m") + EscapeBinary(part);
}

}  // namespace vesta_gdb
