#include "server/debug/core/core_memory.h"

#include <algorithm>

namespace qv::server {

size_t MappedFiles::ReadAt(const std::string& path, uint64_t offset, void* out, size_t size) {
  if (!enabled_) return 0;
  std::shared_ptr<CoreBytes> file;
  {
    std::lock_guard lock(mutex_);
    const auto it = open_.find(path);
    if (it != open_.end()) {
      if (it->second == nullptr) return 0;
      file = it->second;
    }
  }
  if (file == nullptr) {
    std::unique_ptr<CoreBytes> opened;
    const bool ok =
        OpenCoreFile(std::filesystem::path(std::u8string(path.begin(), path.end())), opened).ok();
    file = std::move(opened);
    std::lock_guard lock(mutex_);
    if (open_.size() < kMaxOpen) open_.emplace(path, ok ? file : nullptr);
    if (!ok) return 0;
  }
  return file->ReadAt(offset, out, size);
}

void ReadCoreMemory(const ElfCore& core, const CoreBytes& bytes, MappedFiles& files,
                    uint64_t address, uint32_t size, Bytes& data, uint32_t& bad) {
  data.assign(size, 0);
  bad = 0;
  // The request's end, kept inside the address space.
  const uint64_t end = address + std::min<uint64_t>(size, UINT64_MAX - address);
  bad = static_cast<uint32_t>(size - (end - address));
  for (uint64_t at = address; at < end;) {
    // The piece from `at` that one source covers: the core's bytes first, then a mapped file.
    uint64_t piece_end = end;
    const ElfCoreSegment* held = nullptr;
    for (const ElfCoreSegment& segment : core.segments) {
      const uint64_t held_end = segment.address + segment.held;
      if (segment.address <= at && at < held_end) {
        held = &segment;
        piece_end = std::min(end, held_end);
        break;
      }
      if (segment.held != 0 && segment.address > at)
        piece_end = std::min(piece_end, segment.address);
    }
    const ElfCoreMappedFile* mapped = nullptr;
    for (const ElfCoreMappedFile& file : core.files) {
      if (held != nullptr) break;
      if (file.start <= at && at < file.end) {
        mapped = &file;
        piece_end = std::min(piece_end, file.end);
        break;
      }
      if (file.start > at) piece_end = std::min(piece_end, file.start);
    }
    uint8_t* out = data.data() + (at - address);
    const auto want = static_cast<size_t>(piece_end - at);
    size_t got = 0;
    if (held != nullptr) {
      got = bytes.ReadAt(held->offset + (at - held->address), out, want);
    } else if (mapped != nullptr && mapped->offset <= UINT64_MAX - (at - mapped->start)) {
      got = files.ReadAt(mapped->path, mapped->offset + (at - mapped->start), out, want);
    }
    bad += static_cast<uint32_t>(want - got);
    at = piece_end;
  }
}

}  // namespace qv::server
