#include "server/debug/core/elf_core.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <limits>

#include "platform/wide_string.h"
#include "server/debug/reporting.h"

namespace qv::server {
namespace {

// The ELF numbers this reader needs (no OS header has them on every host).
constexpr uint16_t kEtCore = 4;
constexpr uint16_t kEmX8664 = 62;
constexpr uint16_t kPnXnum = 0xFFFF;  // the real count is in section header 0's sh_info
constexpr uint32_t kPtLoad = 1;
constexpr uint32_t kPtNote = 4;
constexpr uint32_t kNtPrstatus = 1;
constexpr uint32_t kNtFpregset = 2;
constexpr uint32_t kNtPrpsinfo = 3;
constexpr uint32_t kNtAuxv = 6;
constexpr uint32_t kNtX86Xstate = 0x202;
constexpr uint32_t kNtFile = 0x46494C45;
constexpr size_t kEhdrSize = 64;
constexpr size_t kPhdrSize = 56;
constexpr size_t kShdrSize = 64;
// x86-64's elf_prstatus (336 bytes): pr_cursig at 12, pr_pid at 32, pr_reg at 112 (27 words).
constexpr size_t kPrstatusSignal = 12;
constexpr size_t kPrstatusPid = 32;
constexpr size_t kPrstatusRegs = 112;
constexpr size_t kPrstatusMin = kPrstatusRegs + 27 * 8;
// x86-64's elf_prpsinfo (136 bytes).
constexpr size_t kPrpsinfoUid = 16;
constexpr size_t kPrpsinfoPid = 24;
constexpr size_t kPrpsinfoParent = 28;
constexpr size_t kPrpsinfoName = 40;
constexpr size_t kPrpsinfoArgs = 56;
constexpr size_t kPrpsinfoSize = 136;
constexpr size_t kFxsaveSize = 512;

// `size` bytes at `offset` lie within `limit`, without overflow.
bool Within(uint64_t offset, uint64_t size, uint64_t limit) {
  return offset <= limit && size <= limit - offset;
}

// A C string of at most `size` bytes.
std::string Text(const uint8_t* at, size_t size) {
  const auto* end = static_cast<const uint8_t*>(std::memchr(at, 0, size));
  return std::string(reinterpret_cast<const char*>(at), end != nullptr ? end - at : size);
}

Status Malformed(const std::u16string& what) {
  return Status::Fail(KXAPI_ERR_INVALID_FORMAT, u"the core file is damaged: " + what);
}

class MemoryBytes final : public CoreBytes {
 public:
  explicit MemoryBytes(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  uint64_t Size() const override { return bytes_.size(); }
  size_t ReadAt(uint64_t offset, void* out, size_t size) const override {
    if (offset >= bytes_.size()) return 0;
    const size_t got = static_cast<size_t>(std::min<uint64_t>(size, bytes_.size() - offset));
    std::memcpy(out, bytes_.data() + offset, got);
    return got;
  }

 private:
  const std::vector<uint8_t> bytes_;
};

class FileBytes final : public CoreBytes {
 public:
  FileBytes(std::ifstream file, uint64_t size) : file_(std::move(file)), size_(size) {}
  uint64_t Size() const override { return size_; }
  size_t ReadAt(uint64_t offset, void* out, size_t size) const override {
    if (offset >= size_) return 0;
    size = static_cast<size_t>(std::min<uint64_t>(size, size_ - offset));
    std::lock_guard lock(mutex_);
    file_.clear();
    file_.seekg(static_cast<std::streamoff>(offset));
    file_.read(static_cast<char*>(out), static_cast<std::streamsize>(size));
    return static_cast<size_t>(std::max<std::streamsize>(file_.gcount(), 0));
  }

 private:
  mutable std::mutex mutex_;  // guards file_'s position
  mutable std::ifstream file_;
  const uint64_t size_;
};

// The notes of one PT_NOTE segment, each handed to `core` by type.
class NoteReader {
 public:
  explicit NoteReader(ElfCore& core) : core_(core) {}

  Status Read(const std::vector<uint8_t>& notes) {
    uint64_t at = 0;
    while (notes.size() - at >= 12) {
      const uint32_t name_size = Le<uint32_t>(&notes[at]);
      const uint32_t desc_size = Le<uint32_t>(&notes[at + 4]);
      const uint32_t type = Le<uint32_t>(&notes[at + 8]);
      const uint64_t name_at = at + 12;
      const uint64_t desc_at = name_at + ((uint64_t{name_size} + 3) & ~uint64_t{3});
      if (!Within(name_at, name_size, notes.size()) || !Within(desc_at, desc_size, notes.size())) {
        return Malformed(u"a note at " + Hex(at) + u" of its notes runs past them");
      }
      const std::string name = Text(&notes[name_at], name_size);
      if (Status status = Note(name, type, &notes[desc_at], desc_size); !status.ok()) {
        return status;
      }
      at = std::min<uint64_t>(notes.size(), desc_at + ((uint64_t{desc_size} + 3) & ~uint64_t{3}));
    }
    return Status::Ok();
  }

