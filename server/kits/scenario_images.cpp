// The `images` of a kit: the programs it can load, with their memory and threads
// (docs/scenarios.md, "Program images").

#include <algorithm>
#include <string>

#include "debug/register_names.h"
#include "platform/wide_string.h"
#include "server/kits/scenario_checks.h"

namespace qv::server {
namespace {

using Kind = DocNode::Kind;

// A region may hold at most this much: the image lives in the server's memory.
constexpr uint64_t kMaxRegionBytes = 256ull << 20;

// Decimal, or hexadecimal after 0x; at most 64 bits.
uint64_t Number(const DocNode& node, const std::string& key) {
  const std::string value = Single(node, key);
  const bool hex = value.size() > 2 && value[0] == '0' && (value[1] == 'x' || value[1] == 'X');
  const std::string digits = hex ? value.substr(2) : value;
  uint64_t result = 0;
  const uint64_t base = hex ? 16 : 10;
  bool ok = !digits.empty() && digits.size() <= (hex ? 16u : 20u);
  for (char c : digits) {
    int digit = -1;
    if (c >= '0' && c <= '9') digit = c - '0';
    if (hex && c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    if (hex && c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    if (digit < 0 || result > (UINT64_MAX - static_cast<uint64_t>(digit)) / base) {
      ok = false;
      break;
    }
    result = result * base + static_cast<uint64_t>(digit);
  }
  if (!ok) Refuse(node, "'" + key + "' must be a number (decimal or 0x...), not '" + value + "'");
  return result;
}

// "55 48 89 e5" or "554889e5": pairs of hex digits, blanks between pairs allowed.
std::vector<uint8_t> HexBytes(const DocNode& node, const std::string& key) {
  const std::string value = Single(node, key);
  std::vector<uint8_t> bytes;
  int high = -1;
  for (char c : value) {
    if (c == ' ' && high < 0) continue;
    int digit = -1;
    if (c >= '0' && c <= '9') digit = c - '0';
    if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    if (digit < 0) Refuse(node, "'" + key + "' must be pairs of hex digits, not '" + value + "'");
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
      high = -1;
    }
  }
  if (high >= 0 || bytes.empty()) {
    Refuse(node, "'" + key + "' must be whole pairs of hex digits, not '" + value + "'");
  }
  return bytes;
}

// "rwx", "r-x", "rw-", ...: read, write and execute, each its letter or '-'.
uint32_t Protection(const DocNode& node) {
  const std::string value = Single(node, "protection");
  static constexpr char kLetters[] = "rwx";
  uint32_t bits = 0;
  bool ok = value.size() == 3;
  for (size_t i = 0; ok && i < 3; ++i) {
    ok = value[i] == kLetters[i] || value[i] == '-';
    if (value[i] == kLetters[i]) bits |= 1u << i;
  }
  if (!ok)
    Refuse(node,
           "'protection' must be three of r, w, x or '-' (rwx, r-x, rw-), not '" + value + "'");
  return bits;
}

ImageRegion ReadRegion(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each region must be a mapping with 'base'");
  CheckKeys(node, {"base", "size", "hex", "text", "fill", "name", "protection"}, "a region");
  const DocNode* base = Find(node, "base");
  if (base == nullptr) Refuse(node, "a region needs a 'base'");
  ImageRegion region;
  region.base = Number(*base, "base");
  const DocNode* hex = Find(node, "hex");
  const DocNode* text = Find(node, "text");
  const DocNode* fill = Find(node, "fill");
  if ((hex != nullptr) + (text != nullptr) + (fill != nullptr) > 1) {
    Refuse(node, "a region takes one of 'hex', 'text' and 'fill'");
  }
  std::vector<uint8_t> content;
  if (hex != nullptr) content = HexBytes(*hex, "hex");
  if (text != nullptr) {
    const std::string value = Single(*text, "text");
    content.assign(value.begin(), value.end());
  }
  std::vector<uint8_t> pattern;
  if (fill != nullptr) pattern = HexBytes(*fill, "fill");
  const DocNode* size_node = Find(node, "size");
  if (size_node == nullptr && (fill != nullptr || content.empty())) {
    Refuse(node, "a region needs a 'size' unless 'hex' or 'text' gives its bytes");
  }
  const uint64_t size = size_node != nullptr ? Number(*size_node, "size") : content.size();
  if (size == 0 || size > kMaxRegionBytes) {
    Refuse(size_node != nullptr ? *size_node : node,
           "a region's size must be from 1 byte to " + std::to_string(kMaxRegionBytes) + " bytes");
  }
  if (size < content.size()) Refuse(*size_node, "'size' is smaller than the region's contents");
  if (region.base > UINT64_MAX - (size - 1))
    Refuse(*base, "the region runs past the top of memory");
  region.bytes.assign(size, 0);
  std::copy(content.begin(), content.end(), region.bytes.begin());
  for (size_t i = 0; !pattern.empty() && i < size; ++i)
    region.bytes[i] = pattern[i % pattern.size()];
  if (const DocNode* name = Find(node, "name")) {
    region.name = platform::Utf8ToUtf16(Single(*name, "name"));
  }
  if (const DocNode* protection = Find(node, "protection")) {
    region.protection = Protection(*protection);
  }
  return region;
}

// Addresses, and {fault: CODE} entries that stop the thread where it is.
std::vector<PathStep> ReadPath(const DocNode& node) {
  if (node.kind != Kind::kList) Refuse(node, "'path' must be a list of addresses");
  std::vector<PathStep> path;
  for (const DocNode& entry : node.items) {
    PathStep step;
    if (entry.kind == Kind::kMap) {
      CheckKeys(entry, {"fault"}, "a path step");
      const DocNode* fault = Find(entry, "fault");
      if (fault == nullptr) Refuse(entry, "a path step is an address or {fault: REASON}");
      const uint64_t code = Number(*fault, "fault");
      if (code == 0 || code > UINT32_MAX) Refuse(*fault, "'fault' must be a stop reason code");
      step.fault = static_cast<uint32_t>(code);
    } else {
      step.address = Number(entry, "path");
    }
    path.push_back(step);
  }
  return path;
}

SanitizerReport ReadSanitizerReport(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "'asan' must be a mapping");
  CheckKeys(node, {"error_type", "address", "access_size", "write", "report"}, "asan");
  SanitizerReport report;
  if (const DocNode* type = Find(node, "error_type"))
    report.error_type = Single(*type, "error_type");
  if (const DocNode* address = Find(node, "address")) report.address = Number(*address, "address");
  if (const DocNode* size = Find(node, "access_size")) {
    const uint64_t value = Number(*size, "access_size");
    if (value > UINT32_MAX) Refuse(*size, "'access_size' must fit in 32 bits");
    report.access_size = static_cast<uint32_t>(value);
  }
  if (const DocNode* write = Find(node, "write")) report.is_write = Flag(*write, "write");
  if (const DocNode* text = Find(node, "report")) report.report = Single(*text, "report");
  return report;
}

ImageThread ReadThread(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each thread must be a mapping");
  CheckKeys(node, {"name", "registers", "path", "loop", "exit_code", "wait", "asan"}, "a thread");
  ImageThread thread;
  if (const DocNode* name = Find(node, "name")) thread.name = Single(*name, "name");
  if (const DocNode* path = Find(node, "path")) thread.path = ReadPath(*path);
  if (const DocNode* loop = Find(node, "loop")) thread.loop = Flag(*loop, "loop");
  if (thread.loop && thread.path.empty()) Refuse(node, "a thread that loops needs a 'path'");
  if (const DocNode* code = Find(node, "exit_code")) {
    const uint64_t value = Number(*code, "exit_code");
    if (value > UINT32_MAX) Refuse(*code, "'exit_code' must fit in 32 bits");
    thread.exit_code = static_cast<uint32_t>(value);
  }
  if (const DocNode* asan = Find(node, "asan")) thread.asan = ReadSanitizerReport(*asan);
  const DocNode* registers = Find(node, "registers");
  if (registers == nullptr || registers->kind == Kind::kNull) return thread;
  if (registers->kind != Kind::kMap) Refuse(*registers, "'registers' must be a mapping");
  for (const auto& [key, value] : registers->entries) {
    const std::string name = Single(key, "a register name");
    const auto id = RegisterIdByName(name);
    if (!id) Refuse(key, "'" + name + "' is not a register (rax ... r15, rip, rflags, ymm0 ...)");
    if (thread.registers.count(*id) != 0) Refuse(key, "'" + name + "' is given twice");
    std::array<uint64_t, 4> words{};
    if (value.kind == Kind::kList) {
      if (value.items.empty() || value.items.size() > 4) {
        Refuse(value, "'" + name + "' takes one to four 64-bit words, lowest first");
      }
      for (size_t i = 0; i < value.items.size(); ++i)
        words[i] = Number(value.items[i], name);
    } else {
      words[0] = Number(value, name);
    }
    thread.registers[*id] = words;
  }
  return thread;
}

ProgramImage ReadImage(const DocNode& node) {
  if (node.kind != Kind::kMap) Refuse(node, "each image must be a mapping with 'path'");
  CheckKeys(node,
            {"path", "name", "entry", "regions", "threads", "running", "modules", "sync",
             "app_objects", "sockets", "files", "gpu_info"},
            "an image");
  ProgramImage image;
  const DocNode* path = Find(node, "path");
  if (path == nullptr) Refuse(node, "an image needs a 'path'");
  const std::string path_text = Single(*path, "path");
  if (path_text.empty()) Refuse(*path, "'path' must not be empty");
  image.path = platform::Utf8ToUtf16(path_text);
  const DocNode* name = Find(node, "name");
  image.name =
      name != nullptr ? Single(*name, "name") : path_text.substr(path_text.find_last_of("/\\") + 1);
  if (const DocNode* entry = Find(node, "entry")) image.entry = Number(*entry, "entry");
  if (const DocNode* running = Find(node, "running")) image.running = Flag(*running, "running");
  if (const DocNode* regions = Find(node, "regions");
      regions != nullptr && regions->kind != Kind::kNull) {
    if (regions->kind != Kind::kList) Refuse(*regions, "'regions' must be a list");
    for (const DocNode& entry : regions->items) {
      ImageRegion region = ReadRegion(entry);
      for (const ImageRegion& other : image.regions) {
        const bool apart = region.base + (region.bytes.size() - 1) < other.base ||
                           other.base + (other.bytes.size() - 1) < region.base;
        if (!apart) Refuse(entry, "this region overlaps an earlier one");
      }
      image.regions.push_back(std::move(region));
    }
  }
  if (const DocNode* threads = Find(node, "threads");
      threads != nullptr && threads->kind != Kind::kNull) {
    if (threads->kind != Kind::kList) Refuse(*threads, "'threads' must be a list");
    for (const DocNode& entry : threads->items)
      image.threads.push_back(ReadThread(entry));
  }
  // Every process has a main thread, starting at the entry point.
  if (image.threads.empty()) image.threads.push_back({});
  for (ImageThread& thread : image.threads) {
    if (thread.name.empty()) thread.name = image.name;
  }
  image.threads.front().registers.try_emplace(*RegisterIdByName("rip"),
                                              std::array<uint64_t, 4>{image.entry, 0, 0, 0});
  ReadImageObjects(node, image);
  if (const DocNode* gpu = Find(node, "gpu_info")) image.gpu_info = HexBytes(*gpu, "gpu_info");
  return image;
}

}  // namespace

std::vector<ProgramImage> ReadImages(const DocNode& node) {
  std::vector<ProgramImage> images;
  if (node.kind == Kind::kNull) return images;
  if (node.kind != Kind::kList) Refuse(node, "'images' must be a list");
  for (const DocNode& entry : node.items) {
    ProgramImage image = ReadImage(entry);
    for (const ProgramImage& other : images) {
      if (other.path == image.path) Refuse(*Find(entry, "path"), "this path is given twice");
    }
    images.push_back(std::move(image));
  }
  return images;
}

}  // namespace qv::server