 private:
  Status Note(const std::string& name, uint32_t type, const uint8_t* desc, size_t size) {
    if (name == "LINUX" && type == kNtX86Xstate) {
      if (!core_.threads.empty()) core_.threads.back().xstate.assign(desc, desc + size);
      return Status::Ok();
    }
    if (name != "CORE") return Status::Ok();  // GNU and others: nothing a debugger needs here
    switch (type) {
      case kNtPrstatus: {
        if (size < kPrstatusMin) return Short(u"NT_PRSTATUS", size, kPrstatusMin);
        ElfCoreThread& thread = core_.threads.emplace_back();
        thread.signal = static_cast<int16_t>(Le<uint16_t>(desc + kPrstatusSignal));
        thread.tid = Le<uint32_t>(desc + kPrstatusPid);
        for (size_t i = 0; i < thread.general.size(); ++i)
          thread.general[i] = Le<uint64_t>(desc + kPrstatusRegs + i * 8);
        return Status::Ok();
      }
      case kNtFpregset:
        if (size < kFxsaveSize) return Short(u"NT_FPREGSET", size, kFxsaveSize);
        if (!core_.threads.empty()) core_.threads.back().fxsave.assign(desc, desc + kFxsaveSize);
        return Status::Ok();
      case kNtPrpsinfo:
        if (size < kPrpsinfoSize) return Short(u"NT_PRPSINFO", size, kPrpsinfoSize);
        core_.uid = Le<uint32_t>(desc + kPrpsinfoUid);
        core_.pid = Le<uint32_t>(desc + kPrpsinfoPid);
        core_.parent = Le<uint32_t>(desc + kPrpsinfoParent);
        core_.name = Text(desc + kPrpsinfoName, 16);
        core_.arguments = Text(desc + kPrpsinfoArgs, 80);
        return Status::Ok();
      case kNtAuxv:
        for (size_t at = 0; size - at >= 16; at += 16)
          core_.auxv.emplace_back(Le<uint64_t>(desc + at), Le<uint64_t>(desc + at + 8));
        return Status::Ok();
      case kNtFile:
        return Files(desc, size);
      default:
        return Status::Ok();
    }
  }

  // NT_FILE: count, page size, (start, end, offset in pages) per file, then the paths.
  Status Files(const uint8_t* desc, size_t size) {
    if (size < 16) return Short(u"NT_FILE", size, 16);
    const uint64_t count = Le<uint64_t>(desc);
    const uint64_t page = Le<uint64_t>(desc + 8);
    if (count > (size - 16) / 24) return Malformed(u"NT_FILE counts more files than it holds");
    size_t name_at = 16 + static_cast<size_t>(count) * 24;
    for (uint64_t i = 0; i < count; ++i) {
      const uint8_t* entry = desc + 16 + i * 24;
      const auto* end = static_cast<const uint8_t*>(std::memchr(desc + name_at, 0, size - name_at));
      if (end == nullptr) return Malformed(u"NT_FILE has fewer paths than files");
      ElfCoreMappedFile file;
      file.start = Le<uint64_t>(entry);
      file.end = Le<uint64_t>(entry + 8);
      const uint64_t pages = Le<uint64_t>(entry + 16);
      file.path = Text(desc + name_at, static_cast<size_t>(end - (desc + name_at)));
      name_at = static_cast<size_t>(end - desc) + 1;
      // A range that is empty or whose offset overflows maps nothing anybody could read.
      if (file.end <= file.start || (page != 0 && pages > UINT64_MAX / page)) continue;
      file.offset = pages * page;
      core_.files.push_back(std::move(file));
    }
    return Status::Ok();
  }

  static Status Short(const std::u16string& note, size_t size, size_t needed) {
    return Malformed(note + u" is " + Decimal(size) + u" bytes, not the " + Decimal(needed) +
                     u" of an x86-64 process");
  }

  ElfCore& core_;
};

}  // namespace

std::unique_ptr<CoreBytes> CoreBytesInMemory(std::vector<uint8_t> bytes) {
  return std::make_unique<MemoryBytes>(std::move(bytes));
}

Status OpenCoreFile(const std::filesystem::path& path, std::unique_ptr<CoreBytes>& bytes) {
  const std::u16string name = path.u16string();
  std::error_code error;
  const bool regular = std::filesystem::is_regular_file(path, error);
  if (!regular) {
    return Status::Fail(KXAPI_COMMS_ERR_FILE_DOES_NOT_EXIST,
                        std::filesystem::exists(path, error)
                            ? name + u" is not a file"
                            : name + u" does not exist on the server's host");
  }
  const uint64_t size = std::filesystem::file_size(path, error);
  std::ifstream file(path, std::ios::binary);
  if (error || !file) {
    return Status::Fail(KXAPI_COMMS_ERR_FILE_DOES_NOT_EXIST,
                        name + u" cannot be opened for reading");
  }
  bytes = std::make_unique<FileBytes>(std::move(file), size);
  return Status::Ok();
}

uint64_t ElfCore::Aux(uint64_t type) const {
  for (const auto& [key, value] : auxv) {
    if (key == type) return value;
  }
  return 0;
}

Status ParseElfCore(const CoreBytes& bytes, ElfCore& core) {
  core = ElfCore{};
  const uint64_t file_size = bytes.Size();
  uint8_t ehdr[kEhdrSize];
  if (bytes.ReadAt(0, ehdr, sizeof ehdr) != sizeof ehdr || std::memcmp(ehdr,
                                                                       "\x7f"
                                                                       "ELF",
                                                                       4) != 0) {
    return Status::Fail(KXAPI_UNKNOWN_IMAGE_FORMAT, u"the file is not an ELF file");
  }
  if (ehdr[4] != 2 || ehdr[5] != 1 || Le<uint16_t>(ehdr + 16) != kEtCore ||
      Le<uint16_t>(ehdr + 18) != kEmX8664) {
    return Status::Fail(KXAPI_UNKNOWN_IMAGE_FORMAT,
                        u"the file is an ELF file but not the core of a 64-bit x86-64 process");
  }
  const uint64_t phoff = Le<uint64_t>(ehdr + 32);
  const uint64_t shoff = Le<uint64_t>(ehdr + 40);
  uint64_t phnum = Le<uint16_t>(ehdr + 56);
  if (Le<uint16_t>(ehdr + 54) != kPhdrSize) return Malformed(u"its program headers' size is odd");
  if (phnum == kPnXnum) {
    uint8_t shdr[kShdrSize];
    if (bytes.ReadAt(shoff, shdr, sizeof shdr) != sizeof shdr) {
      return Malformed(u"the section header that counts its program headers is missing");
    }
    phnum = Le<uint32_t>(shdr + 44);
  }
  if (phnum > file_size / kPhdrSize || !Within(phoff, phnum * kPhdrSize, file_size)) {
    return Malformed(Decimal(phnum) + u" program headers at " + Hex(phoff) +
                     u" do not fit in its " + Decimal(file_size) + u" bytes");
  }
  std::vector<uint8_t> headers(static_cast<size_t>(phnum * kPhdrSize));
  if (bytes.ReadAt(phoff, headers.data(), headers.size()) != headers.size()) {
    return Malformed(u"its program headers cannot be read");
  }
  NoteReader notes(core);
  for (uint64_t i = 0; i < phnum; ++i) {
    const uint8_t* phdr = &headers[i * kPhdrSize];
    const uint32_t type = Le<uint32_t>(phdr);
    const uint32_t flags = Le<uint32_t>(phdr + 4);
    const uint64_t offset = Le<uint64_t>(phdr + 8);
    const uint64_t address = Le<uint64_t>(phdr + 16);
    const uint64_t held = Le<uint64_t>(phdr + 32);
    const uint64_t size = Le<uint64_t>(phdr + 40);
    if (type == kPtNote) {
      if (held > kMaxCoreNotes) {
        return Malformed(u"a note segment of " + Decimal(held) + u" bytes is beyond any process's");
      }
      if (!Within(offset, held, file_size)) {
        return Malformed(u"a note segment at " + Hex(offset) + u" runs past the file's end");
      }
      std::vector<uint8_t> segment(static_cast<size_t>(held));
      if (bytes.ReadAt(offset, segment.data(), segment.size()) != segment.size()) {
        return Malformed(u"a note segment at " + Hex(offset) + u" cannot be read");
      }
      if (Status status = notes.Read(segment); !status.ok()) return status;
    } else if (type == kPtLoad && size != 0) {
      ElfCoreSegment load;
      load.address = address;
      // Memory past the top of the address space does not exist.
      load.size = std::min(size, UINT64_MAX - address);
      load.offset = offset;
      // What a truncated core lost reads as missing, not as an error.
      load.held = offset < file_size ? std::min({held, load.size, file_size - offset}) : 0;
      load.protection = ((flags & 4) != 0 ? 1u : 0u) | ((flags & 2) != 0 ? 2u : 0u) |
                        ((flags & 1) != 0 ? 4u : 0u);
      core.segments.push_back(load);
    }
  }
  if (core.threads.empty()) return Malformed(u"it holds no thread (no NT_PRSTATUS note)");
  if (core.pid == 0) core.pid = core.threads.front().tid;
  return Status::Ok();
}

}  // namespace qv::server
